// What must not show in a picture: servers, instruction sets, paging, streaming, earlier frames, failures.
#include "host/reference/settings.h"
#include "host/tasks.h"
#include "ip_volr/IP_VOLR_Trace.h"
#include "ip_volr/kernels/instruction_set.h"
#include "tests/raycast/scene.h"
#include "tests/support/fault_sweep.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>

namespace {

using namespace raycast_test;
using Facade = IP_VOLRC_VolumeRenderingRC;
using Picture = std::vector<std::uint32_t>;

// Several bricks along each axis, tissues, a plane, an oblique view.
Scene busy_scene() {
    Scene scene = sphere_scene({70, 66, 100}, {1, 1, 0.8}, true);
    scene.tissues.assign(scene.voxels.size(), 15);
    std::fill(scene.tissues.begin(), scene.tissues.begin() + 70 * 66 * 45, 4);
    scene.planes.push_back({0.6, 0.0, 0.8, -20.0});
    scene.turn(0.8, 0.4);
    return scene;
}

// Gives a slice the scene's voxels, or the lowest value where it has not arrived yet.
void write_slice(Renderer& renderer, int z, bool has_arrived) {
    const Scene& scene = renderer.scene;
    auto* const slice = static_cast<IP_ShortSlice*>(renderer.volume->GetSlice(z));
    const std::ptrdiff_t count = static_cast<std::ptrdiff_t>(scene.dims[0]) * scene.dims[1];
    ASSERT_EQ(slice->MapMemory(), 0);
    if (has_arrived) {
        std::copy_n(scene.voxels.begin() + z * count, count, slice->GetMappedSlice());
    } else {
        std::fill_n(slice->GetMappedSlice(), count, static_cast<short>(scene.lowest()));
    }
    slice->UnmapMemory();
}

class RayCastFrames : public testing::Test {
protected:
    void TearDown() override {
        reference_host::SetNumberOfServers(0);
        reference_host::SetPagerFaults({});
        reference_host::LogToCallback({});
        reference_host::SetLogLevel(0);
    }
};

TEST_F(RayCastFrames, SamePictureForAnyNumberOfServersAndInstructionSet) {
    namespace kernels = ip_volr::kernels;
    const Scene scene = busy_scene();
    reference_host::SetNumberOfServers(1);
    Picture reference;
    {
        const kernels::ScopedInstructionSet scalar(kernels::InstructionSet::Scalar);
        reference = Renderer(scene).render();
    }
    ASSERT_FALSE(reference.empty());
    for (int set = 0; set < kernels::kNumInstructionSets; set++) {
        const kernels::ScopedInstructionSet scoped(static_cast<kernels::InstructionSet>(set));
        for (const int servers : {1, 2, 3, 4, 8}) {
            // More servers than a wave has bricks: their rays are divided among the tasks.
            reference_host::SetNumberOfServers(servers);
            EXPECT_EQ(Renderer(scene).render(), reference) << "servers " << servers << ", instruction set " << set;
        }
    }
}

TEST_F(RayCastFrames, SamePictureAfterOtherFrames) {
    Scene scene = busy_scene();
    const Picture reference = Renderer(scene).render(0xff204060);
    Renderer renderer(scene);
    renderer.facade.SetRenderMode(Facade::RENDER_MODE_INTERACTIVE);
    renderer.facade.SetInteractiveQuality(Facade::INTERACTIVE_QUALITY_2);
    EXPECT_FALSE(renderer.render().empty());
    renderer.scene.turn(1.0, -0.3);
    renderer.scene.planes.clear();
    renderer.scene.width = 61;
    renderer.pass_view();
    renderer.pass_planes();
    EXPECT_FALSE(renderer.render().empty());
    renderer.scene = scene;
    renderer.pass_scene();
    renderer.facade.SetRenderMode(Facade::RENDER_MODE_FINAL);
    EXPECT_EQ(renderer.render(0xff204060), reference);
    // The number of servers changes between the frames of one facade.
    reference_host::SetNumberOfServers(5);
    EXPECT_EQ(renderer.render(0xff204060), reference);
}

TEST_F(RayCastFrames, MappingLimitFallsBackToLayersAndDrawsTheSame) {
    Scene scene = sphere_scene({40, 40, 330}, {1, 1, 0.15}, false);
    scene.turn(0.5, 0.4);
    std::string log;
    reference_host::SetLogLevel(ip_volr::kTraceWarning);
    reference_host::LogToCallback([&](const reference_host::LogLine& line) { log += line.text; });
    for (const int direction : {0, 1}) {
        if (direction == 1) {
            scene.into = scaled(scene.into, -1);  // the layers from the far end
            scene.right = scaled(scene.right, -1);
        }
        Renderer renderer(scene);
        const Picture reference = renderer.render();
        // More and more room beside what is mapped already: three layers of slices first, then nine, then all.
        const std::int64_t mapped = reference_host::GetPagerStatistics().mapped_bytes;
        const std::string incremental = "Whole VolData mapping failed: mapping incrementally\n";
        int drawn_incrementally = 0;
        for (std::int64_t room = 1 << 14; room < 1 << 24; room += 1 << 16) {
            log.clear();
            reference_host::SetPagerFaults({0, 0, 0, mapped + room});
            const Picture picture = renderer.render();
            EXPECT_TRUE(picture.empty() || picture == reference) << room;
            drawn_incrementally += !picture.empty() && log == incremental ? 1 : 0;
            if (!picture.empty() && log.empty()) {
                break;
            }
        }
        EXPECT_GT(drawn_incrementally, 5);
        reference_host::SetPagerFaults({});
        EXPECT_EQ(renderer.render(), reference);
        EXPECT_EQ(reference_host::GetPagerStatistics().mapped_bytes, mapped);
    }
}

TEST_F(RayCastFrames, StreamedSlicesEndInTheWholePicture) {
    Scene scene = sphere_scene({64, 64, 70}, {1, 1, 1}, true);
    scene.turn(0.4, 0.2);
    const Picture reference = Renderer(scene).render();
    Renderer renderer(scene);
    for (int z = 0; z < scene.dims[2]; z++) {
        write_slice(renderer, z, false);
    }
    const Picture empty = renderer.render();
    EXPECT_EQ(empty, Picture(empty.size(), 0xff000000));
    for (int first = 0; first < scene.dims[2]; first += 7) {
        std::list<int> arrived;
        for (int z = first; z < std::min(first + 7, scene.dims[2]); z++) {
            write_slice(renderer, z, true);
            arrived.push_back(z);
        }
        renderer.facade.SetUpdatedSliceIndexList(&arrived);
        EXPECT_FALSE(renderer.facade.IsCacheValid());
        EXPECT_FALSE(renderer.render().empty());
    }
    // A layer's overlap row may lag by one voxel until its own slices are named again.
    std::list<int> all;
    for (int z = 0; z < scene.dims[2]; z++) {
        all.push_back(z);
    }
    renderer.facade.SetUpdatedSliceIndexList(&all);
    EXPECT_EQ(renderer.render(), reference);
}

TEST_F(RayCastFrames, ValidityAndMappingsHaveALifeOfTheirOwn) {
    const std::int64_t mappings_before = reference_host::GetPagerStatistics().mappings;
    {
        Renderer renderer(busy_scene());
        Facade& facade = renderer.facade;
        EXPECT_FALSE(facade.IsCacheValid());
        const std::int64_t resting = [&] {
            renderer.render();
            return reference_host::GetPagerStatistics().mappings;
        }();
        EXPECT_TRUE(facade.IsCacheValid());
        const std::function<void()> changes[] = {
            [&] { renderer.pass_planes(); },
            [&] { renderer.pass_tables(); },
            [&] { renderer.pass_view(); },
            [&] { facade.SetVolumeTissues(&renderer.tissues); },
            [&] { facade.BoxUpdated(); },
            [&] { facade.SetLightingMode(Facade::LIGHTING_OFF); },
            [&] { facade.SetVolrQuality(Facade::RENDER_QUALITY_STANDARD); },
            [&] { facade.SetRenderMode(Facade::RENDER_MODE_INTERACTIVE); },
        };
        for (const auto& change : changes) {
            change();
            EXPECT_FALSE(facade.IsCacheValid());
            EXPECT_FALSE(renderer.render().empty());
            EXPECT_TRUE(facade.IsCacheValid());
        }
        // Interactive frames keep the bricks mapped, once; a final frame lets go of them.
        const std::int64_t interactive = reference_host::GetPagerStatistics().mappings;
        EXPECT_GT(interactive, resting);
        renderer.render();
        renderer.render();
        EXPECT_EQ(reference_host::GetPagerStatistics().mappings, interactive);
        facade.SetRenderMode(Facade::RENDER_MODE_FINAL);
        renderer.render();
        EXPECT_EQ(reference_host::GetPagerStatistics().mappings, resting);
    }
    EXPECT_EQ(reference_host::GetPagerStatistics().mappings, mappings_before);
}

TEST_F(RayCastFrames, BrickStructureGoesFromFacadeToFacade) {
    const Scene scene = busy_scene();
    const Picture reference = Renderer(scene).render();
    void* bricks = nullptr;
    {
        Scene other = sphere_scene({40, 90, 33}, {1, 1, 1}, false);
        Renderer first(other);
        first.facade.AllocateEngineSpecificData(bricks);
        ASSERT_NE(bricks, nullptr);
        first.facade.SetEngineSpecificData(bricks);
        first.facade.SetRenderMode(Facade::RENDER_MODE_INTERACTIVE);  // leaves it mapped
        EXPECT_FALSE(first.render().empty());
    }
    // The first volume and its tables are gone.
    {
        Renderer second(scene);
        second.facade.SetEngineSpecificData(bricks);
        EXPECT_EQ(second.render(), reference);
        second.facade.SetEngineSpecificData(nullptr);
        EXPECT_EQ(second.render(), reference);
    }
    Facade::DeallocateEngineSpecificData(bricks);
}

// ---- Faults

// Two bricks along each axis, two tissues, a plane, an oblique view.
Scene small_scene() {
    Scene scene = sphere_scene({40, 38, 36}, {1, 1, 0.8}, true);
    scene.tissues.assign(scene.voxels.size(), 15);
    std::fill(scene.tissues.begin(), scene.tissues.begin() + 40 * 38 * 20, 4);
    scene.planes.push_back({0.6, 0.0, 0.8, -6.0});
    scene.turn(0.8, 0.4);
    return scene;
}

// Sweeps the frame after a change. Whatever happened to it, the next frame shows the scene, and the engine keeps mapped
// what it keeps after any final frame. `prepare` comes before the change, without faults. A change that lets
// std::bad_alloc through is made again.
void sweep_frames(Facade::RenderMode mode, const std::function<void(Renderer&)>& prepare,
                  const std::function<void(Renderer&)>& change, BadAlloc bad_alloc = BadAlloc::Never) {
    const Scene scene = small_scene();
    const auto mappings = [] { return reference_host::GetPagerStatistics().mappings; };
    Renderer reference_renderer(scene);
    const std::int64_t resting_before = mappings();
    const Picture reference = reference_renderer.render();
    const std::int64_t resting = mappings() - resting_before;
    FaultSweep sweep(bad_alloc);
    sweep.run([&](FaultPoint& point) {
        Renderer renderer(scene);
        const std::int64_t mappings_before = mappings();
        prepare(renderer);
        renderer.facade.SetRenderMode(mode);
        Picture picture(reference.size());
        bool drawn = false;
        const auto draw = [&] {
            change(renderer);
            drawn = renderer.render_into(picture);
        };
        point.run(draw, true);
        EXPECT_TRUE(drawn || point.came());
        EXPECT_TRUE(!drawn || mode == Facade::RENDER_MODE_INTERACTIVE || picture == reference);
        EXPECT_EQ(renderer.facade.IsCacheValid(), drawn);
        if (point.has_thrown_bad_alloc()) {
            change(renderer);
        }
        renderer.facade.SetRenderMode(Facade::RENDER_MODE_FINAL);
        EXPECT_EQ(renderer.render(), reference);
        EXPECT_EQ(mappings(), mappings_before + resting);
    });
}

void set_volumes(Renderer& renderer) {
    renderer.facade.SetVolumeData(nullptr, true);
    renderer.facade.SetVolumeData(&renderer.volumes, true);
    renderer.facade.SetVolumeTissues(&renderer.tissues);
}

TEST_F(RayCastFrames, FaultsInAFirstFinalFrame) {
    sweep_frames(
        Facade::RENDER_MODE_FINAL, [](Renderer&) {}, set_volumes);
}

TEST_F(RayCastFrames, FaultsInAFirstInteractiveFrame) {
    sweep_frames(
        Facade::RENDER_MODE_INTERACTIVE, [](Renderer&) {}, set_volumes);
}

TEST_F(RayCastFrames, FaultsAfterAChangeOfSizeTablesAndPlanes) {
    const int width = small_scene().width;
    sweep_frames(
        Facade::RENDER_MODE_FINAL,
        [](Renderer& renderer) {
            renderer.scene.width = 50;
            renderer.pass_view();
            renderer.facade.SetClippingPlanes(nullptr);
            renderer.render();
        },
        [=](Renderer& renderer) {
            renderer.scene.width = width;
            renderer.pass_view();
            renderer.pass_tables();
            renderer.pass_planes();
        },
        BadAlloc::Allowed);
}

TEST_F(RayCastFrames, FaultsInATissueUpdate) {
    Scene other = small_scene();
    std::fill(other.tissues.begin(), other.tissues.end(), 1);
    sweep_frames(
        Facade::RENDER_MODE_FINAL,
        [&](Renderer& renderer) {
            IP_MultiVolData tissues;
            tissues.AddVolData(make_tissue_volume(other));
            renderer.facade.SetVolumeTissues(&tissues);
            renderer.render();
        },
        [](Renderer& renderer) { renderer.facade.SetVolumeTissues(&renderer.tissues); });
}

TEST_F(RayCastFrames, FaultsWhileSlicesStreamIn) {
    std::list<int> all(static_cast<std::size_t>(small_scene().dims[2]));
    std::iota(all.begin(), all.end(), 0);
    sweep_frames(
        Facade::RENDER_MODE_FINAL,
        [](Renderer& renderer) {
            for (int z = 0; z < renderer.scene.dims[2]; z++) {
                write_slice(renderer, z, false);
            }
            renderer.render();
            for (int z = 0; z < renderer.scene.dims[2]; z++) {
                write_slice(renderer, z, true);
            }
        },
        [&](Renderer& renderer) { renderer.facade.SetUpdatedSliceIndexList(&all); });
}

}  // namespace
