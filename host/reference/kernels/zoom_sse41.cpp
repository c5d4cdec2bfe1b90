// Rows of the zoom for SSE4.1: four pixels at once, neighbours loaded in pairs.
#include <smmintrin.h>
#include <stdint.h>

#include "host/reference/kernels/zoom_lanes.h"
#include "host/reference/kernels/zoom_rows.h"

namespace reference_host::zoom {

namespace {

struct Sse41Lanes {
    using Int = __m128i;
    using Float = __m128;
    static constexpr int kCount = 4;

    static Int set(int value) { return _mm_set1_epi32(value); }
    static Int add(Int a, Int b) { return _mm_add_epi32(a, b); }
    static Int sub(Int a, Int b) { return _mm_sub_epi32(a, b); }
    static Int mul_low(Int a, Int b) { return _mm_mullo_epi32(a, b); }
    template <int bits>
    static Int shift_left(Int a) {
        return _mm_slli_epi32(a, bits);
    }
    template <int bits>
    static Int shift_right(Int a) {
        return _mm_srli_epi32(a, bits);
    }
    template <int bits>
    static Int shift_right_signed(Int a) {
        return _mm_srai_epi32(a, bits);
    }

    static Float set(float value) { return _mm_set1_ps(value); }
    static Float to_float(Int a) { return _mm_cvtepi32_ps(a); }
    static Int round_down(Float a) { return _mm_cvttps_epi32(_mm_floor_ps(a)); }
    static Float add(Float a, Float b) { return _mm_add_ps(a, b); }
    static Float sub(Float a, Float b) { return _mm_sub_ps(a, b); }
    static Float mul(Float a, Float b) { return _mm_mul_ps(a, b); }

    // Pixels 0 1 and 2 3.
    static Int first_a(int64_t start, int64_t step) { return _mm_set_epi64x(start + step, start); }
    static Int first_b(int64_t start, int64_t step) { return _mm_set_epi64x(start + 3 * step, start + 2 * step); }
    static Int set_64(int64_t value) { return _mm_set1_epi64x(value); }
    static Int add_64(Int a, Int b) { return _mm_add_epi64(a, b); }
    static Int low_halves(Int a, Int b) { return choose<_MM_SHUFFLE(2, 0, 2, 0)>(a, b); }
    static Int high_halves(Int a, Int b) { return choose<_MM_SHUFFLE(3, 1, 3, 1)>(a, b); }
    template <int chosen>
    static Int choose(Int a, Int b) {
        return _mm_castps_si128(_mm_shuffle_ps(_mm_castsi128_ps(a), _mm_castsi128_ps(b), chosen));
    }

    static int load_pair(const int16_t* pixels) {
        int pair;
        __builtin_memcpy(&pair, pixels, sizeof pair);
        return pair;
    }
    // The pixels at the offsets, each with its right neighbour in the upper half.
    static Int load_pairs(const int16_t* pixels, Int offsets) {
        Int pairs = _mm_cvtsi32_si128(load_pair(pixels + _mm_cvtsi128_si32(offsets)));
        pairs = _mm_insert_epi32(pairs, load_pair(pixels + _mm_extract_epi32(offsets, 1)), 1);
        pairs = _mm_insert_epi32(pairs, load_pair(pixels + _mm_extract_epi32(offsets, 2)), 2);
        return _mm_insert_epi32(pairs, load_pair(pixels + _mm_extract_epi32(offsets, 3)), 3);
    }

    static __m128i pack(Int a) { return _mm_packs_epi32(a, a); }
    static __m128i load_group(const int16_t* pixels) {
        return _mm_loadl_epi64(reinterpret_cast<const __m128i*>(pixels));
    }
    static void store_group(int16_t* pixels, __m128i values) {
        _mm_storel_epi64(reinterpret_cast<__m128i*>(pixels), values);
    }
};

}  // namespace

const Kernels kSse41 = {LaneRows<Sse41Lanes>::over, LaneRows<Sse41Lanes>::max};

}  // namespace reference_host::zoom
