#include <immintrin.h>

#include "ip_volr/kernels/brick_gather.h"

namespace ip_volr::kernels {

namespace {

// Interleaves eight voxels of two rows.
inline void interleave8(const std::uint16_t* low_row, const std::uint16_t* high_row, __m256i flip, std::uint32_t* out) {
    const __m256i low = _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(low_row)));
    const __m256i high = _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(high_row)));
    const __m256i pairs = _mm256_xor_si256(_mm256_or_si256(low, _mm256_slli_epi32(high, 16)), flip);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), pairs);
}

void interleave_plane(const std::uint16_t* const* rows, const std::uint64_t (&wanted)[kGatherBlocks], bool has_margin,
                      std::uint16_t flip, std::uint32_t* out) {
    const __m256i flips = _mm256_set1_epi16(static_cast<short>(flip));
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
    const __m256i both = _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes)));
    const __m256i indices = _mm256_or_si256(both, _mm256_slli_epi16(both, 4));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), _mm256_and_si256(indices, _mm256_set1_epi8(15)));
}

}  // namespace

void fill_gather_avx2(GatherKernels& table) {
    table.interleave_plane = interleave_plane;
    table.unpack_row = unpack_row;
}

}  // namespace ip_volr::kernels
