#include "ip_volr/kernels/transpose.h"

#if defined(__x86_64__)

#include <smmintrin.h>

#include <cstddef>

namespace ip_volr::kernels {

namespace {

// Transposes 8 x 8 elements of 16 bits: three rounds that interleave rows 4, 2 and 1 apart.
void transpose_block_16(const std::uint16_t* source, std::uint16_t* destination, std::ptrdiff_t source_stride,
                        std::ptrdiff_t destination_stride) {
    __m128i row[8];
    for (int i = 0; i < 8; i++) {
        row[i] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(source + i * source_stride));
    }
    for (int round = 0; round < 3; round++) {
        __m128i next[8];
        for (int i = 0; i < 4; i++) {
            next[2 * i] = _mm_unpacklo_epi16(row[i], row[i + 4]);
            next[2 * i + 1] = _mm_unpackhi_epi16(row[i], row[i + 4]);
        }
        for (int i = 0; i < 8; i++) {
            row[i] = next[i];
        }
    }
    for (int i = 0; i < 8; i++) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(destination + i * destination_stride), row[i]);
    }
}

// The same for 4 x 4 elements of 32 bits, in two rounds.
void transpose_block_32(const std::uint32_t* source, std::uint32_t* destination, std::ptrdiff_t source_stride,
                        std::ptrdiff_t destination_stride) {
    __m128i row[4];
    for (int i = 0; i < 4; i++) {
        row[i] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(source + i * source_stride));
    }
    for (int round = 0; round < 2; round++) {
        const __m128i next[4] = {_mm_unpacklo_epi32(row[0], row[2]), _mm_unpackhi_epi32(row[0], row[2]),
                                 _mm_unpacklo_epi32(row[1], row[3]), _mm_unpackhi_epi32(row[1], row[3])};
        for (int i = 0; i < 4; i++) {
            row[i] = next[i];
        }
    }
    for (int i = 0; i < 4; i++) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(destination + i * destination_stride), row[i]);
    }
}

template <class Element>
void transpose_elements(const Element* source, Element* destination, int x0, int x1, int y0, int y1, int source_stride,
                        int destination_stride) {
    for (int x = x0; x < x1; x++) {
        for (int y = y0; y < y1; y++) {
            destination[static_cast<std::ptrdiff_t>(x) * destination_stride + y] =
                source[static_cast<std::ptrdiff_t>(y) * source_stride + x];
        }
    }
}

// Tiles of one cache line by as many lines (see the scalar twin), in blocks of kBlock; what is left at the right and at
// the bottom goes element by element.
template <class Element, int kBlock, void (*block)(const Element*, Element*, std::ptrdiff_t, std::ptrdiff_t)>
void transpose_tiled(const Element* source, Element* destination, int columns, int rows, int source_stride,
                     int destination_stride) {
    constexpr int kTile = static_cast<int>(64 / sizeof(Element));
    const int x_end = columns - columns % kBlock;
    const int y_end = rows - rows % kBlock;
    for (int y0 = 0; y0 < y_end; y0 += kTile) {
        const int y1 = y0 + kTile < y_end ? y0 + kTile : y_end;
        for (int x0 = 0; x0 < x_end; x0 += kTile) {
            const int x1 = x0 + kTile < x_end ? x0 + kTile : x_end;
            for (int x = x0; x < x1; x += kBlock) {
                for (int y = y0; y < y1; y += kBlock) {
                    block(source + static_cast<std::ptrdiff_t>(y) * source_stride + x,
                          destination + static_cast<std::ptrdiff_t>(x) * destination_stride + y, source_stride,
                          destination_stride);
                }
            }
        }
    }
    transpose_elements(source, destination, x_end, columns, 0, y_end, source_stride, destination_stride);
    transpose_elements(source, destination, 0, columns, y_end, rows, source_stride, destination_stride);
}

}  // namespace

void add_transpose_sse41(TransposeKernels& table) {
    table.transpose_16 = transpose_tiled<std::uint16_t, 8, transpose_block_16>;
    table.transpose_32 = transpose_tiled<std::uint32_t, 4, transpose_block_32>;
}

}  // namespace ip_volr::kernels

#endif
