// Defaults, tables, parameter sets and edge cases of projector and facade.
#include "host/reference/settings.h"
#include "ip_volr/IP_VOLRC_Matrix.h"
#include "ip_volr/IP_VOLRC_Projector.h"
#include "tests/raycast/model.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>

namespace {

using namespace raycast_test;
using Facade = IP_VOLRC_VolumeRenderingRC;
using Picture = std::vector<std::uint32_t>;
namespace affine = ip_volr::affine;

// A projector without a facade, over a scene's volume.
class RayCastSettings : public testing::Test {
protected:
    RayCastSettings() {
        const double into[3] = {0, 0, 1};
        projector->SetVolData(volume.get(), true);
        projector->SetViewVector(into);
    }
    ~RayCastSettings() override { projector->ClearProjectorResources(); }

    const IP_VOLRC_RenderParameters& interactive() const { return projector->GetParameters(RC_RENDERING_INTERACTIVE); }
    const IP_VOLRC_RenderParameters& final_set() const { return projector->GetParameters(RC_RENDERING_FINAL); }
    void magnify(double pixels_per_mm) {
        double m[4][4];
        affine::set_identity(m);
        m[0][0] = m[1][1] = 1.0 / pixels_per_mm;
        projector->SetR2PMatrix(m);
    }

