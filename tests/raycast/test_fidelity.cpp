// The engine's pictures against the optical model at a tenth of the step.
#include "tests/raycast/model.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace raycast_test;

constexpr double kFinalStep_vox = 0.3;
constexpr double kLeastPsnr = 40.0;

void expect_like_model(const std::string& name, const Scene& scene) {
    SCOPED_TRACE(name);
    Renderer renderer(scene);
    const std::vector<std::uint32_t> picture = renderer.render();
    const std::vector<std::uint32_t> truth = model_picture(scene, kFinalStep_vox / 10);
    dump(name, picture, scene.width, scene.height);
    dump(name + "_model", truth, scene.width, scene.height);
    EXPECT_GE(colour_psnr(picture, truth), kLeastPsnr);
    EXPECT_GE(transparency_psnr(picture, truth), kLeastPsnr);
}

TEST(RayCastFidelity, OrthogonalView) {
    expect_like_model("orthogonal", sphere_scene({64, 64, 64}, {1, 1, 1}, true));
}

}  // namespace
