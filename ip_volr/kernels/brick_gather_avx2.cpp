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

void interleave_plane(const std::uint16_t* const* rows, std::uint64_t wanted, std::uint16_t flip, std::uint32_t* out) {
    const __m256i flips = _mm256_set1_epi16(static_cast<short>(flip));
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
