#include <smmintrin.h>

#include "ip_volr/kernels/brick_gather.h"

namespace ip_volr::kernels {

namespace {

// Interleaves eight voxels of two rows.
inline void interleave8(const std::uint16_t* low_row, const std::uint16_t* high_row, __m128i flip, std::uint32_t* out) {
    const __m128i low = _mm_xor_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(low_row)), flip);
    const __m128i high = _mm_xor_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(high_row)), flip);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_unpacklo_epi16(low, high));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 4), _mm_unpackhi_epi16(low, high));
}

void interleave_plane(const std::uint16_t* const* rows, std::uint64_t wanted, std::uint16_t flip, std::uint32_t* out) {
    const __m128i flips = _mm_set1_epi16(static_cast<short>(flip));
    for (int r = 0; r < kPairRows; r++, out += kPairRow) {
        if ((wanted >> r & 1) == 0) {
            continue;
        }
        for (int x = 0; x < 32; x += 8) {
            interleave8(rows[r] + x, rows[r + 1] + x, flips, out + x);
        }
        // The last three voxels, with five that are written again.
        interleave8(rows[r] + 27, rows[r + 1] + 27, flips, out + 27);
    }
}

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
    table.interleave_plane = interleave_plane;
    table.unpack_row = unpack_row;
}

}  // namespace ip_volr::kernels
