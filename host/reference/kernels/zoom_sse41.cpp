// Rows of the zoom for SSE4.1: four pixels at once, neighbours loaded in pairs.
#include <smmintrin.h>
#include <stddef.h>
#include <stdint.h>

#include "host/reference/kernels/zoom_rows.h"

namespace reference_host::zoom {

namespace {

// Positions of four pixels along one axis: 0 1 and 2 3.
struct Positions {
    __m128i a;
    __m128i b;
};

Positions first_positions(int64_t start, int64_t step) {
    return {_mm_set_epi64x(start + step, start), _mm_set_epi64x(start + 3 * step, start + 2 * step)};
}

void advance(Positions& positions, __m128i four_steps) {
    positions.a = _mm_add_epi64(positions.a, four_steps);
    positions.b = _mm_add_epi64(positions.b, four_steps);
}

__m128i whole_parts(const Positions& p) {
    return _mm_castps_si128(_mm_shuffle_ps(_mm_castsi128_ps(p.a), _mm_castsi128_ps(p.b), _MM_SHUFFLE(3, 1, 3, 1)));
}

__m128 fractions(const Positions& p) {
    const __m128i low =
        _mm_castps_si128(_mm_shuffle_ps(_mm_castsi128_ps(p.a), _mm_castsi128_ps(p.b), _MM_SHUFFLE(2, 0, 2, 0)));
    return _mm_mul_ps(_mm_cvtepi32_ps(_mm_srli_epi32(low, 8)), _mm_set1_ps(1.0F / 16777216.0F));
}

int load_pair(const int16_t* pixels) {
    int pair;
    __builtin_memcpy(&pair, pixels, sizeof pair);
    return pair;
}

// The pixels at four offsets, each with its right neighbour in the upper half.
__m128i load_pairs(const int16_t* pixels, __m128i offsets) {
    __m128i pairs = _mm_cvtsi32_si128(load_pair(pixels + _mm_cvtsi128_si32(offsets)));
    pairs = _mm_insert_epi32(pairs, load_pair(pixels + _mm_extract_epi32(offsets, 1)), 1);
    pairs = _mm_insert_epi32(pairs, load_pair(pixels + _mm_extract_epi32(offsets, 2)), 2);
    return _mm_insert_epi32(pairs, load_pair(pixels + _mm_extract_epi32(offsets, 3)), 3);
}

// left + (right - left) * f of pairs of 16-bit pixels, the left one in the lower half.
__m128 interpolate_pairs(__m128i pairs, __m128 f) {
    const __m128i left = _mm_srai_epi32(_mm_slli_epi32(pairs, 16), 16);
    const __m128i right = _mm_srai_epi32(pairs, 16);
    const __m128 difference = _mm_cvtepi32_ps(_mm_sub_epi32(right, left));
    return _mm_add_ps(_mm_cvtepi32_ps(left), _mm_mul_ps(difference, f));
}

// Four values as 16-bit numbers in the lower half.
__m128i interpolate_four(const Run& run, const Positions& x, const Positions& y) {
    const __m128i upper = _mm_add_epi32(_mm_mullo_epi32(whole_parts(y), _mm_set1_epi32(run.src_width)), whole_parts(x));
    const __m128 fx = fractions(x);
    const __m128 top = interpolate_pairs(load_pairs(run.src, upper), fx);
    const __m128 bottom = interpolate_pairs(load_pairs(run.src + run.src_width, upper), fx);

    const __m128 value = _mm_add_ps(top, _mm_mul_ps(_mm_sub_ps(bottom, top), fractions(y)));
    const __m128i whole = _mm_cvttps_epi32(_mm_floor_ps(_mm_add_ps(value, _mm_set1_ps(0.5F))));
    return _mm_packs_epi32(whole, whole);
}

// The rest of a run after its first `done` pixels.
Run rest_of(const Run& run, int32_t done) {
    Run rest = run;
    rest.dst += done;
    rest.count -= done;
    rest.x += done * run.step_x;
    rest.y += done * run.step_y;
    return rest;
}

void over_sse41(const Run& run, int16_t floor_value) {
    // The steps of a shorter run may be too long for the vectors' positions.
    if (run.count < 4) {
        kScalar.over(run, floor_value);
        return;
    }
    Positions x = first_positions(run.x, run.step_x);
    Positions y = first_positions(run.y, run.step_y);
    const __m128i four_x = _mm_set1_epi64x(4 * run.step_x);
    const __m128i four_y = _mm_set1_epi64x(4 * run.step_y);
    const __m128i least = _mm_set1_epi16(floor_value);
    int32_t i = 0;
    for (; i + 4 <= run.count; i += 4) {
        const __m128i values = interpolate_four(run, x, y);
        _mm_storel_epi64(reinterpret_cast<__m128i*>(run.dst + i), _mm_max_epi16(values, least));
        advance(x, four_x);
        advance(y, four_y);
    }
    kScalar.over(rest_of(run, i), floor_value);
}

void max_sse41(const Run& run) {
    // The steps of a shorter run may be too long for the vectors' positions.
    if (run.count < 4) {
        kScalar.max(run);
        return;
    }
    Positions x = first_positions(run.x, run.step_x);
    Positions y = first_positions(run.y, run.step_y);
    const __m128i four_x = _mm_set1_epi64x(4 * run.step_x);
    const __m128i four_y = _mm_set1_epi64x(4 * run.step_y);
    int32_t i = 0;
    for (; i + 4 <= run.count; i += 4) {
        __m128i* const dst = reinterpret_cast<__m128i*>(run.dst + i);
        _mm_storel_epi64(dst, _mm_max_epi16(interpolate_four(run, x, y), _mm_loadl_epi64(dst)));
        advance(x, four_x);
        advance(y, four_y);
    }
    kScalar.max(rest_of(run, i));
}

}  // namespace

const Kernels kSse41 = {over_sse41, max_sse41};

}  // namespace reference_host::zoom
