// Rows of the zoom for AVX2: eight pixels at once, neighbours gathered in pairs.
#include <immintrin.h>
#include <stddef.h>
#include <stdint.h>

#include "host/reference/kernels/zoom_rows.h"

namespace reference_host::zoom {

namespace {

// Positions of eight pixels along one axis: pixels 0 1 4 5 and 2 3 6 7, so that one shuffle sorts their halves.
struct Positions {
    __m256i a;
    __m256i b;
};

Positions first_positions(int64_t start, int64_t step) {
    return {_mm256_setr_epi64x(start, start + step, start + 4 * step, start + 5 * step),
            _mm256_setr_epi64x(start + 2 * step, start + 3 * step, start + 6 * step, start + 7 * step)};
}

void advance(Positions& positions, __m256i eight_steps) {
    positions.a = _mm256_add_epi64(positions.a, eight_steps);
    positions.b = _mm256_add_epi64(positions.b, eight_steps);
}

__m256i whole_parts(const Positions& p) {
    return _mm256_castps_si256(
        _mm256_shuffle_ps(_mm256_castsi256_ps(p.a), _mm256_castsi256_ps(p.b), _MM_SHUFFLE(3, 1, 3, 1)));
}

__m256 fractions(const Positions& p) {
    const __m256i low = _mm256_castps_si256(
        _mm256_shuffle_ps(_mm256_castsi256_ps(p.a), _mm256_castsi256_ps(p.b), _MM_SHUFFLE(2, 0, 2, 0)));
    return _mm256_mul_ps(_mm256_cvtepi32_ps(_mm256_srli_epi32(low, 8)), _mm256_set1_ps(1.0F / 16777216.0F));
}

// left + (right - left) * f of pairs of 16-bit pixels, the left one in the lower half.
__m256 interpolate_pairs(__m256i pairs, __m256 f) {
    const __m256i left = _mm256_srai_epi32(_mm256_slli_epi32(pairs, 16), 16);
    const __m256i right = _mm256_srai_epi32(pairs, 16);
    const __m256 difference = _mm256_cvtepi32_ps(_mm256_sub_epi32(right, left));
    return _mm256_add_ps(_mm256_cvtepi32_ps(left), _mm256_mul_ps(difference, f));
}

// Eight values as 16-bit numbers in order.
__m128i interpolate_eight(const Run& run, const Positions& x, const Positions& y) {
    const __m256i width = _mm256_set1_epi32(run.src_width);
    const __m256i upper = _mm256_add_epi32(_mm256_mullo_epi32(whole_parts(y), width), whole_parts(x));
    const int* const base = reinterpret_cast<const int*>(run.src);
    const __m256 fx = fractions(x);
    const __m256 top = interpolate_pairs(_mm256_i32gather_epi32(base, upper, 2), fx);
    const __m256 bottom = interpolate_pairs(_mm256_i32gather_epi32(base, _mm256_add_epi32(upper, width), 2), fx);

    const __m256 value = _mm256_add_ps(top, _mm256_mul_ps(_mm256_sub_ps(bottom, top), fractions(y)));
    const __m256i whole = _mm256_cvttps_epi32(_mm256_floor_ps(_mm256_add_ps(value, _mm256_set1_ps(0.5F))));
    return _mm_packs_epi32(_mm256_castsi256_si128(whole), _mm256_extracti128_si256(whole, 1));
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

void over_avx2(const Run& run, int16_t floor_value) {
    // The steps of a shorter run may be too long for the vectors' positions.
    if (run.count < 8) {
        kScalar.over(run, floor_value);
        return;
    }
    Positions x = first_positions(run.x, run.step_x);
    Positions y = first_positions(run.y, run.step_y);
    const __m256i eight_x = _mm256_set1_epi64x(8 * run.step_x);
    const __m256i eight_y = _mm256_set1_epi64x(8 * run.step_y);
    const __m128i least = _mm_set1_epi16(floor_value);
    int32_t i = 0;
    for (; i + 8 <= run.count; i += 8) {
        const __m128i values = interpolate_eight(run, x, y);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(run.dst + i), _mm_max_epi16(values, least));
        advance(x, eight_x);
        advance(y, eight_y);
    }
    kScalar.over(rest_of(run, i), floor_value);
}

void max_avx2(const Run& run) {
    // The steps of a shorter run may be too long for the vectors' positions.
    if (run.count < 8) {
        kScalar.max(run);
        return;
    }
    Positions x = first_positions(run.x, run.step_x);
    Positions y = first_positions(run.y, run.step_y);
    const __m256i eight_x = _mm256_set1_epi64x(8 * run.step_x);
    const __m256i eight_y = _mm256_set1_epi64x(8 * run.step_y);
    int32_t i = 0;
    for (; i + 8 <= run.count; i += 8) {
        __m128i* const dst = reinterpret_cast<__m128i*>(run.dst + i);
        _mm_storeu_si128(dst, _mm_max_epi16(interpolate_eight(run, x, y), _mm_loadu_si128(dst)));
        advance(x, eight_x);
        advance(y, eight_y);
    }
    kScalar.max(rest_of(run, i));
}

}  // namespace

const Kernels kAvx2 = {over_avx2, max_avx2};

}  // namespace reference_host::zoom
