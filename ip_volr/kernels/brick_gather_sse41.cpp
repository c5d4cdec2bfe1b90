#include <smmintrin.h>

#include "ip_volr/kernels/brick_gather_lanes.h"

namespace ip_volr::kernels {

namespace {

struct Sse41Lanes {
    static __m128i set(std::uint16_t flip) { return _mm_set1_epi16(static_cast<short>(flip)); }

    // Interleaves eight voxels of two rows.
    static void interleave8(const std::uint16_t* low_row, const std::uint16_t* high_row, __m128i flip,
                            std::uint32_t* out) {
        const __m128i low = _mm_xor_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(low_row)), flip);
        const __m128i high = _mm_xor_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(high_row)), flip);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_unpacklo_epi16(low, high));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 4), _mm_unpackhi_epi16(low, high));
    }
};

void unpack_row(const std::uint8_t* bytes, std::uint8_t* out) {
    const __m128i nibble = _mm_set1_epi8(15);
    const __m128i both = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes));
    const __m128i low = _mm_and_si128(both, nibble);
    const __m128i high = _mm_and_si128(_mm_srli_epi16(both, 4), nibble);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_unpacklo_epi8(low, high));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 16), _mm_unpackhi_epi8(low, high));
}

}  // namespace

void fill_gather_sse41(GatherKernels& table) {
    table.interleave_plane = interleave_plane<Sse41Lanes>;
    table.unpack_row = unpack_row;
}

}  // namespace ip_volr::kernels
