// Tissues in ray-cast pictures: hidden, alone, in colours of their own, changed and removed; and picks on them.
#include "ip_volr/IP_MultiVolDataIncVolR.h"
#include "ip_volr/IP_MultiVolRTisIndInc.h"
#include "ip_volr/IP_VolRClipManager.h"
#include "ip_volr/IP_VolRProjector.h"
#include "ip_volr/IP_VolRTissueList.h"
#include "tests/raycast/model.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>

namespace {

using namespace raycast_test;

// Tissue of a voxel-centre index.
using TissueOf = std::function<int(int, int, int)>;

void set_tissues(Scene& scene, const TissueOf& tissue_of) {
    scene.tissues.clear();
    for (int z = 0; z < scene.dims[2]; z++) {
        for (int y = 0; y < scene.dims[1]; y++) {
            for (int x = 0; x < scene.dims[0]; x++) {
                scene.tissues.push_back(static_cast<std::uint8_t>(tissue_of(x, y, z)));
            }
        }
    }
}

// Blocks that begin inside a byte and run across bricks, of tissues 0, 4, 9, 14 and none.
int blocks(int x, int y, int z) {
    constexpr int kTissues[] = {15, 0, 4, 9, 14};
    return kTissues[(x / 13 + 2 * (y / 11) + 3 * (z / 17)) % 5];
}

void hide(Scene& scene, int tissue) {
    scene.set_table(tissue, [](double) -> std::array<double, 4> { return {0, 1, 1, 1}; });
}

// A scene whose slices are odd in width and area, so that rows begin in the middle of a byte.
Scene odd_scene() {
    Scene scene = sphere_scene({71, 45, 53}, {1.0, 1.2, 1.1}, true);
    const double base = scene.lowest() + 1000.0;
    const double colours[16][3] = {
        {1, 0.2, 0.2},  {}, {}, {}, {0.2, 1, 0.2}, {}, {}, {}, {}, {0.2, 0.2, 1}, {}, {}, {}, {}, {1, 1, 0.1},
        {0.8, 0.8, 0.8}};
    for (const int tissue : {0, 4, 9, 14, 15}) {
        const double* const c = colours[tissue];
        const double strength = tissue == 4 ? 0.1 : 0.4;
        scene.set_table(tissue, [&](double v) -> std::array<double, 4> {
            const double t = std::clamp((v - base) / 600.0, 0.0, 1.0);
            return {strength * t * t, c[0], c[1], c[2]};
        });
    }
    scene.turn(0.4, 0.3);
    return scene;
}

void expect_like_model(const std::string& name, Renderer& renderer) {
    SCOPED_TRACE(name);
    const std::vector<std::uint32_t> picture = renderer.render();
    const std::vector<std::uint32_t> truth = model_picture(renderer.scene, 0.03);
    dump(name, picture, renderer.scene.width, renderer.scene.height);
    dump(name + "_model", truth, renderer.scene.width, renderer.scene.height);
    EXPECT_GE(colour_psnr(picture, truth), 40.0);
    EXPECT_GE(transparency_psnr(picture, truth), 40.0);
}

TEST(RayCastTissues, ColoursHidingAndOddWidthsEqualTheModel) {
    Scene scene = odd_scene();
    set_tissues(scene, blocks);
    Renderer coloured(scene);
    expect_like_model("tissue_colours", coloured);

    hide(scene, 9);
    hide(scene, 15);
    Renderer hidden(scene);
    expect_like_model("tissue_hidden", hidden);

    for (const int tissue : {0, 4, 14}) {
        hide(scene, tissue);
    }
    const Scene tables = odd_scene();
    scene.colours[9] = tables.colours[9];
    Renderer only(scene);
    expect_like_model("tissue_only", only);
}

TEST(RayCastTissues, ChangesReachTheNextFrame) {
    Scene scene = odd_scene();
    set_tissues(scene, blocks);
    Renderer renderer(scene);
    const auto with_blocks = renderer.render();

    // Other labels, in a volume of their own: as drawn by a renderer that never knew the first ones.
    set_tissues(renderer.scene, [](int x, int, int z) { return x + z < 60 ? 9 : 15; });
    const Renderer fresh(renderer.scene);
    IP_MultiVolData others = fresh.tissues;
    renderer.facade.SetVolumeTissues(&others);
    EXPECT_EQ(renderer.render(), Renderer(renderer.scene).render());
    EXPECT_NE(renderer.render(), with_blocks);

    // A table, then a shading weight of one tissue.
    hide(renderer.scene, 9);
    renderer.pass_tables();
    EXPECT_EQ(renderer.render(), Renderer(renderer.scene).render());
    renderer.scene.colours = odd_scene().colours;
    renderer.scene.use_weight_tables = true;
    for (auto& weights : renderer.scene.weights) {
        weights.fill(30000 | 10000ULL << 16 | 20000ULL << 32);
    }
    renderer.scene.weights[9].fill(5000 | 60000ULL << 32);
    renderer.pass_tables();
    EXPECT_EQ(renderer.render(), Renderer(renderer.scene).render());

    // No tissues: everything is table 15.
    renderer.facade.SetVolumeTissues(nullptr);
    renderer.scene.tissues.clear();
    EXPECT_EQ(renderer.render(), Renderer(renderer.scene).render());
}

// A request that picks on what a renderer draws.
struct PickRequest {
    explicit PickRequest(Renderer& renderer, int factor) {
        params.m_VolData = std::make_shared<IP_MultiVolData>(renderer.volumes);
        const Scene& scene = renderer.scene;
        if (!scene.tissues.empty()) {
            MakeIndex(renderer);
        }
        const unsigned* colours[kNumTissues];
        for (std::size_t tissue = 0; tissue < kNumTissues; tissue++) {
            colours[tissue] = scene.colours[tissue].data() - scene.lowest();
        }
        const auto prepared = std::make_shared<IP_MultiVolDataIncVolR>();
        EXPECT_TRUE(prepared->Rebuild(params.m_VolData.get(), colours, scene.tissues.empty() ? nullptr : &index, factor,
                                      1, 1, factor == 1 ? 1 : 0, false));
        params.m_AltVolData = prepared;
        for (std::size_t i = 0; i < 3; i++) {
            params.m_ViewMatrix[i][0] = static_cast<float>(scene.right[i]);
            params.m_ViewMatrix[i][1] = static_cast<float>(scene.down[i]);
            params.m_ViewMatrix[i][2] = static_cast<float>(scene.into[i]);
        }
        params.m_Width = 60;
        params.m_Height = 50;
        for (std::size_t i = 0; i < scene.planes.size(); i++) {
            const auto& p = scene.planes[i];
            const float eq[4] = {static_cast<float>(p[0]), static_cast<float>(p[1]), static_cast<float>(p[2]),
                                 static_cast<float>(p[3])};
            planes.SetClipPlane(static_cast<int>(i), eq);
        }
        params.m_ClipManager = &planes;
        projector.Reset(&params, 1);
    }

