#include "ip_volr/kernels/nibbles.h"

#if defined(__x86_64__)

#include <immintrin.h>

namespace ip_volr::kernels {

namespace {

// Sixteen bytes in 16-bit lanes (see the SSE4.1 version).
__m256i packed_lanes(const std::uint8_t* values) {
    const __m256i pairs = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(values));
    return _mm256_and_si256(_mm256_or_si256(pairs, _mm256_srli_epi16(pairs, 4)), _mm256_set1_epi16(0x00FF));
}

void pack(const std::uint8_t* values, std::uint8_t* packed, int count) {
    int k = 0;
    for (; k + 32 <= count; k += 32) {
        const __m256i low = packed_lanes(values + 2 * k);
        const __m256i high = packed_lanes(values + 2 * k + 32);
        // Packing works in halves: put the four quarters back into order.
        const __m256i bytes = _mm256_permute4x64_epi64(_mm256_packus_epi16(low, high), 0xD8);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(packed + k), bytes);
    }
    for (; k < count; k++) {
        packed[k] = static_cast<std::uint8_t>(values[2 * k] | values[2 * k + 1] << 4);
    }
}

}  // namespace

void add_nibbles_avx2(NibbleKernels& table) {
    table.pack = pack;
}

}  // namespace ip_volr::kernels

#endif
