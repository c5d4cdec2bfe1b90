// Moving slices onto the straight, even grid of a plan.
#ifndef SCENE_IMPORT_STACK_RESAMPLING_H
#define SCENE_IMPORT_STACK_RESAMPLING_H

#include <array>
#include <cstdint>

#include "scene/import/stack_plan.h"

namespace scene::import {

// Computes slice `slice` of the plan's grid from the slices of the stack (`columns` x `rows` values each, one behind
// the other): linear between the two neighbours, bilinear within shifted slices, exact copies where a slice lies on the
// grid. `outside` stands where no slice reaches.
void ResampleSlice(const StackPlan& plan, int slice, const std::int16_t* stack, int columns, int rows, bool is_signed,
                   int outside, std::int16_t* out);

}  // namespace scene::import

#endif  // SCENE_IMPORT_STACK_RESAMPLING_H
