// What comes before a frame: first frames from loaded slices, changed tables and tissues, slices that arrive, import.
#include "bench/limits.h"
#include "bench/scenes.h"
#include "bench/timing.h"
#include "ip_volr/IP_VOLRC_VolumeRenderingRC.h"
#include "scene/tissues.h"
#include "scene/volume_output.h"
#include "scene/volume_rendering.h"

#include <cstdio>
#include <filesystem>
#include <list>

namespace {

using namespace volr_bench;

constexpr const char* kVolume = "head512";

scene::Camera camera_of(const scene::VolumeSource& source) {
    return scene::MakeCamera(view_of(30.0, 15.0, 512), source.GetSubject());
}

// From loaded slices to the first picture, everything made anew.
void first_render(benchmark::State& state, const char* scene_name) {
    scene::VolumeSource& source = *volume(kVolume).source;
    Stream stream(*source.Volume());
    const auto work = [&] {
        scene::VolumeRendering rendering(source);
        rendering.SetTransfer(look(scene_name), true);
        rendering.SetView(camera_of(source), scene::Light{});
        rendering.Draw({});
    };
    run_beside(state, work, [&] { return stream.read_seconds(); });
}

void first_mip(benchmark::State& state, bool linear) {
    scene::VolumeSource& source = *volume(kVolume).source;
    Stream stream(*source.Volume());
    const auto work = [&] {
        scene::Projection projection(source, linear);
        const scene::View view = view_of(30.0, 15.0, 512);
        projection.SetView(camera_of(source), view);
        projection.Draw();
    };
    run_beside(state, work, [&] { return stream.read_seconds(); });
}

// The frame after a change, beside a frame without one.
void frame_after(benchmark::State& state, scene::VolumeRendering& rendering, const Work& change) {
    rendering.SetView(camera_of(*volume(kVolume).source), scene::Light{});
    rendering.Draw({});
    const auto work = [&] {
        change();
        rendering.Draw({});
    };
    run_beside(state, work, [&] { return seconds_of([&] { rendering.Draw({}); }); });
}

// Two looks in turn. The tool's making of tables is part of the change.
void colour_change(benchmark::State& state, const char* scene_name) {
    scene::VolumeRendering rendering(*volume(kVolume).source);
    rendering.SetTransfer(look(scene_name), true);
    int turn = 0;
    frame_after(state, rendering,
                [&] { rendering.SetTransfer(scene::Adjusted(look(scene_name), ++turn % 2 * 5.0, 1.0), true); });
}

void tissue_change(benchmark::State& state) {
    Volume& v = volume(kVolume);
    scene::LabelVolume labels(v.source->Info());
    labels.Add(v.labels, false, "phantom");
    const scene::TissuePlan plan = scene::PlanTissues(labels.Present(), {}, {});
    const auto first = scene::MakeTissueVolume(labels, plan, *v.source);
    const auto second = scene::MakeTissueVolume(labels, plan, *v.source);
    scene::VolumeRendering rendering(*v.source);
    rendering.SetTransfer(look("opaque"), true);
    rendering.SetTissues(first, plan);
    int turn = 0;
    frame_after(state, rendering, [&] { rendering.SetTissues(++turn % 2 == 0 ? first : second, plan); });
}

// A volume file read back, beside a copy of its bytes in memory.
void import(benchmark::State& state, const char* ending) {
    const std::filesystem::path path =
        std::filesystem::temp_directory_path() / ("volr_bench_import" + std::string(ending));
    {
        const scene::Phantom phantom = scene::MakePhantom({scene::PhantomKind::kHead, {256, 256, 256}, 1});
        scene::WriteVolume(path.string(), {phantom.size, phantom.spacing_mm, phantom.origin_mm}, phantom.voxels.data());
    }
    std::vector<short> from(std::size_t{256} * 256 * 256);
    std::vector<short> to(from.size());
    const auto copy = [&] {
        std::copy(from.begin(), from.end(), to.begin());
        benchmark::ClobberMemory();
    };
    run_beside(
        state, [&] { scene::VolumeSource source(scene::ImportVolume(path.string())); },
        [&] { return seconds_of(copy); });
    std::filesystem::remove(path);
}

void settings(benchmark::internal::Benchmark* b) {
    b->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(7);
}

BENCHMARK_CAPTURE(first_render, opaque, "opaque")->Name("setup/render/opaque")->Apply(settings);
BENCHMARK_CAPTURE(first_render, half, "half")->Name("setup/render/half")->Apply(settings);
BENCHMARK_CAPTURE(first_mip, fast, false)->Name("setup/mip-fast")->Apply(settings);
BENCHMARK_CAPTURE(first_mip, linear, true)->Name("setup/mip-linear")->Apply(settings);
BENCHMARK_CAPTURE(colour_change, opaque, "opaque")->Name("change/colours/opaque")->Apply(settings);
BENCHMARK_CAPTURE(colour_change, skin, "skin")->Name("change/colours/skin")->Apply(settings);
BENCHMARK_CAPTURE(colour_change, half, "half")->Name("change/colours/half")->Apply(settings);
BENCHMARK(tissue_change)->Name("change/tissues")->Apply(settings);
BENCHMARK_CAPTURE(import, nrrd, ".nrrd")->Name("import/nrrd")->Apply(settings);
BENCHMARK_CAPTURE(import, nifti, ".nii")->Name("import/nifti")->Apply(settings);

}  // namespace
