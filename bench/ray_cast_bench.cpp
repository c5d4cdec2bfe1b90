// The ray caster's inner loop: samples per second in a brick, beside the rate of nothing but trilinear interpolation in
// the same brick, which bounds it.
#include <benchmark/benchmark.h>

#include "bench/limits.h"
#include "ip_volr/kernels/brick_gather.h"
#include "ip_volr/kernels/instruction_set.h"
#include "ip_volr/kernels/ray_cast.h"
#include "tests/kernels/ray_cast_scene.h"

namespace {

using namespace ray_cast_scene;

struct Case {
    const char* name;
    Voxels voxels;
    Opacity opacity;
    int opaque_byte;  // 0: as the table says
    bool shading;
    Weights weights;
    bool skipping = true;
};

// A surface that rays end at, one that nearly all rays cross, and a brick that is half transparent everywhere.
constexpr Case kCases[] = {
    {"empty", Voxels::Lowest, Opacity::None, 0, true, Weights::Uniform},
    {"clear", Voxels::Smooth, Opacity::None, 0, true, Weights::Uniform},
    {"clear_unskipped", Voxels::Smooth, Opacity::None, 0, true, Weights::Uniform, false},
    {"surface", Voxels::Blob, Opacity::Ramp, 0, true, Weights::Uniform},
    {"surface_unshaded", Voxels::Blob, Opacity::Ramp, 0, false, Weights::Uniform},
    {"fog", Voxels::Smooth, Opacity::Full, 3, false, Weights::Uniform},
    {"fog_tables", Voxels::Smooth, Opacity::Full, 3, false, Weights::Tables},
    {"fog_shaded", Voxels::Smooth, Opacity::Full, 40, true, Weights::Uniform},
};

// Parallel rays through every pixel of the brick's face, as a frame at one pixel a voxel sends them.
std::vector<_listRay> make_face_rays(const Scene& scene) {
    std::vector<_listRay> rays;
    for (int y = 0; y < 32; y++) {
        for (int x = 0; x < 32; x++) {
            _listRay ray{};
            ray.position[0] = static_cast<unsigned>(((scene.options.origin[0] + x) << 16) + 20000);
            ray.position[1] = static_cast<unsigned>(((scene.options.origin[1] + y) << 16) + 30000);
            ray.position[2] = static_cast<unsigned>(scene.options.origin[2] << 16);
            ray.end = 1 << 28;
            ray.transparency = 65535;
            rays.push_back(ray);
        }
    }
    return rays;
}

Options options_of(const Case& c, double step_vox) {
    Options o;
    o.voxels = c.voxels;
    o.opacity = c.opacity;
    o.shading = c.shading;
    o.weights = c.weights;
    o.direction = {0.12, -0.16, 0.98};
    o.step_vox = step_vox;
    o.num_rays = 0;
    o.bits = 12;
    return o;
}

void count_steps(benchmark::State& state, std::int64_t steps_of_iteration) {
    const double num_steps = static_cast<double>(steps_of_iteration) * static_cast<double>(state.iterations());
    state.counters["steps/s"] = benchmark::Counter(num_steps, benchmark::Counter::kIsRate);
}

void cast_brick(benchmark::State& state, const Case& c, InstructionSet set, double step_vox) {
    const ScopedInstructionSet limit(set);
    Scene scene(options_of(c, step_vox));
    if (c.opaque_byte != 0) {
        for (std::uint32_t& colour : scene.colours()) {
            colour = (colour & 0xffffff) | static_cast<std::uint32_t>(c.opaque_byte) << 24;
        }
        scene.make_entries();
    }
    scene.rays = make_face_rays(scene);
    std::vector<std::uint8_t> block(kWorkBlockBytes);
    std::vector<_listRay> rays = scene.rays;
    RayCastResult result;
    std::int64_t num_steps = 0;
    for (auto _ : state) {
        state.PauseTiming();
        rays = scene.rays;
        _listRay* const list = Scene::link(rays);
        state.ResumeTiming();
        process_brick(scene.frame, scene.brick(c.skipping ? scene.true_cache : scene.full_cache), block.data(), list,
                      result);
        benchmark::ClobberMemory();
    }
    for (std::size_t i = 0; i < rays.size(); i++) {
        num_steps += (rays[i].step_count - scene.rays[i].step_count) / scene.frame.step;
    }
    count_steps(state, num_steps);
}

// The limit: rays that do nothing but interpolate, everything in the first-level cache.
void trilinear_limit(benchmark::State& state, bool with_gradients) {
    if (detected_instruction_set() != InstructionSet::Avx2) {
        state.SkipWithError("needs AVX2");
        return;
    }
    for (auto _ : state) {
        volr_bench::take_trilinear_samples(with_gradients);
    }
    count_steps(state, 800);
}

void gather(benchmark::State& state, InstructionSet set) {
    const ScopedInstructionSet limit(set);
    const Scene scene(options_of(kCases[0], 0.3));
    GatherBlocks wanted{};
    wanted.planes = (std::uint64_t{1} << kGatherEdge) - 1;
    std::fill_n(&wanted.rows[0][0], kGatherEdge * kGatherBlocks, kAllPairRows);
    std::vector<std::uint32_t> pairs(kNumPairs);
    const GatherSource source = {{70, 67, 66}, {32, 32, 32}, scene.slices.data(), 0, 0x8000, true};
    for (auto _ : state) {
        gather_brick(source, wanted, pairs.data());
        benchmark::ClobberMemory();
    }
}

const int kRegistered = [] {
    benchmark::RegisterBenchmark("limit/trilinear", trilinear_limit, false);
    benchmark::RegisterBenchmark("limit/trilinear-with-gradients", trilinear_limit, true);
    for (const InstructionSet set : {InstructionSet::Scalar, InstructionSet::Sse41, InstructionSet::Avx2}) {
        const std::string suffix = std::string("/") + instruction_set_name(set);
        for (const Case& c : kCases) {
            benchmark::RegisterBenchmark(("kernel/ray-cast/" + std::string(c.name) + suffix).c_str(),
                                         [&c, set](benchmark::State& state) { cast_brick(state, c, set, 0.3); });
        }
        benchmark::RegisterBenchmark(("kernel/gather" + suffix).c_str(), gather, set);
    }
    return 0;
}();

}  // namespace
