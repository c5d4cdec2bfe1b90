// SSE4.1 kernels of the maximum-intensity projection: eight pixels at a time.
#include "ip_volr/kernels/lanes_sse41.h"
#include "ip_volr/kernels/mip_lanes.h"

namespace ip_volr::kernels {

namespace {

constexpr std::size_t kBand = 32;  // pixels of one cache line

// Transposes a tile of 8 x 8 pixels in three rounds of interleaving.
void transpose_tile(std::int16_t* dst, std::size_t dst_stride, const std::int16_t* src, std::size_t src_stride) {
    __m128i r[8];
    for (std::size_t k = 0; k < 8; k++) {
        r[k] = Sse41Lanes::load(src + k * src_stride);
    }
    __m128i a[8];
    for (std::size_t k = 0; k < 4; k++) {
        a[2 * k] = Sse41Lanes::low_words(r[2 * k], r[2 * k + 1]);
        a[2 * k + 1] = Sse41Lanes::high_words(r[2 * k], r[2 * k + 1]);
    }
    __m128i b[8];
    for (std::size_t k = 0; k < 2; k++) {
        b[4 * k] = Sse41Lanes::low_lanes(a[4 * k], a[4 * k + 2]);
        b[4 * k + 1] = Sse41Lanes::high_lanes(a[4 * k], a[4 * k + 2]);
        b[4 * k + 2] = Sse41Lanes::low_lanes(a[4 * k + 1], a[4 * k + 3]);
        b[4 * k + 3] = Sse41Lanes::high_lanes(a[4 * k + 1], a[4 * k + 3]);
    }
    for (std::size_t k = 0; k < 4; k++) {
        Sse41Lanes::store(dst + 2 * k * dst_stride, _mm_unpacklo_epi64(b[k], b[k + 4]));
        Sse41Lanes::store(dst + (2 * k + 1) * dst_stride, _mm_unpackhi_epi64(b[k], b[k + 4]));
    }
}

// Transposes 32 source rows: every line of the destination that they reach is written whole, while the source lines
// stay in the first cache. Meanwhile the next 32 rows are called in, line after line.
void transpose_band(std::int16_t* dst, std::size_t dst_stride, const std::int16_t* src, std::size_t src_stride,
                    std::size_t rows, const std::int16_t* next) {
    std::size_t next_column = 0;
    for (std::size_t y = 0; y < rows; y += 8) {
        for (int line = 0; next != nullptr && line < 8; line++) {
            _mm_prefetch(reinterpret_cast<const char*>(next + next_column), _MM_HINT_T1);
            next_column += kBand;
            if (next_column >= rows) {
                next_column = 0;
                next += src_stride;
            }
        }
        for (std::size_t x = 0; x < kBand; x += 8) {
            transpose_tile(dst + y * dst_stride + x, dst_stride, src + x * src_stride + y, src_stride);
        }
    }
}

[[gnu::nonnull(1, 3)]] void transpose(std::int16_t* dst, std::size_t dst_stride, const std::int16_t* src,
                                      std::size_t src_stride, std::size_t columns, std::size_t rows,
                                      const std::int16_t* next) {
    const std::size_t full_rows = rows - rows % 8;
    std::size_t x = 0;
    for (; x + kBand <= columns; x += kBand) {
        const std::int16_t* const band = src + x * src_stride;
        const bool is_last = x + 2 * kBand > columns;
        transpose_band(dst + x, dst_stride, band, src_stride, full_rows, is_last ? next : band + kBand * src_stride);
    }
    for (; x + 8 <= columns; x += 8) {
        for (std::size_t y = 0; y < full_rows; y += 8) {
            transpose_tile(dst + y * dst_stride + x, dst_stride, src + x * src_stride + y, src_stride);
        }
    }
    mip_scalar::transpose(dst + x, dst_stride, src + x * src_stride, src_stride, columns - x, full_rows);
    mip_scalar::transpose(dst + full_rows * dst_stride, dst_stride, src + full_rows, src_stride, columns,
                          rows - full_rows);
}

}  // namespace

void add_mip_sse41(MipKernels& table) {
    using Rows = MipLanes<Sse41Lanes>;
    table = {Rows::fill, Rows::max_row, Rows::max_row_weighted, Rows::bilinear<true>, Rows::bilinear<false>, transpose};
}

}  // namespace ip_volr::kernels
