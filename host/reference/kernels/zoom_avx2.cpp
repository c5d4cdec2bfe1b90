// Rows of the zoom for AVX2: eight pixels at once, neighbours gathered in pairs.
#include <immintrin.h>
#include <stdint.h>

#include "host/reference/kernels/zoom_lanes.h"
#include "host/reference/kernels/zoom_rows.h"

namespace reference_host::zoom {

namespace {

struct Avx2Lanes {
    using Int = __m256i;
    using Float = __m256;
    static constexpr int kCount = 8;

    static Int set(int value) { return _mm256_set1_epi32(value); }
    static Int add(Int a, Int b) { return _mm256_add_epi32(a, b); }
    static Int sub(Int a, Int b) { return _mm256_sub_epi32(a, b); }
    static Int mul_low(Int a, Int b) { return _mm256_mullo_epi32(a, b); }
    template <int bits>
    static Int shift_left(Int a) {
        return _mm256_slli_epi32(a, bits);
    }
    template <int bits>
    static Int shift_right(Int a) {
        return _mm256_srli_epi32(a, bits);
    }
    template <int bits>
    static Int shift_right_signed(Int a) {
        return _mm256_srai_epi32(a, bits);
    }

    static Float set(float value) { return _mm256_set1_ps(value); }
    static Float to_float(Int a) { return _mm256_cvtepi32_ps(a); }
    static Int round_down(Float a) { return _mm256_cvttps_epi32(_mm256_floor_ps(a)); }
    static Float add(Float a, Float b) { return _mm256_add_ps(a, b); }
    static Float sub(Float a, Float b) { return _mm256_sub_ps(a, b); }
    static Float mul(Float a, Float b) { return _mm256_mul_ps(a, b); }

    // Pixels 0 1 4 5 and 2 3 6 7.
    static Int first_a(int64_t start, int64_t step) {
        return _mm256_setr_epi64x(start, start + step, start + 4 * step, start + 5 * step);
    }
    static Int first_b(int64_t start, int64_t step) {
        return _mm256_setr_epi64x(start + 2 * step, start + 3 * step, start + 6 * step, start + 7 * step);
    }
    static Int set_64(int64_t value) { return _mm256_set1_epi64x(value); }
    static Int add_64(Int a, Int b) { return _mm256_add_epi64(a, b); }
    static Int low_halves(Int a, Int b) { return choose<_MM_SHUFFLE(2, 0, 2, 0)>(a, b); }
    static Int high_halves(Int a, Int b) { return choose<_MM_SHUFFLE(3, 1, 3, 1)>(a, b); }
    template <int chosen>
    static Int choose(Int a, Int b) {
        return _mm256_castps_si256(_mm256_shuffle_ps(_mm256_castsi256_ps(a), _mm256_castsi256_ps(b), chosen));
    }

    // The pixels at the offsets, each with its right neighbour in the upper half.
    static Int load_pairs(const int16_t* pixels, Int offsets) {
        return _mm256_i32gather_epi32(reinterpret_cast<const int*>(pixels), offsets, 2);
    }

    static __m128i pack(Int a) { return _mm_packs_epi32(_mm256_castsi256_si128(a), _mm256_extracti128_si256(a, 1)); }
    static __m128i load_group(const int16_t* pixels) {
        return _mm_loadu_si128(reinterpret_cast<const __m128i*>(pixels));
    }
    static void store_group(int16_t* pixels, __m128i values) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(pixels), values);
    }
};

}  // namespace

const Kernels kAvx2 = {LaneRows<Avx2Lanes>::over, LaneRows<Avx2Lanes>::max};

}  // namespace reference_host::zoom