    Scene scene = sphere_scene({40, 40, 40}, {1, 1, 1}, true);
    std::shared_ptr<IP_VolData> volume = make_volume(scene);
    int dims[2] = {203, 160};
    std::unique_ptr<IP_VOLRC_Projector> projector = std::make_unique<IP_VOLRC_Projector>(dims);
};

TEST_F(RayCastSettings, StepTransparencies) {
    projector->SetStepSize(1.0);
    EXPECT_DOUBLE_EQ(projector->GetStepLength(), 1.0);
    const auto* const table = projector->GetStepTransparencies();
    EXPECT_EQ(table[0][0], 65535U);
    EXPECT_EQ(table[255][3], 0U);
    projector->SetStepSize(0.5);
    EXPECT_EQ(table[128][2], static_cast<unsigned>(65535 * std::sqrt(127.0 / 255.0)));
    // The same step along another direction is another length: the new view clears the old one.
    auto stretched = make_volume(sphere_scene({40, 40, 20}, {1, 1, 2}, true));
    projector->SetVolData(stretched.get(), true);
    projector->SetStepSize(0.5);
    EXPECT_NEAR(projector->GetStepLength(), 1.0, 1e-6);
    projector->SetStepSize(-0.5);
    EXPECT_NEAR(projector->GetStepLength(), -1.0, 1e-6);
}

TEST_F(RayCastSettings, ParameterSetsOfAllQualities) {
    EXPECT_EQ(final_set().step_size, 0.3);
    EXPECT_EQ(interactive().step_size, 0.8);
    EXPECT_EQ(final_set().render_width, 203);
    EXPECT_EQ(interactive().render_width, 101);
    EXPECT_EQ(interactive().render_height, 80);
    const int thresholds[] = {3276, 6552, 13104};
    for (int level = 0; level < 3; level++) {
        projector->SetInteractiveQuality(static_cast<RC_INTERACTIVE_RENDERING_QUALITY>(level));
        EXPECT_EQ(interactive().transparency_threshold, thresholds[level]);
        EXPECT_EQ(interactive().opacity_gradient_threshold, level == 0 ? 8192 : 16384);
        EXPECT_EQ(interactive().fast_gradients, level != 0);
        EXPECT_EQ(interactive().opacity_luminosity, level == 0);
        EXPECT_EQ(interactive().gradient_level, level == 0 ? 0 : 16);
    }
    // Standard quality: the sizes follow the magnification; the level is ignored. The cube's side is 1 / sqrt(3) of its
    // diagonal.
    const double scale_to_magnification = std::sqrt(40.0 * 40 + 40 * 40 + 44 * 44) / 40;
    struct Case {
        double scale;
        int width, minimum, threshold;
    };
    for (const Case& c : {Case{0.4, 203, 67, 6552}, Case{0.75, 152, 43, 9828}, Case{3.0, 75, 27, 13104},
                          Case{6.0, 50, 25, 13104}, Case{std::nan(""), 203, 67, 6552}}) {
        magnify(c.scale * scale_to_magnification);
        projector->SetVolrQuality(RC_QUALITY_ENHANCED);
        projector->SetVolrQuality(RC_QUALITY_STANDARD);
        projector->SetInteractiveQuality(RC_INTERACTIVE_LEVEL_1);
        EXPECT_EQ(final_set().step_size, 0.5) << c.scale;
        EXPECT_EQ(final_set().render_width, c.width) << c.scale;
        EXPECT_EQ(interactive().minimum_width, c.minimum) << c.scale;
        EXPECT_EQ(interactive().transparency_threshold, c.threshold) << c.scale;
    }
}

TEST_F(RayCastSettings, AdaptiveQualityCoarsensTheStepFirst) {
    // From 0.8 to 1.0; the size stays, but for its rounding to groups of four, which the height follows.
    projector->AdjustRenderingTime(2.0);
    EXPECT_EQ(interactive().step_size, 1.0);
    EXPECT_EQ(interactive().render_width, 100);
    EXPECT_EQ(interactive().render_height, 80 * 100 / 101);
    // Fast enough, by ever more: up to the final size, then finer steps down to 0.3.
    projector->AdjustRenderingTime(0.25);
    EXPECT_EQ(interactive().render_width, 200);
    EXPECT_EQ(interactive().render_height, 158);
    projector->AdjustRenderingTime(0.0);
    EXPECT_EQ(interactive().render_width, 200);
    EXPECT_EQ(interactive().step_size, 1.0);
    // Too slow again: only once the coarsest step is in force are there fewer rays. The mode brings it.
    projector->AdjustRenderingTime(1.5);
    EXPECT_EQ(interactive().render_width, 200);
    projector->SetRenderMode(RC_RENDERING_INTERACTIVE);
    projector->AdjustRenderingTime(1.5);
    EXPECT_EQ(interactive().render_width, static_cast<int>(200 / std::sqrt(1.5)) / 4 * 4);
    projector->AdjustRenderingTime(1e300);
    EXPECT_EQ(interactive().render_width, 100);
    projector->AdjustRenderingTime(std::nan(""));
    EXPECT_EQ(interactive().render_width, 100);
    char text[256];
    projector->GetInformationString(text);
    EXPECT_NE(std::string(text).find("Fast Resolution: 100/203, "), std::string::npos);
}

TEST_F(RayCastSettings, ColoursOfAProtocolReachEveryKernel) {
    scene.tissues.assign(scene.voxels.size(), 1);
    const auto tissues = make_tissue_volume(scene);
    const unsigned* colours[kNumTissues];
    std::transform(scene.colours.begin(), scene.colours.end(), colours,
                   [&](const auto& table) { return table.data() - scene.lowest(); });
    projector->SetMaxLayerLoaded(2);
    projector->SetVolumeTissues(tissues.get());
    projector->SetColorTable(colours, nullptr, scene.bits, false);
    projector->SetDims(dims);
    const auto draw = [&] {
        Picture picture(203 * 160);
        EXPECT_TRUE(projector->Project());
        projector->BlendOutput(picture.data());
        return picture;
    };
    const Picture nothing(203 * 160, 0xff000000);
    EXPECT_NE(draw(), nothing);
    // A protocol gives tissue 1 a colour without opacity.
    projector->UpdateLuminosity(0);
    EXPECT_EQ(draw(), nothing);
}

TEST(RayCastMatrix, InverseOfRegularAndSingularMatrices) {
    const double m[4][4] = {{0, 2, 0, 9}, {-3, 0, 0, 9}, {0, 0.5, 4, 9}, {7, -8, 9, 9}};
    double inverse[4][4];
    double product[4][4];
    affine::invert(m, inverse);
    affine::multiply(m, inverse, product);
    for (int i = 0; i < 4; i++) {
        for (int j = 0; j < 4; j++) {
            EXPECT_NEAR(product[i][j], i == j ? 1.0 : 0.0, 1e-14);
        }
    }
    const double singular[4][4] = {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 0, 0}, {1, 2, 3, 1}};
    affine::invert(singular, inverse);
    EXPECT_EQ(inverse[2][2], 1e16);
    EXPECT_EQ(inverse[3][2], -3e16);
}

// ---- Facade

