#include <immintrin.h>

#include "ip_volr/kernels/brick_gather_lanes.h"

namespace ip_volr::kernels {

namespace {

struct Avx2Lanes {
    static __m256i set(std::uint16_t flip) { return _mm256_set1_epi16(static_cast<short>(flip)); }

    // Interleaves eight voxels of two rows.
    static void interleave8(const std::uint16_t* low_row, const std::uint16_t* high_row, __m256i flip,
                            std::uint32_t* out) {
        const __m256i low = _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(low_row)));
        const __m256i high = _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(high_row)));
        const __m256i pairs = _mm256_xor_si256(_mm256_or_si256(low, _mm256_slli_epi32(high, 16)), flip);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), pairs);
    }
};

void unpack_row(const std::uint8_t* bytes, std::uint8_t* out) {
    const __m256i both = _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes)));
    const __m256i indices = _mm256_or_si256(both, _mm256_slli_epi16(both, 4));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), _mm256_and_si256(indices, _mm256_set1_epi8(15)));
}

}  // namespace

void fill_gather_avx2(GatherKernels& table) {
    table.interleave_plane = interleave_plane<Avx2Lanes>;
    table.unpack_row = unpack_row;
}

}  // namespace ip_volr::kernels
