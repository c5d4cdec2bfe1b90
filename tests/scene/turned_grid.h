// Volumes on a grid that is not parallel to the patient's axes.
#pragma once

#include "scene/import/imported_volume.h"
#include "scene/vector3.h"

#include <array>
#include <cstddef>

namespace scene_test {

// A volume of zeros with columns, rows and slices turned about a slanted axis.
inline scene::ImportedVolume TurnedVolume(const std::array<int, 3>& dims, const std::array<double, 3>& spacing_mm,
                                          double degrees) {
    using scene::Vec3;
    scene::ImportedVolume v;
    v.dims = dims;
    v.spacing_mm = spacing_mm;
    const Vec3 axis = Normalised(Vec3{0.3, -0.5, 0.8});
    const Vec3 axes[3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
    for (std::size_t i = 0; i < 3; ++i) {
        const Vec3 step = Rotated(axes[i], axis, degrees * 3.14159265358979 / 180.0) * spacing_mm[i];
        v.index_to_patient[i] = step.x;
        v.index_to_patient[4 + i] = step.y;
        v.index_to_patient[8 + i] = step.z;
    }
    v.index_to_patient[3] = 21.0;
    v.index_to_patient[7] = -140.0;
    v.index_to_patient[11] = 812.5;
    v.voxels = scene::VoxelBuffer(static_cast<std::size_t>(dims[0]) * static_cast<std::size_t>(dims[1]) *
                                  static_cast<std::size_t>(dims[2]));
    return v;
}

}  // namespace scene_test