TEST(RayCastFacade, NothingHappensBeforeTheFirstVolume) {
    Facade facade(1, 2);
    std::uint32_t pixel = 7;
    EXPECT_FALSE(facade.Render(&pixel, 1, 1));
    EXPECT_EQ(pixel, 7U);
    float m[4][4] = {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 1}};
    double v[3] = {5, 6, 7};
    char text[] = "as before";
    std::list<int> slices = {1};
    IP_ClipManager planes;
    IP_MultiVolData tissues;
    void* data = &pixel;
    facade.SetVolumeTissues(&tissues);
    facade.SetProjection(m);
    facade.Set2DTransform(m);
    facade.SetLightDirection(v);
    facade.SetLightingMode(Facade::LIGHTING_ON);
    facade.SetColorTables(nullptr, nullptr, 16, false);
    facade.SetClippingPlanes(&planes);
    facade.SetRenderMode(Facade::RENDER_MODE_INTERACTIVE);
    facade.SetVolrQuality(Facade::RENDER_QUALITY_STANDARD);
    facade.SetInteractiveQuality(Facade::INTERACTIVE_QUALITY_1);
    facade.AdjustRenderingTime(2.0);
    facade.BoxUpdated();
    facade.GetViewVector(v);
    facade.GetInformationString(text);
    facade.SetEngineSpecificData(nullptr);
    facade.AllocateEngineSpecificData(data);
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(v[1], 6.0);
    EXPECT_STREQ(text, "as before");
    EXPECT_FALSE(facade.IsVisible(IP_3Coord(0, 0, 0), 1e9F));
    EXPECT_FALSE(facade.IsCacheValid());
    EXPECT_EQ(facade.LastRenderTime() + facade.LastFinalQualityTime() + facade.LastInteractiveQualityTime(), 0);
    EXPECT_FALSE(facade.HasError());
    EXPECT_STREQ(facade.DebugErrorMessage(), "Success\n");

    // A refused projector is asked for again; the call that makes it drops its value.
    const auto blocks = reference_host::GetPagerStatistics().blocks;
    reference_host::SetPagerFaults({1, 0, 0, 0});
    facade.SetMaxLayerLoaded(7);
    EXPECT_EQ(reference_host::GetPagerStatistics().blocks, blocks);
    facade.SetUpdatedSliceIndexList(&slices);
    EXPECT_EQ(reference_host::GetPagerStatistics().blocks, blocks + 1);
    EXPECT_FALSE(facade.Render(&pixel, 1, 1));
}

TEST(RayCastFacade, UnloadedVolumeAndMissingTablesDrawNothing) {
    Renderer renderer(sphere_scene({40, 40, 40}, {1, 1, 1}, true));
    const std::size_t num_pixels = renderer.render().size();
    // Blending through full transparency takes one unit of each byte.
    const Picture background(num_pixels, 0xff113355);
    {
        Renderer fresh(renderer.scene);
        fresh.facade.SetMaxLayerLoaded(0);
        EXPECT_EQ(fresh.render(0xff123456), background);
    }
    renderer.facade.SetColorTables(nullptr, nullptr, 40, true);
    EXPECT_EQ(renderer.render(0xff123456), background);
    renderer.facade.SetVolumeData(nullptr, true);
    EXPECT_TRUE(renderer.render().empty());
    renderer.pass_scene();
    EXPECT_NE(renderer.render(0xff123456), background);
}

TEST(RayCastFacade, VisibilityFollowsWhereRaysStopped) {
    Scene scene = sphere_scene({64, 64, 64}, {1, 1, 1}, true);
    scene.middle_mm = {10, 20, 30};
    scene.turn(0.5, 0.3);
    Renderer renderer(scene);
    EXPECT_FALSE(renderer.facade.IsVisible(IP_3Coord(10, 20, 30), 1e3F));
    renderer.render();
    const auto visible = [&](double x, double y, double depth_mm, double tolerance) {
        const Vec p = add(pixel_mm(scene, x, y), scaled(scene.into, depth_mm));
        const IP_3Coord point(static_cast<float>(p[0]), static_cast<float>(p[1]), static_cast<float>(p[2]));
        return renderer.facade.IsVisible(point, static_cast<float>(tolerance));
    };
    // The sphere's opaque skin lies about 20 mm before the middle.
    EXPECT_TRUE(visible(40, 36, -30, 0));
    EXPECT_FALSE(visible(40, 36, 0, 0));
    EXPECT_TRUE(visible(40, 36, 0, 30));
    EXPECT_FALSE(visible(-2, 36, -30, 1e9));
    EXPECT_FALSE(visible(40, 72, -30, 1e9));
    // Through the empty corner rays reach the far end of the box.
    double near_mm = 0;
    double far_mm = 0;
    ASSERT_TRUE(model_span(scene, 6, 36, near_mm, far_mm));
    EXPECT_TRUE(visible(6, 36, far_mm - 0.1, 0));
    EXPECT_FALSE(visible(6, 36, far_mm + 1.0, 0));
}

