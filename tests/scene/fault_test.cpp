// Refused memory, refused mappings and cancellation from the file to the picture: an error of one line or the host's
// cancellation, and the same objects give the right result afterwards.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <numeric>
#include <optional>
#include <vector>

#include "scene/error.h"
#include "scene/growing_source.h"
#include "scene/phantom.h"
#include "scene/presets.h"
#include "scene/projection.h"
#include "scene/vessel_search.h"
#include "scene/volume_output.h"
#include "scene/volume_rendering.h"
#include "tests/scene/import_test_files.h"
#include "tests/support/fault_sweep.h"

namespace {

using scene::ImportedVolume;
using scene::LabelVolume;
using scene::TissueLook;
using scene::VolumeSource;

const scene::Phantom& SmallPhantom() {
    static const scene::Phantom phantom = scene::MakePhantom({scene::PhantomKind::kBricks, {40, 36, 20}, 1});
    return phantom;
}

template <typename Value>
ImportedVolume Imported(const std::vector<Value>& values, bool is_signed) {
    const scene::Phantom& phantom = SmallPhantom();
    ImportedVolume v;
    v.dims = phantom.size;
    v.spacing_mm = ToArray(phantom.spacing_mm);
    for (std::size_t i = 0; i < 3; ++i) {
        v.index_to_patient[5 * i] = v.spacing_mm[i];
        v.index_to_patient[4 * i + 3] = ToArray(phantom.origin_mm)[i];
    }
    v.voxels = scene::VoxelBuffer(values.size());
    std::copy(values.begin(), values.end(), v.voxels.data());
    v.is_signed = is_signed;
    v.bits_stored = 13;
    const auto range = std::minmax_element(values.begin(), values.end());
    v.min_value = *range.first;
    v.max_value = *range.second;
    return v;
}

// A volume, its labels, and what draws them.
struct World {
    World() : source(Imported(SmallPhantom().voxels, true)), labels(source.Info()) {
        labels.Add(Imported(SmallPhantom().labels, false), false, "map");
        plan = scene::PlanTissues(labels.Present(),
                                  {{scene::kLabelBone, TissueLook::Hidden(), false},
                                   {scene::kLabelVessel, TissueLook::Colour(0xFF0000, 1.0), false}},
                                  {});
        view.width = 60;
        view.height = 50;
        view.azimuth_deg = 30.0;
        camera = MakeCamera(view, source.GetSubject());
    }

