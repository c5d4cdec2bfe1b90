#include "ip_volr/kernels/transpose.h"

#if defined(__x86_64__)

#include <immintrin.h>

#include <cstddef>

namespace ip_volr::kernels {

namespace {

// Transposes 16 rows of 8 elements: rows 0 to 7 in the low halves of the registers, rows 8 to 15 in the high ones, so
// that each result is one run of 16 elements. Three rounds interleave rows 4, 2 and 1 apart.
void transpose_block(const std::uint16_t* source, std::uint16_t* destination, std::ptrdiff_t source_stride,
                     std::ptrdiff_t destination_stride) {
    __m256i row[8];
    for (int i = 0; i < 8; i++) {
        const __m128i low = _mm_loadu_si128(reinterpret_cast<const __m128i*>(source + i * source_stride));
        const __m128i high = _mm_loadu_si128(reinterpret_cast<const __m128i*>(source + (i + 8) * source_stride));
        row[i] = _mm256_inserti128_si256(_mm256_castsi128_si256(low), high, 1);
    }
    for (int round = 0; round < 3; round++) {
        __m256i next[8];
        for (int i = 0; i < 4; i++) {
            next[2 * i] = _mm256_unpacklo_epi16(row[i], row[i + 4]);
            next[2 * i + 1] = _mm256_unpackhi_epi16(row[i], row[i + 4]);
        }
        for (int i = 0; i < 8; i++) {
            row[i] = next[i];
        }
    }
    for (int i = 0; i < 8; i++) {
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(destination + i * destination_stride), row[i]);
    }
}

void transpose_elements(const std::uint16_t* source, std::uint16_t* destination, int x0, int x1, int y0, int y1,
                        int source_stride, int destination_stride) {
    for (int x = x0; x < x1; x++) {
        for (int y = y0; y < y1; y++) {
            destination[static_cast<std::ptrdiff_t>(x) * destination_stride + y] =
                source[static_cast<std::ptrdiff_t>(y) * source_stride + x];
        }
    }
}

// Tiles of 32 x 32 elements: one cache line by as many lines (see the scalar twin).
void transpose_16(const std::uint16_t* source, std::uint16_t* destination, int columns, int rows, int source_stride,
                  int destination_stride) {
    constexpr int kTile = 32;
    const int x_end = columns - columns % 8;
    const int y_end = rows - rows % 16;
    for (int y0 = 0; y0 < y_end; y0 += kTile) {
        const int y1 = y0 + kTile < y_end ? y0 + kTile : y_end;
        for (int x0 = 0; x0 < x_end; x0 += kTile) {
            const int x1 = x0 + kTile < x_end ? x0 + kTile : x_end;
            for (int x = x0; x < x1; x += 8) {
                for (int y = y0; y < y1; y += 16) {
                    transpose_block(source + static_cast<std::ptrdiff_t>(y) * source_stride + x,
                                    destination + static_cast<std::ptrdiff_t>(x) * destination_stride + y,
                                    source_stride, destination_stride);
                }
            }
        }
    }
    transpose_elements(source, destination, x_end, columns, 0, y_end, source_stride, destination_stride);
    transpose_elements(source, destination, 0, columns, y_end, rows, source_stride, destination_stride);
}

}  // namespace

void add_transpose_avx2(TransposeKernels& table) {
    table.transpose_16 = transpose_16;
}

}  // namespace ip_volr::kernels

#endif