    // The library's own index volume, from run lists of the scene's tissues.
    void MakeIndex(Renderer& renderer) {
        const Scene& scene = renderer.scene;
        list.SetNumbTissues(15);
        for (unsigned t = 0; t < 15; t++) {
            masks.push_back(std::make_unique<IP_RealListVol>(*renderer.volume->GetBox()));
            lists.push_back(std::make_unique<IP_MultiRealListVol>());
            lists.back()->AddRealListVol(masks.back().get());
            list.SetTissue(t, lists.back().get());
            list.SetColorTableIndex(t, static_cast<int>(t));
        }
        std::size_t i = 0;
        for (int z = 0; z < scene.dims[2]; z++) {
            for (int y = 0; y < scene.dims[1]; y++) {
                for (int x = 0; x < scene.dims[0]; x++, i++) {
                    if (scene.tissues[i] < 15) {
                        masks[scene.tissues[i]]->AddRun(y, z, x, x + 1);
                    }
                }
            }
        }
        EXPECT_TRUE(index.Rebuild(params.m_VolData.get(), 1, 1, 1, false, list));
    }

    std::vector<std::unique_ptr<IP_RealListVol>> masks;
    std::vector<std::unique_ptr<IP_MultiRealListVol>> lists;
    IP_VolRTissueList list;
    IP_MultiVolRTisIndInc index;
    IP_VolRClipManager planes;
    IP_VolRParamsVolR params;
    IP_VolRProjector projector;
};

// A ball that is opaque from one value on.
Scene ball_scene() {
    Scene scene = sphere_scene({64, 51, 45}, {1.0, 1.1, 1.4}, true);
    const double rim = scene.lowest() + 1000.0;
    for (int tissue = 0; tissue < kNumTissues; tissue++) {
        scene.set_table(tissue, [&](double v) -> std::array<double, 4> {
            return {v >= rim ? 1.0 : 0.0, 1.0, 0.9, 0.8};
        });
    }
    scene.middle_mm = {40, -30, 20};
    return scene;
}

// Every pick lies on the surface that the ray caster shows, and pixels without pick show nothing.
void expect_picks_on_surface(const std::string& name, Renderer& renderer, int factor) {
    SCOPED_TRACE(name);
    PickRequest request(renderer, factor);
    ASSERT_FALSE(renderer.render().empty());
    const auto shift = [&](const Vec& p, double mm) {
        const Vec moved = add(p, scaled(renderer.scene.into, mm));
        return IP_3Coord(static_cast<float>(moved[0]), static_cast<float>(moved[1]), static_cast<float>(moved[2]));
    };
    // Pick all pixels.
    constexpr int kWidth = 60;
    constexpr int kHeight = 50;
    std::vector<Vec> picks(kWidth * kHeight);
    std::vector<double> depths_mm(kWidth * kHeight, std::numeric_limits<double>::infinity());
    int num_missed = 0;
    for (int i = 0; i < kWidth * kHeight; i++) {
        float point[3];
        if (!request.projector.Screen2Physical(&request.params, i % kWidth, i / kWidth, point)) {
            num_missed++;
            continue;
        }
        float screen[3];
        ASSERT_TRUE(request.projector.Physical2Screen(&request.params, point, screen));
        ASSERT_NEAR(screen[0], i % kWidth, 0.01);
        ASSERT_NEAR(screen[1], i / kWidth, 0.01);
        picks[static_cast<std::size_t>(i)] = {point[0], point[1], point[2]};
        depths_mm[static_cast<std::size_t>(i)] = screen[2];
    }
    EXPECT_GT(num_missed, 300);

    // Where the surface is not steep, so that neighbouring rays see nearly the same, the ray caster agrees.
    int num_compared = 0;
    int num_off = 0;
    for (std::size_t i = kWidth; i < depths_mm.size() - kWidth; i++) {
        double rise_mm = 0.0;
        for (const std::size_t neighbour : {i - 1, i + 1, i - kWidth, i + kWidth}) {
            rise_mm = std::max(rise_mm, std::abs(depths_mm[neighbour] - depths_mm[i]));
        }
        if (!std::isfinite(depths_mm[i]) || rise_mm >= 2.5) {
            continue;
        }
        const double tolerance_mm = 1.5 * factor;
        num_compared++;
        num_off += renderer.facade.IsVisible(shift(picks[i], -tolerance_mm), 0.0F) &&
                           !renderer.facade.IsVisible(shift(picks[i], tolerance_mm), 0.0F)
                       ? 0
                       : 1;
    }
    EXPECT_GT(num_compared, 50);
    EXPECT_EQ(num_off, 0);
}

TEST(RenderingPicks, LieWhereTheRayCasterStops) {
    for (const int factor : {1, 2}) {
        Scene scene = ball_scene();
        Renderer front(scene);
        expect_picks_on_surface("front", front, factor);
        scene.turn(0.7, -0.4);
        Renderer oblique(scene);
        expect_picks_on_surface("oblique", oblique, factor);

        // Cut open by a plane; then the near half hidden as a tissue.
        scene.planes.push_back(
            {-scene.into[0], -scene.into[1], -scene.into[2], dot(scene.into, scene.middle_mm) + 2.0});
        Renderer cut(scene);
        expect_picks_on_surface("cut", cut, factor);
        scene.planes.clear();
        set_tissues(scene, [](int x, int y, int) { return x + y > 58 ? 6 : 15; });
        hide(scene, 6);
        Renderer hidden(scene);
        expect_picks_on_surface("hidden", hidden, factor);
    }
}

TEST(RenderingPicks, ComeFromAValidDepthBufferWhenAllowed) {
    Renderer renderer(ball_scene());
    PickRequest request(renderer, 1);
    IP_VolRBoxParamsVolR box;
    const std::size_t num_pixels = 60 * 50;
    MEM_MemPager::GetHandleForMP()->Allocate(num_pixels * sizeof(float), &box.m_DepthBuffer, 0);
    auto* const depths = static_cast<float*>(box.m_DepthBuffer.Ptr());
    std::fill_n(depths, num_pixels, std::numeric_limits<float>::infinity());
    depths[20 * 60 + 30] = 7.0F;
    box.m_DepthBuffer.Unmap();
    for (int i = 0; i < 4; i++) {
        for (int j = 0; j < 4; j++) {
            box.m_ScreenToPhysical[i][j] = i == j ? 1.0F : 0.0F;
        }
    }

    float on_ball[3];
    ASSERT_TRUE(request.projector.Screen2Physical(&request.params, 30, 20, on_ball));
    const auto pick = [&](const float* point, float* picked) {
        return request.projector.Physical2Screen2Physical(&request.params, &box, point, picked);
    };
    // From behind the surface to the surface, as long as the buffer is not valid or not allowed.
    const Vec& into = renderer.scene.into;
    const float behind[3] = {on_ball[0] + static_cast<float>(9 * into[0]), on_ball[1] + static_cast<float>(9 * into[1]),
                             on_ball[2] + static_cast<float>(9 * into[2])};
    float picked[3];
    request.params.m_UseDepthPicking = 1;
    ASSERT_TRUE(pick(behind, picked));
    EXPECT_NEAR(picked[2], on_ball[2], 0.01);
    box.m_DepthBufferValid = true;
    ASSERT_TRUE(pick(behind, picked));
    EXPECT_EQ(picked[0], 30.0F);
    EXPECT_EQ(picked[1], 20.0F);
    EXPECT_EQ(picked[2], 7.0F);
    float beside[3];
    ASSERT_TRUE(request.projector.Screen2Physical(&request.params, 32, 20, beside));
    EXPECT_FALSE(pick(beside, picked));
    request.params.m_UseDepthPicking = 0;
    EXPECT_TRUE(pick(beside, picked));

    // Outside of the picture, of the volume, and without data.
    const float far_away[3] = {9000, 0, 0};
    EXPECT_FALSE(pick(far_away, picked));
    EXPECT_FALSE(request.projector.Screen2Physical(&request.params, 0, 0, picked));
    request.params.m_AltVolData.reset();
    EXPECT_FALSE(pick(behind, picked));
    EXPECT_FALSE(request.projector.Screen2Physical(nullptr, 0, 0, picked));
    MEM_MemPager::GetHandleForMP()->Free(box.m_DepthBuffer);
}

}  // namespace