    VolumeSource source;
    LabelVolume labels;
    scene::TissuePlan plan;
    scene::View view;
    scene::Camera camera;
    std::unique_ptr<scene::Projection> projection;
    std::unique_ptr<scene::VolumeRendering> rendering;
};

std::vector<unsigned char> BytesOf(IP_VolData& volume, std::size_t slice_bytes) {
    std::vector<unsigned char> bytes;
    bytes.reserve(static_cast<std::size_t>(volume.GetNumberOfSlicePointers()) * slice_bytes);  // not while mapped
    for (int z = 0; z < volume.GetNumberOfSlicePointers(); ++z) {
        MEM_PagerInfo& block = *volume.GetSlice(z)->GetData();
        if (volume.GetSlice(z)->MapMemory() != 0) {
            throw scene::Error(scene::ErrorKind::kFailed, "test", "not mapped", "");
        }
        const auto* const first = static_cast<const unsigned char*>(block.Ptr());
        bytes.insert(bytes.end(), first, first + slice_bytes);
        volume.GetSlice(z)->UnmapMemory();
    }
    return bytes;
}

// Sweeps an operation on a world. It gives the right value, or is refused or cancelled; repeated, it gives the right
// value.
template <class Prepare, class Operate>
void Sweep(FaultSweep& sweep, const Prepare& prepare, const Operate& operate) {
    const auto make = [&] {
        auto world = std::make_unique<World>();
        prepare(*world);
        return world;
    };
    const auto expected = operate(*make());
    sweep.run([&](FaultPoint& point) {
        const auto world = make();
        std::optional<std::decay_t<decltype(expected)>> value;
        const auto attempt = [&] {
            try {
                value = operate(*world);
            } catch (const scene::Error& error) {
                EXPECT_EQ(std::string(error.what()).find('\n'), std::string::npos);
            }
        };
        point.run(attempt, true);
        EXPECT_TRUE(value.has_value() || point.came());
        EXPECT_TRUE(!value.has_value() || *value == expected);
        EXPECT_TRUE(operate(*world) == expected);
    });
}

const auto kNothing = [](World&) {};

TEST(SceneFaults, LoadingAVolume) {
    FaultSweep sweep(BadAlloc::Allowed);
    Sweep(sweep, kNothing, [](World&) {
        VolumeSource source(Imported(SmallPhantom().voxels, true));
        source.Histogram();
        return BytesOf(*source.Volume(), 40 * 36 * 2);
    });
    Sweep(sweep, kNothing, [](World& world) { return world.source.RelativeWindow(); });
}

TEST(SceneFaults, LoadingAVolumeThatGrows) {
    constexpr std::size_t kSliceBytes = 40 * 36 * 2;
    std::vector<int> all(20);
    std::iota(all.begin(), all.end(), 0);
    VolumeSource at_once(Imported(SmallPhantom().voxels, true));
    const auto expected = BytesOf(*at_once.Volume(), kSliceBytes);
    FaultSweep sweep(BadAlloc::Allowed);
    sweep.run([&](FaultPoint& point) {
        const ImportedVolume layout = Imported(SmallPhantom().voxels, true);
        std::unique_ptr<scene::GrowingSource> growing;
        const auto grow = [&] {
            try {
                growing = growing != nullptr ? std::move(growing) : std::make_unique<scene::GrowingSource>(layout);
                growing->Take(all);
            } catch (const scene::Error&) {
            }
        };
        point.run(grow);
        point.expect_ended_by_fault(growing != nullptr && growing->NumArrived() == 20);
        grow();
        ASSERT_EQ(growing->NumArrived(), 20);
        EXPECT_EQ(BytesOf(*growing->Volume(), kSliceBytes), expected);
    });
    sweep.run([&](FaultPoint& point) {
        scene::GrowingSource growing(Imported(SmallPhantom().voxels, true));
        growing.Take({0, 7, 3});
        std::unique_ptr<VolumeSource> whole;
        point.run([&] {
            try {
                whole = growing.Finish(Imported(SmallPhantom().voxels, true));
            } catch (const scene::Error&) {
            }
        });
        point.expect_ended_by_fault(whole != nullptr);
        EXPECT_TRUE(whole == nullptr || BytesOf(*whole->Volume(), kSliceBytes) == expected);
    });
}

TEST(SceneFaults, LoadingLabels) {
    FaultSweep sweep(BadAlloc::Allowed);
    const ImportedVolume map = Imported(SmallPhantom().labels, false);
    ImportedVolume shifted = map;
    shifted.index_to_patient[3] += map.spacing_mm[0];
    Sweep(sweep, kNothing, [&](World& world) {
        LabelVolume labels(world.source.Info());
        labels.Add(map, false, "map");
        labels.Add(shifted, false, "shifted map");
        std::vector<int> seen = labels.Present();
        seen.insert(seen.end(), labels.Slice(0), labels.Slice(19) + 40 * 36);
        return seen;
    });
    Sweep(sweep, kNothing, [](World& world) {
        return BytesOf(*MakeTissueVolume(world.labels, world.plan, world.source)->GetVolData(0), 40 * 36 / 2);
    });
    Sweep(sweep, kNothing, [](World& world) {
        const auto mask = MakeHiddenMask(world.labels, world.plan, world.source);
        return BytesOf(*scene::MaskedVolume(world.source, *mask, 0).Volume(), 40 * 36 * 2);
    });
}

TEST(SceneFaults, Projecting) {
    FaultSweep sweep(BadAlloc::Allowed);
    for (const bool linear : {true, false}) {
        const auto prepare = [&](World& world) {
            world.projection = std::make_unique<scene::Projection>(world.source, linear);
            world.projection->SetView(world.camera, world.view);
        };
        Sweep(sweep, prepare, [](World& world) { return world.projection->Draw().stored; });
    }
    const auto draw_slab = [](World& world) {
        world.projection->SetClipping({{1.0, 0.0, 0.0, 0.0}});
        world.projection->SetSlab(scene::Slab{8.0, 0.0});
        world.projection->SetView(world.camera, world.view);
        return world.projection->Draw().stored;
    };
    const auto prepare = [](World& world) {
        world.projection = std::make_unique<scene::Projection>(world.source, true);
    };
    Sweep(sweep, prepare, draw_slab);
}

TEST(SceneFaults, MaskingAProjectionKeepsTheEarlierMask) {
    FaultSweep sweep(BadAlloc::Allowed);
    for (const bool linear : {true, false}) {
        World world;
        const auto mask = MakeHiddenMask(world.labels, world.plan, world.source);
        const auto draw = [](scene::Projection& projection) { return projection.Draw().stored; };
        std::vector<std::int16_t> pictures[2];  // without the mask, with it
        sweep.run([&](FaultPoint& point) {
            scene::Projection projection(world.source, linear);
            projection.SetView(world.camera, world.view);
            pictures[0] = draw(projection);
            bool done = false;
            point.run([&] {
                try {
                    projection.SetMask(mask);
                    done = true;
                } catch (const scene::Error&) {
                }
            });
            point.expect_ended_by_fault(done);
            pictures[1] = point.came() ? pictures[1] : draw(projection);
            EXPECT_EQ(draw(projection), pictures[done ? 1 : 0]);
            projection.SetMask(mask);
            EXPECT_EQ(draw(projection), pictures[1]);
            EXPECT_NE(pictures[0], pictures[1]);
        });
    }
}

TEST(SceneFaults, Rendering) {
    FaultSweep sweep(BadAlloc::Allowed);
    const auto prepare = [](World& world) {
        world.rendering = std::make_unique<scene::VolumeRendering>(world.source);
        world.rendering->SetTransfer(*scene::FindPreset("ct-bone"), true);
        world.rendering->SetView(world.camera, {});
    };
    Sweep(sweep, prepare, [](World& world) {
        world.rendering->SetTissues(MakeTissueVolume(world.labels, world.plan, world.source), world.plan);
        return world.rendering->Draw({}).pixels;
    });
    // What was refused before leaves nothing that the engine still reads.
    Sweep(sweep, kNothing, [](World& world) {
        if (world.rendering == nullptr) {
            world.rendering = std::make_unique<scene::VolumeRendering>(world.source);
        }
        world.rendering->SetTransfer(*scene::FindPreset("ct-bone"), false);
        world.rendering->SetClipping({{1.0, 0.0, 0.0, 0.0}});
        world.rendering->SetView(world.camera, {});
        return world.rendering->Draw({}).pixels;
    });
}

TEST(SceneFaults, PickingVessels) {
    FaultSweep sweep(BadAlloc::Allowed);
    const auto prepare = [](World& world) {
        world.projection = std::make_unique<scene::Projection>(world.source, true);
        world.projection->SetView(world.camera, world.view);
    };
    Sweep(sweep, prepare, [](World& world) {
        const scene::TransferTables tables(scene::UniformColour(0xFFFFFF, 1.0, 150.0), world.source.Stored());
        std::array<const std::uint32_t*, 16> colours;
        colours.fill(tables.Colours());
        const scene::OpacityTables opacities(colours, world.source.Stored());
        const auto ray = RayOfRendering(world.source, world.camera, {}, 30.0, 25.0);
        const auto on_projection = FindVesselOnProjection(world.source, nullptr, ray);
        const auto on_rendering = FindVesselOnRendering(world.source, nullptr, opacities, ray);
        const auto picked = PickOnRendering(world.source, nullptr, opacities, ray);
        const auto brightest = PickOnProjection(*world.projection, world.source, 30.0, 25.0);
        return std::vector<double>{on_projection.record.picked_point[0], on_rendering.record.picked_point[0],
                                   picked.voxel_value, brightest.voxel_value};
    });
}

TEST(SceneFaults, CancelledImports) {
    const import_test::TempFolder folder;
    FaultSweep sweep(BadAlloc::NotSwept);  // decoders of others, which run in a process of their own
    for (const char* name : {"a.nii", "a.nii.gz", "a.nrrd", "a.mha"}) {
        const std::string path = folder / name;
        scene::WriteVolume(path, {SmallPhantom().size, SmallPhantom().spacing_mm, SmallPhantom().origin_mm},
                           SmallPhantom().labels.data());
        sweep.run([&](FaultPoint& point) {
            scene::ImportOptions options = import_test::InProcess();
            options.is_cancelled = [&] { return point.poll(); };
            const auto read = [&] {
                const ImportedVolume volume = scene::ImportLabels(path, options);
                return std::vector<std::int16_t>(volume.voxels.data(), volume.voxels.data() + volume.voxels.size());
            };
            std::vector<std::int16_t> labels;
            const auto attempt = [&] {
                try {
                    labels = read();
                } catch (const scene::ImportCancelled&) {
                }
            };
            point.run(attempt);
            EXPECT_EQ(labels.empty(), point.came());
            options.is_cancelled = nullptr;
            EXPECT_TRUE(std::equal(labels.begin(), labels.end(), SmallPhantom().labels.begin()));
            labels = read();
            EXPECT_TRUE(std::equal(labels.begin(), labels.end(), SmallPhantom().labels.begin()));
        });
    }
}

}  // namespace
