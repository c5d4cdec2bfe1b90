#include "ip_volr/kernels/reduce.h"

#if defined(__x86_64__)

#include <smmintrin.h>

namespace ip_volr::kernels {

namespace {

// Maxima of the 2 x 2 blocks over 8 columns, as four 32-bit lanes: each lane holds two columns, which are widened with
// their sign and compared.
__m128i block_maxima(const std::int16_t* row_a, const std::int16_t* row_b) {
    const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(row_a));
    const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(row_b));
    const __m128i columns = _mm_max_epi16(a, b);
    const __m128i even = _mm_srai_epi32(_mm_slli_epi32(columns, 16), 16);
    const __m128i odd = _mm_srai_epi32(columns, 16);
    return _mm_max_epi32(even, odd);
}

void maximum_2x2(const std::int16_t* row_a, const std::int16_t* row_b, std::int16_t* destination, int count) {
    int i = 0;
    for (; i + 8 <= count; i += 8) {
        const __m128i low = block_maxima(row_a + 2 * i, row_b + 2 * i);
        const __m128i high = block_maxima(row_a + 2 * i + 8, row_b + 2 * i + 8);
        // The saturation of the packing never acts: the lanes are in range.
        _mm_storeu_si128(reinterpret_cast<__m128i*>(destination + i), _mm_packs_epi32(low, high));
    }
    for (; i < count; i++) {
        const std::int16_t a = row_a[2 * i] > row_a[2 * i + 1] ? row_a[2 * i] : row_a[2 * i + 1];
        const std::int16_t b = row_b[2 * i] > row_b[2 * i + 1] ? row_b[2 * i] : row_b[2 * i + 1];
        destination[i] = a > b ? a : b;
    }
}

}  // namespace

void add_reduce_sse41(ReduceKernels& table) {
    table.maximum_2x2 = maximum_2x2;
}

}  // namespace ip_volr::kernels

#endif
