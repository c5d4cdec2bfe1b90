// From the places of slices to a straight, even grid.
#ifndef SCENE_IMPORT_STACK_PLAN_H
#define SCENE_IMPORT_STACK_PLAN_H

#include <array>
#include <string>
#include <vector>

#include "scene/import/grid_geometry.h"

namespace scene::import {

// Slices nearer than this along the normal are at one place.
constexpr double kEqualPositionMm = 1e-3;

// Where a stack of parallel slices lies. Unit vectors are orthogonal; the normal is their cross product.
struct StackGeometry {
    Vec3 along_row{}, along_column{};
    double column_step_mm = 1.0, row_step_mm = 1.0;
    int columns = 0, rows = 0;
    std::vector<Vec3> positions_mm;  // centre of the first pixel of each slice, ordered along the normal
    double single_step_mm = 1.0;     // distance of slices when there is only one
    int num_lost = 0;                // slices that are known to exist and cannot be read
};

// How the slices become a grid.
struct StackPlan {
    std::array<int, 3> dims{};
    Affine index_to_patient{};
    bool is_resampled = false;
    // Of each slice: its place along the normal and the shift of its first pixel along rows and columns, against the
    // grid's first voxel, in voxels of the grid.
    struct SlicePlace {
        double slice_vox = 0.0, column_vox = 0.0, row_vox = 0.0;
    };
    std::vector<SlicePlace> places;
    std::vector<std::string> warnings;
};

// A tilted gantry (slices shifted along their own plane) and uneven or missing slices lead to a plan with resampling
// and a warning. Throws ImportError about `what` when two slices lie at one place, when slices of one stack are shifted
// at random, or when more than a tenth of the slices is missing.
StackPlan PlanStack(const StackGeometry& geometry, const std::string& what);

}  // namespace scene::import

#endif  // SCENE_IMPORT_STACK_PLAN_H
