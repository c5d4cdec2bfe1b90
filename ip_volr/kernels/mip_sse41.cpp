// SSE4.1 kernels of the maximum-intensity projection: eight pixels at a time.
//
// A row that is no whole number of groups ends with a group that overlaps the one before: a maximum taken twice, or a
// sample written twice, is the same.
#include "ip_volr/kernels/mip_kernels.h"

#include <smmintrin.h>

namespace ip_volr::kernels {

namespace {

constexpr std::size_t kLanes = 8;
constexpr std::size_t kBand = 32;  // pixels of one cache line

__m128i load(const std::int16_t* p) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
}
void store(std::int16_t* p, __m128i v) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(p), v);
}

void fill(std::int16_t* dst, std::size_t count, std::int16_t value) {
    const __m128i v = _mm_set1_epi16(value);
    std::size_t i = 0;
    for (; i + kLanes <= count; i += kLanes) {
        store(dst + i, v);
    }
    for (; i < count; i++) {
        dst[i] = value;
    }
}

void max_row(std::int16_t* dst, const std::int16_t* src, std::size_t count) {
    if (count < kLanes) {
        mip_scalar::max_row(dst, src, count);
        return;
    }
    const auto group = [=](std::size_t i) { store(dst + i, _mm_max_epi16(load(dst + i), load(src + i))); };
    for (std::size_t i = 0; i + kLanes <= count; i += kLanes) {
        group(i);
    }
    group(count - kLanes);
}

void max_row_weighted(std::int16_t* dst, const std::int16_t* src, std::size_t count, MipWeightRamp weight) {
    const std::uint32_t step = static_cast<std::uint32_t>(weight.step);
    const std::uint32_t start = static_cast<std::uint32_t>(weight.start);
    __m128i w0 = _mm_setr_epi32(static_cast<int>(start), static_cast<int>(start + step),
                                static_cast<int>(start + 2 * step), static_cast<int>(start + 3 * step));
    __m128i w1 = _mm_add_epi32(w0, _mm_set1_epi32(static_cast<int>(4 * step)));
    const __m128i advance = _mm_set1_epi32(static_cast<int>(kLanes * step));
    const __m128i zero = _mm_setzero_si128();
    std::size_t i = 0;
    for (; i + kLanes <= count; i += kLanes) {
        const __m128i w = _mm_max_epi16(_mm_packs_epi32(_mm_srai_epi32(w0, 16), _mm_srai_epi32(w1, 16)), zero);
        store(dst + i, _mm_max_epi16(load(dst + i), _mm_mulhrs_epi16(load(src + i), w)));
        w0 = _mm_add_epi32(w0, advance);
        w1 = _mm_add_epi32(w1, advance);
    }
    const std::uint32_t rest = start + static_cast<std::uint32_t>(i) * step;
    mip_scalar::max_row_weighted(dst + i, src + i, count - i, {static_cast<std::int32_t>(rest), weight.step});
}

// Two weights side by side, as the pairwise multiplication takes them.
__m128i weight_pair(std::int16_t first, std::int16_t second) {
    return _mm_set1_epi32(
        static_cast<int>(static_cast<std::uint32_t>(second) << 16 | static_cast<std::uint32_t>(first)));
}

// Weighted sums of pixels p and q, in halves.
struct Sums {
    __m128i low;
    __m128i high;
};

Sums weigh(__m128i p, __m128i q, __m128i pair) {
    return {_mm_madd_epi16(_mm_unpacklo_epi16(p, q), pair), _mm_madd_epi16(_mm_unpackhi_epi16(p, q), pair)};
}

__m128i round_sums(const Sums& s) {
    const __m128i half = _mm_set1_epi32(16384);
    return _mm_packs_epi32(_mm_srai_epi32(_mm_add_epi32(s.low, half), 15),
                           _mm_srai_epi32(_mm_add_epi32(s.high, half), 15));
}

