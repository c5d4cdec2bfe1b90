// What all servers gain over one: whole frames, beside a loop that shares nothing, in turns in one run.
//
//   servers/WORK                                               limit: the gain of the loop
#include "bench/limits.h"
#include "bench/scenes.h"
#include "bench/timing.h"
#include "host/reference/settings.h"
#include "host/tasks.h"
#include "scene/volume_rendering.h"

#include <algorithm>

namespace {

using namespace volr_bench;

constexpr const char* kVolume = "head512";

struct Run {
    Times frames;
    double samples_per_second = 0.0;  // of the loop, at best
};

void run_with(int servers, const Work& draw, Run& run) {
    reference_host::SetNumberOfServers(servers);
    draw();  // starts the workers
    run.frames.add(seconds_of(draw));
    run.samples_per_second = std::max(run.samples_per_second, trilinear_samples_per_second(false));
    run.frames.add(seconds_of(draw));
}

// Counters: least times in ms with one server and with all, what these gain, what the loop gains, and `ratio`: the
// part of the loop's gain that the frame gets.
void compare(benchmark::State& state, const Work& draw) {
    reference_host::SetNumberOfServers(0);
    const int all = TCO_CompoundTaskManager::GetNumberOfServers();
    Run one;
    Run many;
    for (auto _ : state) {
        run_with(1, draw, one);
        run_with(all, draw, many);
        state.SetIterationTime(many.frames.least());
    }
    reference_host::SetNumberOfServers(0);
    const double gain = one.frames.least() / many.frames.least();
    const double loop_gain = many.samples_per_second / one.samples_per_second;
    state.counters["servers"] = all;
    state.counters["one_ms"] = one.frames.least() * 1e3;
    state.counters["all_ms"] = many.frames.least() * 1e3;
    state.counters["gain"] = gain;
    state.counters["loop_gain"] = loop_gain;
    state.counters["ratio"] = gain / loop_gain;
}

void render(benchmark::State& state, const char* scene_name, const char* quality) {
    scene::VolumeSource& source = *volume(kVolume).source;
    scene::VolumeRendering rendering(source);
    rendering.SetTransfer(look(scene_name), true);
    rendering.SetQuality(*scene::QualityByName(quality));
    rendering.SetView(scene::MakeCamera(view_of(30.0, 15.0, 512), source.GetSubject()), scene::Light{});
    compare(state, [&] { rendering.Draw({}); });
}

void mip(benchmark::State& state, bool linear) {
    scene::VolumeSource& source = *volume(kVolume).source;
    scene::Projection projection(source, linear);
    projection.Prepare();
    const scene::View view = view_of(30.0, 15.0, 512);
    projection.SetView(scene::MakeCamera(view, source.GetSubject()), view);
    compare(state, [&] { projection.Draw(); });
}

void settings(benchmark::internal::Benchmark* b) {
    b->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(7);
}

BENCHMARK_CAPTURE(render, opaque, "opaque", "enhanced")->Name("servers/render/opaque")->Apply(settings);
BENCHMARK_CAPTURE(render, half, "half", "enhanced")->Name("servers/render/half")->Apply(settings);
BENCHMARK_CAPTURE(render, interactive, "opaque", "interactive0")->Name("servers/render/interactive0")->Apply(settings);
BENCHMARK_CAPTURE(mip, fast, false)->Name("servers/mip-fast")->Apply(settings);
BENCHMARK_CAPTURE(mip, linear, true)->Name("servers/mip-linear")->Apply(settings);

}  // namespace
