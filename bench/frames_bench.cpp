// Whole frames: maximum-intensity projection through a full turn, ray casting in all qualities, scenes and sizes.
//
//   mip/VOLUME/PATH                                            limit: the same voxels streamed once, sheared
//   render/VOLUME/SCENE/QUALITY/VARIANT/SIZE                   limit: the samples that cannot be avoided
#include "bench/limits.h"
#include "bench/sample_count.h"
#include "bench/scenes.h"
#include "bench/timing.h"
#include "scene/tissues.h"
#include "scene/volume_rendering.h"

#include <algorithm>
#include <optional>

namespace {

using namespace volr_bench;

// ---- Maximum-intensity projection

struct MipCase {
    const char* name;
    bool linear;
    bool slab;  // of 20 mm, that moves with the view
    bool box;   // half of the volume cut away
    bool depth_cue;
};

constexpr MipCase kMipCases[] = {
    {"fast", false, false, false, false},          {"linear", true, false, false, false},
    {"fast-slab", false, true, false, false},      {"linear-slab", true, true, false, false},
    {"fast-box", false, false, true, false},       {"linear-box", true, false, true, false},
    {"fast-depth-cue", false, false, false, true}, {"linear-depth-cue", true, false, false, true},
};

std::vector<scene::ClipPlane> half_box(const scene::VolumeSource& source) {
    return scene::PlanesOf(scene::ClipBox{{0.0, 1.0, 0.5, 1.0, 0.0, 1.0}}, source);
}

void mip_turn(benchmark::State& state, const std::string& volume_name, const MipCase& c) {
    constexpr int kViews = 36;
    constexpr int kTurns = 5;
    scene::VolumeSource& source = *volume(volume_name).source;
    scene::Projection projection(source, c.linear);
    if (c.slab) {
        projection.SetSlab(scene::Slab{20.0, 0.0});
    }
    if (c.box) {
        projection.SetClipping(half_box(source));
    }
    if (c.depth_cue) {
        projection.SetDepthCue(0.3);
    }
    projection.Prepare();

    // The fast path reads half the columns and rows.
    IP_MultiVolDataIncMIP prepared;
    std::unique_ptr<Stream> stream;
    if (c.linear) {
        stream = std::make_unique<Stream>(*source.Volume());
    } else {
        prepared.Rebuild(source.Volumes(), nullptr, false, 2, 1, 1, 0, false, source.Info().min_value);
        stream = std::make_unique<Stream>(*prepared.GetVolData(0));
    }
    const auto draw = [&](int index) {
        const scene::View view = view_of(index * 360.0 / kViews, 15.0, 512);
        projection.SetView(scene::MakeCamera(view, source.GetSubject()), view);
        projection.Draw();
    };
    run_turn(state, kViews, kTurns, draw, [&] { return stream->sheared_maximum_seconds(); });
}

// ---- Ray casting

struct RenderCase {
    const char* quality;
    const char* variant;
    int size;
};

// Rays for a pixel and step that each quality starts with.
struct QualityWork {
    double pixels_per_ray;
    double step_voxels;
};

QualityWork work_of(const std::string& quality) {
    return quality == "enhanced"       ? QualityWork{1.0, 0.3}
           : quality == "standard"     ? QualityWork{2.0, 0.5}
           : quality == "interactive0" ? QualityWork{2.0, 0.8}
           : quality == "interactive1" ? QualityWork{3.0, 0.8}
                                       : QualityWork{4.0, 0.8};
}

std::shared_ptr<IP_MultiVolData> make_tissues(Volume& v, scene::TissuePlan& plan) {
    scene::LabelVolume labels(v.source->Info());
    labels.Add(v.labels, false, "phantom");
    plan = scene::PlanTissues(labels.Present(), {}, {});
    return scene::MakeTissueVolume(labels, plan, *v.source);
}

void render_frames(benchmark::State& state, const std::string& volume_name, const std::string& scene_name,
                   const RenderCase& c) {
    Volume& v = volume(volume_name);
    const std::string variant = c.variant;
    const bool shaded = variant != "unshaded";
    const scene::Camera camera = scene::MakeCamera(view_of(30.0, 15.0, c.size), v.source->GetSubject());
    scene::VolumeRendering rendering(*v.source);
    rendering.SetTransfer(look(scene_name), shaded);
    rendering.SetQuality(*scene::QualityByName(c.quality));
    if (variant == "clipped") {
        rendering.SetClipping(half_box(*v.source));
    }
    if (variant == "tissues") {
        scene::TissuePlan plan;
        rendering.SetTissues(make_tissues(v, plan), plan);
    }
    rendering.SetView(camera, scene::Light{});
    state.counters["first_ms"] = seconds_of([&] { rendering.Draw({}); }) * 1e3;

    const QualityWork quality = work_of(c.quality);
    SampleCount count = count_samples(*v.source, look(scene_name), shaded, camera, quality.step_voxels);
    count.num_samples /= quality.pixels_per_ray * quality.pixels_per_ray;
    count.num_shaded /= quality.pixels_per_ray * quality.pixels_per_ray;
    run_beside(
        state, [&] { rendering.Draw({}); }, [&] { return count.seconds(); });
    state.counters["msamples"] = count.num_samples * 1e-6;
    state.counters["mshaded"] = count.num_shaded * 1e-6;
}

// ---- Names

void add_render(const std::string& volume_name, const std::string& scene_name, const RenderCase& c) {
    const std::string name =
        "render/" + volume_name + "/" + scene_name + "/" + c.quality + "/" + c.variant + "/" + std::to_string(c.size);
    benchmark::RegisterBenchmark(name.c_str(),
                                 [=](benchmark::State& state) { render_frames(state, volume_name, scene_name, c); })
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond)
        ->Iterations(7);
}

void add_volume(const std::string& name) {
    for (const MipCase& c : kMipCases) {
        benchmark::RegisterBenchmark(("mip/" + name + "/" + c.name).c_str(),
                                     [=](benchmark::State& state) { mip_turn(state, name, c); })
            ->UseManualTime()
            ->Unit(benchmark::kMillisecond)
            ->Iterations(1);
    }
    for (const char* scene_name : {"opaque", "skin", "half"}) {
        for (const char* quality : {"enhanced", "standard", "interactive0", "interactive1", "interactive2"}) {
            add_render(name, scene_name, {quality, "shaded", 512});
        }
        for (const char* variant : {"unshaded", "clipped", "tissues"}) {
            if (variant != std::string("tissues") || name != "real") {
                add_render(name, scene_name, {"enhanced", variant, 512});
            }
        }
        add_render(name, scene_name, {"enhanced", "shaded", 1024});
    }
}

const int kRegistered = [] {
    for (const std::string& name : volume_names()) {
        add_volume(name);
    }
    return 0;
}();

}  // namespace
