// The engine's final enhanced pictures against the optical model at a tenth of the step.
#include "tests/raycast/model.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
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
    const double colour = colour_psnr(picture, truth);
    const double transparency = transparency_psnr(picture, truth);
    EXPECT_GE(colour, kLeastPsnr);
    EXPECT_GE(transparency, kLeastPsnr);
    // Neither side may be empty.
    EXPECT_LT(colour_psnr(picture, std::vector<std::uint32_t>(picture.size(), 0)), 25.0);
}

// A ramp along x with waves across it, cut off by the reduced box: shows its faces and corners.
Scene ramp_scene() {
    Scene scene;
    scene.dims = {50, 61, 37};
    scene.spacing_mm = {1.1, 0.9, 1.6};
    scene.is_signed = false;
    scene.bits = 16;
    scene.fill([](double x, double y, double z) { return 20000 + 600 * x + 3000 * std::sin(0.2 * y + 0.15 * z); });
    for (int tissue = 0; tissue < kNumTissues; tissue++) {
        scene.set_table(tissue, [](double v) -> std::array<double, 4> {
            const double t = std::clamp((v - 20000) / 30000, 0.0, 1.0);
            return {0.02 + 0.2 * t, 1.0 - t, 0.4 + 0.5 * t, t};
        });
    }
    return scene;
}

TEST(RayCastFidelity, OrthogonalViews) {
    Scene front = sphere_scene({64, 64, 64}, {1, 1, 1}, true);
    expect_like_model("front", front);
    Scene side = sphere_scene({47, 70, 81}, {1.0, 0.7, 0.6}, false);
    side.right = {0, 1, 0};
    side.down = {0, 0, -1};
    side.into = {-1, 0, 0};
    expect_like_model("side", side);
}

TEST(RayCastFidelity, ObliqueViewsOfAnisotropicVolumes) {
    for (const bool is_signed : {true, false}) {
        Scene scene = sphere_scene({97, 66, 30}, {0.5, 0.8, 1.9}, is_signed);
        scene.turn(0.7, -0.5);
        expect_like_model(is_signed ? "oblique_signed" : "oblique_unsigned", scene);
    }
    Scene tilted = sphere_scene({50, 60, 40}, {0.9, 0.8, 1.2}, true);
    tilted.axes = {unit({1, 0.2, 0}), unit({-0.2, 1, 0}), {0, 0, 1}};
    tilted.middle_mm = {120.5, -80.25, 1000.0};
    tilted.turn(-2.3, 0.4);
    expect_like_model("tilted", tilted);
}

TEST(RayCastFidelity, FacesOfTheReducedBox) {
    Scene scene = ramp_scene();
    scene.turn(0.6, 0.5);
    expect_like_model("ramp", scene);
    scene.shaded = false;
    expect_like_model("ramp_unshaded", scene);
    // Off the picture's middle, magnified: rows and columns that the volume covers in part.
    scene.pixels_per_mm = 2.3;
    scene.width = 131;
    scene.height = 67;
    expect_like_model("ramp_magnified", scene);
}

TEST(RayCastFidelity, ClippingPlanes) {
    Scene scene = sphere_scene({64, 64, 64}, {1, 1, 1}, true);
    scene.middle_mm = {40, -30, 20};
    scene.turn(0.4, 0.3);
    // One across the view, one oblique and far from unit length, one parallel to the rays.
    const Vec oblique = {-0.5, 0.2, -0.7};
    scene.planes.push_back({1.0, 0.0, 0.0, -46.0});
    scene.planes.push_back(
        {30 * oblique[0], 30 * oblique[1], 30 * oblique[2], -30 * (dot(oblique, scene.middle_mm) + 9)});
    scene.planes.push_back({scene.down[0], scene.down[1], scene.down[2], -dot(scene.down, scene.middle_mm) - 13.0});
    expect_like_model("clipped", scene);
}

TEST(RayCastFidelity, TissuesAndTheirShadingWeights) {
    Scene scene = sphere_scene({58, 49, 45}, {1, 1, 1.3}, true);
    scene.tissues.resize(scene.voxels.size());
    for (std::size_t i = 0; i < scene.tissues.size(); i++) {
        // Slabs of tissues 2, 15 and 3, so that borders run across bricks.
        const std::size_t x = i % 58;
        scene.tissues[i] = x < 20 ? 2 : x < 38 ? 15 : 3;
    }
    scene.use_weight_tables = true;
    for (std::size_t tissue = 0; tissue < kNumTissues; tissue++) {
        const std::uint64_t ambient = 10000 + 9000 * (tissue % 4);
        scene.weights[tissue].fill(30000 | 20000ULL << 16 | ambient << 32);
    }
    scene.turn(0.3, 0.2);
    expect_like_model("tissues", scene);
}

}  // namespace
