// Head, neck and shoulders of a made-up patient. Positions are mm relative to the volume's middle, axes L, P, S.
#pragma once

#include "scene/phantom_shapes.h"

namespace scene::phantom {

// Bones and soft tissue, without vessels.
Shapes HeadAnatomy();

// Arteries of both sides with random side branches, radius 6 voxels at the trunks down to 1 at the ends, where a voxel
// is `voxel_mm` wide (thinner in coarse volumes, where trunks would fill the neck).
std::vector<Vessel> HeadVessels(double voxel_mm, std::uint32_t seed);

// Plaques on the walls of some of the vessels.
std::vector<Tube> Calcifications(const std::vector<Vessel>& vessels, double voxel_mm, std::uint32_t seed);

}  // namespace scene::phantom
