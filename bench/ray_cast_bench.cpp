// The ray caster's inner loop: samples per second in a brick, beside the rate of nothing but trilinear interpolation in
// the same brick, which bounds it.
#include <benchmark/benchmark.h>
#include <immintrin.h>

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

// The limit: eight neighbouring rays that do nothing but interpolate, everything in the first-level cache.
__attribute__((target("avx2"))) __m256i interpolate_8(const std::uint32_t* pairs, __m256i x, __m256i y, __m256i z) {
    const __m256i low_bits = _mm256_set1_epi32(0xffff);
    const __m256i yz = _mm256_or_si256(_mm256_srli_epi32(y, 16), _mm256_andnot_si256(low_bits, z));
    const __m256i index = _mm256_add_epi32(_mm256_madd_epi16(yz, _mm256_set1_epi32(kPairPlane << 16 | kPairRow)),
                                           _mm256_srli_epi32(x, 16));
    const __m256i f = _mm256_srli_epi32(_mm256_and_si256(y, low_bits), 2);
    const __m256i weight_y = _mm256_add_epi32(_mm256_slli_epi32(f, 16), _mm256_sub_epi32(_mm256_set1_epi32(16384), f));
    const __m256 unit = _mm256_set1_ps(1.0f / 65536.0f);
    const __m256 fx = _mm256_mul_ps(_mm256_cvtepi32_ps(_mm256_and_si256(x, low_bits)), unit);
    const __m256 fz = _mm256_mul_ps(_mm256_cvtepi32_ps(_mm256_and_si256(z, low_bits)), unit);
    alignas(32) std::uint32_t lanes[8];
    _mm256_store_si256(reinterpret_cast<__m256i*>(lanes), index);
    __m256 faces[2];
    for (int face = 0; face < 2; face++, pairs += kPairPlane) {
        __m128i two[4];
        for (int i = 0; i < 4; i++) {
            two[i] = _mm_unpacklo_epi64(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(pairs + lanes[2 * i])),
                                        _mm_loadl_epi64(reinterpret_cast<const __m128i*>(pairs + lanes[2 * i + 1])));
        }
        const __m256 a = _mm256_castsi256_ps(_mm256_set_m128i(two[2], two[0]));
        const __m256 b = _mm256_castsi256_ps(_mm256_set_m128i(two[3], two[1]));
        const __m256i first = _mm256_madd_epi16(_mm256_castps_si256(_mm256_shuffle_ps(a, b, 0x88)), weight_y);
        const __m256i second = _mm256_madd_epi16(_mm256_castps_si256(_mm256_shuffle_ps(a, b, 0xdd)), weight_y);
        const __m256 v = _mm256_cvtepi32_ps(first);
        faces[face] = _mm256_add_ps(v, _mm256_mul_ps(fx, _mm256_sub_ps(_mm256_cvtepi32_ps(second), v)));
    }
    const __m256 value = _mm256_add_ps(faces[0], _mm256_mul_ps(fz, _mm256_sub_ps(faces[1], faces[0])));
    return _mm256_cvtps_epi32(_mm256_mul_ps(value, _mm256_set1_ps(1.0f / 16384.0f)));
}

__attribute__((target("avx2"))) void trilinear_limit(benchmark::State& state) {
    if (detected_instruction_set() != InstructionSet::Avx2) {
        state.SkipWithError("needs AVX2");
        return;
    }
    const std::vector<std::uint32_t> pairs(kNumPairs, 0x12345678u);
    const __m256i step_x = _mm256_set1_epi32(2359), step_y = _mm256_set1_epi32(-3145),
                  step_z = _mm256_set1_epi32(19267);
    for (auto _ : state) {
        __m256i x = _mm256_setr_epi32(0, 1 << 16, 2 << 16, 3 << 16, 4 << 16, 5 << 16, 6 << 16, 7 << 16);
        __m256i y = _mm256_set1_epi32(20 << 16), z = _mm256_setzero_si256(), sum = _mm256_setzero_si256();
        for (int k = 0; k < 100; k++) {
            sum = _mm256_add_epi32(sum, interpolate_8(pairs.data() + kPairOrigin, x, y, z));
            x = _mm256_add_epi32(x, step_x);
            y = _mm256_add_epi32(y, step_y);
            z = _mm256_add_epi32(z, step_z);
        }
        benchmark::DoNotOptimize(sum);
    }
    count_steps(state, 800);
}

void gather(benchmark::State& state, InstructionSet set) {
    const ScopedInstructionSet limit(set);
    const Scene scene(options_of(kCases[0], 0.3));
    GatherRows wanted{};
    std::fill_n(wanted.rows, kGatherEdge, kAllPairRows);
    std::vector<std::uint32_t> pairs(kNumPairs);
    const GatherSource source = {{70, 67, 66}, {32, 32, 32}, scene.slices.data(), 0, 0x8000};
    for (auto _ : state) {
        gather_brick(source, wanted, pairs.data());
        benchmark::ClobberMemory();
    }
}

const int kRegistered = [] {
    benchmark::RegisterBenchmark("trilinear_limit", trilinear_limit);
    for (const InstructionSet set : {InstructionSet::Scalar, InstructionSet::Sse41, InstructionSet::Avx2}) {
        const std::string suffix = std::string("/") + instruction_set_name(set);
        for (const Case& c : kCases) {
            benchmark::RegisterBenchmark(("ray_cast_brick/" + std::string(c.name) + suffix).c_str(),
                                         [&c, set](benchmark::State& state) { cast_brick(state, c, set, 0.3); });
        }
        benchmark::RegisterBenchmark(("ray_cast_gather" + suffix).c_str(), gather, set);
    }
    return 0;
}();

}  // namespace
