// The optical model of a final enhanced frame, slow and in double precision, with a step of one's choice.
//
// A ray goes from the near to the far end of the reduced box, cut by the planes. Along it the volume is interpolated
// trilinearly; a value's opacity is per millimetre. Where the opacity exceeds the gradient threshold, light falls on
// the normalised gradient (central differences, in index space): diffuse, and a white highlight of two lobes. A ray
// ends below five per cent of transparency and is brightened for what it did not collect.
#pragma once

#include "tests/raycast/scene.h"

namespace raycast_test {

// `step_vox`: distance of samples in index space. Pixels as the engine draws them over nothing.
std::vector<std::uint32_t> model_picture(const Scene& scene, double step_vox);

// Physical depth (mm from the plane through the middle, along the view) at which a pixel's ray enters and leaves what
// is drawn; false when it misses.
bool model_span(const Scene& scene, int x, int y, double& near_mm, double& far_mm);

}  // namespace raycast_test
