// Picks on a drawn picture of the head phantom: the ray, the search, and what the pixel shows.
#include <benchmark/benchmark.h>

#include <ctime>
#include <memory>
#include <vector>

#include "bench/scenes.h"
#include "scene/phantom.h"
#include "scene/picking.h"
#include "scene/presets.h"
#include "scene/vessel_search.h"
#include "scene/volume_rendering.h"

namespace {

using Pixels = std::vector<std::array<double, 2>>;

// The 512 x 512 x 400 phantom, seen obliquely from above, and the pixels of its vessels.
struct Subject {
    Subject() {
        scene::PhantomRequest request;
        request.size = {512, 512, 400};
        const scene::Phantom phantom = scene::MakePhantom(request);
        source = std::make_unique<scene::VolumeSource>(volr_bench::imported(phantom));
        scene::View view;
        view.azimuth_deg = 20.0;
        view.elevation_deg = 35.0;
        camera = scene::MakeCamera(view, source->GetSubject());
        projection = std::make_unique<scene::Projection>(*source, true);
        projection->SetView(camera, view);
        rendering = std::make_unique<scene::VolumeRendering>(*source);
        rendering->SetTransfer(*scene::FindPreset("ct-angio"), true);
        rendering->SetView(camera, {});
        rendering->Draw({});
        opacities = std::make_unique<scene::OpacityTables>(rendering->ColourTables(), source->Stored());
        for (const scene::Vessel& vessel : phantom.vessels) {
            for (std::size_t i = 0; i < vessel.points.size(); i += 20) {
                const scene::Camera::Pixel at = camera.Project(vessel.points[i].position_mm);
                pixels.push_back({std::round(at.x), std::round(at.y)});
            }
        }
    }

    std::unique_ptr<scene::VolumeSource> source;
    scene::Camera camera;
    std::unique_ptr<scene::Projection> projection;
    std::unique_ptr<scene::VolumeRendering> rendering;
    std::unique_ptr<scene::OpacityTables> opacities;
    Pixels pixels;
};

Subject& TheSubject() {
    static Subject subject;
    return subject;
}

double ProcessorSeconds() {
    timespec now{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

// Times one pick after another; beside the mean the slowest, in processor time so that other programs do not count.
template <class Pick>
void Picks(benchmark::State& state, const Pick& pick) {
    const Pixels& pixels = TheSubject().pixels;
    std::size_t i = 0;
    double slowest_s = 0.0;
    for (auto _ : state) {
        const double start_s = ProcessorSeconds();
        benchmark::DoNotOptimize(pick(pixels[i][0], pixels[i][1]));
        slowest_s = std::max(slowest_s, ProcessorSeconds() - start_s);
        i = (i + 1) % pixels.size();
    }
    state.counters["slowest_cpu_ms"] = 1e3 * slowest_s;
    state.counters["pixels"] = static_cast<double>(pixels.size());
}

void VesselOnProjection(benchmark::State& state) {
    Subject& s = TheSubject();
    Picks(state, [&](double x, double y) {
        return scene::FindVesselOnProjection(*s.source, nullptr, scene::RayOfProjection(*s.projection, x, y));
    });
}

void VesselOnRendering(benchmark::State& state) {
    Subject& s = TheSubject();
    Picks(state, [&](double x, double y) {
        return scene::FindVesselOnRendering(*s.source, nullptr, *s.opacities,
                                            scene::RayOfRendering(*s.source, s.camera, {}, x, y));
    });
}

void PointOnProjection(benchmark::State& state) {
    Subject& s = TheSubject();
    Picks(state, [&](double x, double y) { return scene::PickOnProjection(*s.projection, *s.source, x, y); });
}

void PointOnRendering(benchmark::State& state) {
    Subject& s = TheSubject();
    Picks(state, [&](double x, double y) {
        return scene::PickOnRendering(*s.source, nullptr, *s.opacities,
                                      scene::RayOfRendering(*s.source, s.camera, {}, x, y));
    });
}

BENCHMARK(VesselOnProjection)->Name("Pick/Vessel/Mip/512x512x400")->Unit(benchmark::kMicrosecond);
BENCHMARK(VesselOnRendering)->Name("Pick/Vessel/Render/512x512x400")->Unit(benchmark::kMicrosecond);
BENCHMARK(PointOnProjection)->Name("Pick/Point/Mip/512x512x400")->Unit(benchmark::kMicrosecond);
BENCHMARK(PointOnRendering)->Name("Pick/Point/Render/512x512x400")->Unit(benchmark::kMicrosecond);

}  // namespace
