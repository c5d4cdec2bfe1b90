#include "ip_volr/kernels/reduce.h"

#if defined(__x86_64__)

#include <immintrin.h>

namespace ip_volr::kernels {

namespace {

// Maxima of the 2 x 2 blocks over 16 columns, as eight 32-bit lanes (see the SSE4.1 version).
__m256i block_maxima(const std::int16_t* row_a, const std::int16_t* row_b) {
    const __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(row_a));
    const __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(row_b));
    const __m256i columns = _mm256_max_epi16(a, b);
    const __m256i even = _mm256_srai_epi32(_mm256_slli_epi32(columns, 16), 16);
    const __m256i odd = _mm256_srai_epi32(columns, 16);
    return _mm256_max_epi32(even, odd);
}

void maximum_2x2(const std::int16_t* row_a, const std::int16_t* row_b, std::int16_t* destination, int count) {
    int i = 0;
    for (; i + 16 <= count; i += 16) {
        const __m256i low = block_maxima(row_a + 2 * i, row_b + 2 * i);
        const __m256i high = block_maxima(row_a + 2 * i + 16, row_b + 2 * i + 16);
        // Packing works in halves: put the four quarters back into order.
        const __m256i packed = _mm256_permute4x64_epi64(_mm256_packs_epi32(low, high), 0xD8);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(destination + i), packed);
    }
    for (; i < count; i++) {
        const std::int16_t a = row_a[2 * i] > row_a[2 * i + 1] ? row_a[2 * i] : row_a[2 * i + 1];
        const std::int16_t b = row_b[2 * i] > row_b[2 * i + 1] ? row_b[2 * i] : row_b[2 * i + 1];
        destination[i] = a > b ? a : b;
    }
}

}  // namespace

void add_reduce_avx2(ReduceKernels& table) {
    table.maximum_2x2 = maximum_2x2;
}

}  // namespace ip_volr::kernels

#endif