TEST(RayCastFacade, DepthImageShowsTheClippedBox) {
    Scene scene = sphere_scene({40, 50, 60}, {1, 1, 1}, true);
    scene.turn(0.4, 0.5);
    const Vec n = scene.into;
    scene.planes.push_back({-n[0], -n[1], -n[2], -10.0});
    Renderer renderer(scene);
    renderer.render();
    // The facade draws no depth images: a projector of its own does.
    int dims[2] = {scene.width, scene.height};
    const auto projector = std::make_unique<IP_VOLRC_Projector>(dims);
    projector->SetVolData(renderer.volume.get(), true);
    projector->SetViewVector(scene.into.data());
    double m[4][4] = {};
    for (std::size_t i = 0; i < 3; i++) {
        const Vec origin = pixel_mm(scene, 0, 0);
        m[0][i] = scene.right[i] / scene.pixels_per_mm;
        m[1][i] = scene.down[i] / scene.pixels_per_mm;
        m[2][i] = scene.into[i];
        m[3][i] = origin[i];
    }
    projector->SetR2PMatrix(m);
    float plane[4];
    std::copy(scene.planes[0].begin(), scene.planes[0].end(), plane);
    projector->GetUserClipManager()->NewClipPlane(6)->SetPlaneEq(plane);
    dims[0]++;
    projector->SetDims(dims);
    dims[0]--;
    projector->SetDims(dims);
    projector->SetProjectZBuf(true);
    ASSERT_TRUE(projector->Project());
    // The box without its margins, corner to corner: half of the grey scale to each side of the middle.
    double limit_mm = 0;
    for (int corner = 0; corner < 8; corner++) {
        const Vec p = {corner & 1 ? 20.0 : -20.0, corner & 2 ? 25.0 : -25.0, corner & 4 ? 32.0 : -32.0};
        limit_mm = std::max(limit_mm, dot(p, scene.into));
    }
    Picture out(static_cast<std::size_t>(scene.width) * static_cast<std::size_t>(scene.height));
    projector->BlendOutput(out.data());
    int covered = 0;
    for (int y = 0; y < scene.height; y++) {
        for (int x = 0; x < scene.width; x++) {
            double near_mm = 0;
            double far_mm = 0;
            const bool hit = model_span(scene, x, y, near_mm, far_mm);
            const int grey = static_cast<int>(out[static_cast<std::size_t>(y * scene.width + x)] & 255);
            const double expected = hit ? (limit_mm - near_mm) * 255 / (2 * limit_mm) : 0.0;
            covered += hit ? 1 : 0;
            ASSERT_NEAR(grey, expected, 1.01) << x << ", " << y;
        }
    }
    EXPECT_GT(covered, 500);
    projector->ClearProjectorResources();
}

// ---- Sizes and views at the edge

TEST(RayCastFacade, DegenerateSizes) {
    Renderer renderer(sphere_scene({40, 40, 40}, {1, 1, 1}, true));
    Facade& facade = renderer.facade;
    Picture buffer(4000, 7);
    for (const auto& size : {std::array<int, 2>{0, 0}, {0, 5}, {5, 0}, {-3, 4}, {2000000, 1}, {1 << 30, 1 << 30}}) {
        reference_host::SetPagerFaults({0, 0, 1LL << 31, 0});
        EXPECT_FALSE(facade.Render(buffer.data(), size[0], size[1])) << size[0];
        reference_host::SetPagerFaults({});
    }
    EXPECT_FALSE(facade.Render(nullptr, 8, 8));
    EXPECT_EQ(std::count(buffer.begin(), buffer.end(), 7U), 4000);
    for (const auto mode : {Facade::RENDER_MODE_FINAL, Facade::RENDER_MODE_INTERACTIVE}) {
        for (const auto quality : {Facade::RENDER_QUALITY_ENHANCED, Facade::RENDER_QUALITY_STANDARD}) {
            facade.SetRenderMode(mode);
            facade.SetVolrQuality(quality);
            for (const auto& size : {std::array<int, 2>{1, 1}, {1, 900}, {900, 1}, {2, 3}, {5, 2}}) {
                EXPECT_TRUE(facade.Render(buffer.data(), size[0], size[1])) << size[0];
                facade.AdjustRenderingTime(3.0);
            }
        }
    }
}

