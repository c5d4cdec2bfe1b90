// The ray that a pixel of a picture looks along.
#pragma once

#include "scene/clipping.h"
#include "scene/views.h"
#include "scene/volume_source.h"

#include <array>
#include <optional>
#include <vector>

namespace scene {

// From where the ray enters the volume (voxel centres of the outermost voxels) to where it leaves it.
struct ViewingRay {
    Vec3 start_mm;      // patient LPS
    Vec3 direction_mm;  // unit vector away from the viewer
    double length_mm;
    Vec3 start_voxel;      // voxel indices
    Vec3 direction_voxel;  // of length 1 in voxel indices
    double length_voxels;
    double voxel_size_mm;  // how long direction_voxel is in mm
};

// Empty where the pixel's ray misses what the planes leave of the volume.
std::optional<ViewingRay> RayThrough(const Camera& camera, const VolumeSource& source,
                                     const std::vector<ClipPlane>& planes, double pixel_x, double pixel_y);

}  // namespace scene