// Groups of a whole row; the last one overlaps the one before.
template <class Group>
void for_groups(std::size_t count, const Group& group) {
    for (std::size_t i = 0; i + kLanes <= count; i += kLanes) {
        group(i);
    }
    group(count - kLanes);
}

// Slices often shift along one axis only: two of the four weights are 0 then, and their pixels are not read.
template <bool kKeepMaximum>
void blend(std::int16_t* dst, const std::int16_t* near_row, const std::int16_t* far_row, std::size_t count,
           const MipBilinear& w) {
    const auto put = [dst](std::size_t i, __m128i v) {
        store(dst + i, kKeepMaximum ? _mm_max_epi16(load(dst + i), v) : v);
    };
    const auto blend_two = [&](const std::int16_t* q, __m128i pair) {
        for_groups(count, [&](std::size_t i) { put(i, round_sums(weigh(load(near_row + i), load(q + i), pair))); });
    };
    if (w.b0 == 0 && w.b1 == 0) {
        blend_two(near_row + w.step, weight_pair(w.a0, w.a1));
        return;
    }
    if (w.a1 == 0 && w.b1 == 0) {
        blend_two(far_row, weight_pair(w.a0, w.b0));
        return;
    }
    const __m128i near_pair = weight_pair(w.a0, w.a1);
    const __m128i far_pair = weight_pair(w.b0, w.b1);
    for_groups(count, [&](std::size_t i) {
        const Sums near = weigh(load(near_row + i), load(near_row + i + w.step), near_pair);
        const Sums far = weigh(load(far_row + i), load(far_row + i + w.step), far_pair);
        put(i, round_sums({_mm_add_epi32(near.low, far.low), _mm_add_epi32(near.high, far.high)}));
    });
}

void max_row_bilinear(std::int16_t* dst, const std::int16_t* near_row, const std::int16_t* far_row, std::size_t count,
                      const MipBilinear& weights) {
    if (count < kLanes) {
        mip_scalar::max_row_bilinear(dst, near_row, far_row, count, weights);
        return;
    }
    blend<true>(dst, near_row, far_row, count, weights);
}

void row_bilinear(std::int16_t* dst, const std::int16_t* near_row, const std::int16_t* far_row, std::size_t count,
                  const MipBilinear& weights) {
    if (count < kLanes) {
        mip_scalar::row_bilinear(dst, near_row, far_row, count, weights);
        return;
    }
    blend<false>(dst, near_row, far_row, count, weights);
}

// Transposes a tile of 8 x 8 pixels in three rounds of interleaving.
void transpose_tile(std::int16_t* dst, std::size_t dst_stride, const std::int16_t* src, std::size_t src_stride) {
    __m128i r[8];
    for (std::size_t k = 0; k < 8; k++) {
        r[k] = load(src + k * src_stride);
    }
    __m128i a[8];
    for (std::size_t k = 0; k < 4; k++) {
        a[2 * k] = _mm_unpacklo_epi16(r[2 * k], r[2 * k + 1]);
        a[2 * k + 1] = _mm_unpackhi_epi16(r[2 * k], r[2 * k + 1]);
    }
    __m128i b[8];
    for (std::size_t k = 0; k < 2; k++) {
        b[4 * k] = _mm_unpacklo_epi32(a[4 * k], a[4 * k + 2]);
        b[4 * k + 1] = _mm_unpackhi_epi32(a[4 * k], a[4 * k + 2]);
        b[4 * k + 2] = _mm_unpacklo_epi32(a[4 * k + 1], a[4 * k + 3]);
        b[4 * k + 3] = _mm_unpackhi_epi32(a[4 * k + 1], a[4 * k + 3]);
    }
    for (std::size_t k = 0; k < 4; k++) {
        store(dst + 2 * k * dst_stride, _mm_unpacklo_epi64(b[k], b[k + 4]));
        store(dst + (2 * k + 1) * dst_stride, _mm_unpackhi_epi64(b[k], b[k + 4]));
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
    table = {fill, max_row, max_row_weighted, max_row_bilinear, row_bilinear, transpose};
}

}  // namespace ip_volr::kernels
