#include "ip_volr/kernels/nibbles.h"

#if defined(__x86_64__)

#include <smmintrin.h>

namespace ip_volr::kernels {

namespace {

// Eight bytes in 16-bit lanes: of each pair, the first value in the low nibble, the second, which sits 8 bits up, in
// the high one.
__m128i packed_lanes(const std::uint8_t* values) {
    const __m128i pairs = _mm_loadu_si128(reinterpret_cast<const __m128i*>(values));
    return _mm_and_si128(_mm_or_si128(pairs, _mm_srli_epi16(pairs, 4)), _mm_set1_epi16(0x00FF));
}

void pack(const std::uint8_t* values, std::uint8_t* packed, int count) {
    int k = 0;
    for (; k + 16 <= count; k += 16) {
        const __m128i low = packed_lanes(values + 2 * k);
        const __m128i high = packed_lanes(values + 2 * k + 16);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(packed + k), _mm_packus_epi16(low, high));
    }
    for (; k < count; k++) {
        packed[k] = static_cast<std::uint8_t>(values[2 * k] | values[2 * k + 1] << 4);
    }
}

}  // namespace

void add_nibbles_sse41(NibbleKernels& table) {
    table.pack = pack;
}

}  // namespace ip_volr::kernels

#endif
