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

void interleave_plane(const std::uint16_t* const* rows, const std::uint64_t (&wanted)[kGatherBlocks], bool has_margin,
                      std::uint16_t flip, std::uint32_t* out) {
    const __m128i flips = _mm_set1_epi16(static_cast<short>(flip));
    const int first = gather_block_start(0, has_margin);
    constexpr int kLast = gather_block_start(kGatherBlocks - 1, true);
    const std::uint64_t whole_rows = wanted[0] & wanted[1] & wanted[2] & wanted[3] & wanted[4];
    for (std::uint64_t left = wanted[0] | wanted[1] | wanted[2] | wanted[3] | wanted[4]; left != 0; left &= left - 1) {
        const int r = __builtin_ctzll(left);
        const std::uint16_t* const low = rows[r];
        const std::uint16_t* const high = rows[r + 1];
        std::uint32_t* const row = out + r * kPairRow;
        const bool is_whole = (whole_rows >> r & 1) != 0;
        for (int block = 0, x = first; block < kGatherBlocks - 1; block++, x += kGatherBlock) {
            if (is_whole || (wanted[block] >> r & 1) != 0) {
                interleave8(low + x, high + x, flips, row + x);
            }
        }
        if (is_whole || (wanted[kGatherBlocks - 1] >> r & 1) != 0) {
            interleave8(low + kLast, high + kLast, flips, row + kLast);
        }
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