TEST(RayCastFacade, SmallVolumesAndOddLattices) {
    // Fewer than 5 voxels in x or y are refused; one slice is a sliver of one voxel.
    for (const auto& dims : {std::array<int, 3>{4, 20, 20}, {20, 4, 20}}) {
        EXPECT_TRUE(Renderer(sphere_scene(dims, {1, 1, 1}, true)).render().empty());
    }
    for (const auto& dims : {std::array<int, 3>{20, 20, 1}, {5, 5, 5}, {33, 32, 31}}) {
        EXPECT_FALSE(Renderer(sphere_scene(dims, {1, 1, 1}, true)).render().empty());
    }
    const double nan = std::nan("");
    for (const Vec& spacing : {Vec{0, 1, 1}, {1, 1, 0}, {nan, 1, 1}, {1e30, 1, 1}, {1e-30, 1e-30, 1e-30}}) {
        Scene scene = sphere_scene({40, 40, 40}, {1, 1, 1}, false);
        scene.spacing_mm = spacing;
        EXPECT_FALSE(Renderer(scene).render().empty());
    }
}

TEST(RayCastFacade, ViewsThatNoRayCanFollow) {
    const Scene good = sphere_scene({40, 40, 40}, {1, 1, 1}, true);
    Renderer renderer(good);
    const Picture reference = renderer.render();
    const double nan = std::nan("");
    const double inf = std::numeric_limits<double>::infinity();
    const auto draws = [&](const Vec& into, double pixels_per_mm) {
        renderer.scene = good;
        renderer.scene.into = into;
        renderer.scene.pixels_per_mm = pixels_per_mm;
        renderer.pass_view();
        return !renderer.render().empty();
    };
    for (const Vec& into : {Vec{0, 0, 0}, {nan, 0, 1}, {0, 0, inf}, {0, 0, 1e30}, {0, 0, 1e-30}, {1, 0, 0}}) {
        for (const double scale : {1.0, 0.0, nan, inf, 1e-30, 1e30, -1.0}) {
            EXPECT_TRUE(draws(into, scale)) << into[0] << " " << into[2] << " " << scale;
        }
    }
    renderer.scene.planes = {{nan, 0, 0, 0}, {0, 0, 0, 1}, {1e-30, 0, 0, 0}, {0, 0, 1e-5, 1e30}, {inf, 1, 1, -inf}};
    renderer.pass_planes();
    EXPECT_TRUE(draws(good.into, good.pixels_per_mm));
    renderer.scene = good;
    renderer.pass_scene();
    EXPECT_EQ(renderer.render(), reference);
}

TEST(RayCastFacade, ReducedFramesShowTheSamePicture) {
    Scene scene = sphere_scene({64, 64, 64}, {1, 1, 1}, true);
    scene.width = scene.height = 160;
    scene.pixels_per_mm *= 2;
    // A hard skin: soft ones are neither seen nor shaded at the coarse levels.
    scene.set_table(15, [&](double v) -> std::array<double, 4> {
        return {v > scene.lowest() + 1300 ? 0.9 : 0.0, 0.9, 0.7, 0.5};
    });
    Renderer renderer(scene);
    const Picture reference = renderer.render();
    renderer.facade.SetRenderMode(Facade::RENDER_MODE_INTERACTIVE);
    for (const auto level :
         {Facade::INTERACTIVE_QUALITY_0, Facade::INTERACTIVE_QUALITY_1, Facade::INTERACTIVE_QUALITY_2}) {
        renderer.facade.SetInteractiveQuality(level);
        // An impatient host gets the smallest size.
        renderer.render();
        renderer.facade.AdjustRenderingTime(100.0);
        renderer.render();
        renderer.facade.AdjustRenderingTime(100.0);
        const Picture reduced = renderer.render();
        dump("interactive_" + std::to_string(level), reduced, 160, 160);
        EXPECT_GT(colour_psnr(reduced, reference), 24.0) << level;
    }
    renderer.facade.SetVolrQuality(Facade::RENDER_QUALITY_STANDARD);
    EXPECT_GT(colour_psnr(renderer.render(), reference), 24.0);
    renderer.facade.SetRenderMode(static_cast<Facade::RenderMode>(5));  // final
    EXPECT_GT(colour_psnr(renderer.render(), reference), 30.0);
}

}  // namespace
