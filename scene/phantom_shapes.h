// The shapes that phantoms are painted from, and the painter.
#pragma once

#include "scene/phantom.h"

#include <limits>
#include <vector>

namespace scene::phantom {

// An ellipsoid with axes along the patient's. An infinite radius makes a column.
struct Ellipsoid {
    Vec3 centre_mm;
    Vec3 radii_mm;
    double value_hu;
    PhantomLabel label;
    double z_first_mm = -std::numeric_limits<double>::infinity();
    double z_last_mm = std::numeric_limits<double>::infinity();
};

// A block of whole voxels, [first, last) along each axis, with sharp edges.
struct Block {
    std::array<int, 3> first;
    std::array<int, 3> last;
    double value_hu;
    PhantomLabel label;
};

// A round tube along a polyline with a radius at each point; one point makes a sphere.
struct Tube {
    std::vector<VesselPoint> points;
    double value_hu;
    PhantomLabel label;
};

// Shapes in the order of painting: ellipsoids, then blocks, then tubes; later ones cover earlier ones.
struct Shapes {
    std::vector<Ellipsoid> ellipsoids;
    std::vector<Block> blocks;
    std::vector<Tube> tubes;
};

// Paints the shapes over air into the voxels and labels of `phantom` (sized by its size), with soft edges about a voxel
// wide and noise of `noise_hu` standard deviation. Shape positions are relative to the middle of the volume.
void Paint(const Shapes& shapes, std::uint32_t seed, double noise_hu, Phantom& phantom);

}  // namespace scene::phantom
