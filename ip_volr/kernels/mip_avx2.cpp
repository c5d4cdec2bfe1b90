// AVX2 kernels of the maximum-intensity projection: sixteen pixels at a time; rows end as in the SSE4.1 kernels.
#include "ip_volr/kernels/mip_kernels.h"

#include <immintrin.h>

namespace ip_volr::kernels {

namespace {

constexpr std::size_t kLanes = 16;
// How far ahead rows are called in: a row or two, since successive calls mostly read successive rows.
constexpr std::size_t kAhead = 1024;

__m256i load(const std::int16_t* p) {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
}
void store(std::int16_t* p, __m256i v) {
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), v);
}

void call_in(const std::int16_t* p) {
    _mm_prefetch(reinterpret_cast<const char*>(p), _MM_HINT_T0);
}

void fill(std::int16_t* dst, std::size_t count, std::int16_t value) {
    const __m256i v = _mm256_set1_epi16(value);
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
    const auto group = [=](std::size_t i) {
        call_in(src + i + kAhead);
        store(dst + i, _mm256_max_epi16(load(dst + i), load(src + i)));
    };
    for (std::size_t i = 0; i + kLanes <= count; i += kLanes) {
        group(i);
    }
    group(count - kLanes);
}

void max_row_weighted(std::int16_t* dst, const std::int16_t* src, std::size_t count, MipWeightRamp weight) {
    const std::uint32_t step = static_cast<std::uint32_t>(weight.step);
    const std::uint32_t start = static_cast<std::uint32_t>(weight.start);
    // Packing works inside halves of 128 bits: w0 holds pixels 0-3 and 8-11, w1 pixels 4-7 and 12-15.
    const __m256i index = _mm256_setr_epi32(0, 1, 2, 3, 8, 9, 10, 11);
    __m256i w0 =
        _mm256_add_epi32(_mm256_set1_epi32(weight.start), _mm256_mullo_epi32(index, _mm256_set1_epi32(weight.step)));
    __m256i w1 = _mm256_add_epi32(w0, _mm256_set1_epi32(static_cast<int>(4 * step)));
    const __m256i advance = _mm256_set1_epi32(static_cast<int>(kLanes * step));
    const __m256i zero = _mm256_setzero_si256();
    std::size_t i = 0;
    for (; i + kLanes <= count; i += kLanes) {
        const __m256i w =
            _mm256_max_epi16(_mm256_packs_epi32(_mm256_srai_epi32(w0, 16), _mm256_srai_epi32(w1, 16)), zero);
        store(dst + i, _mm256_max_epi16(load(dst + i), _mm256_mulhrs_epi16(load(src + i), w)));
        w0 = _mm256_add_epi32(w0, advance);
        w1 = _mm256_add_epi32(w1, advance);
    }
    const std::uint32_t rest = start + static_cast<std::uint32_t>(i) * step;
    mip_scalar::max_row_weighted(dst + i, src + i, count - i, {static_cast<std::int32_t>(rest), weight.step});
}

// Two weights side by side, as the pairwise multiplication takes them.
__m256i weight_pair(std::int16_t first, std::int16_t second) {
    return _mm256_set1_epi32(
        static_cast<int>(static_cast<std::uint32_t>(second) << 16 | static_cast<std::uint32_t>(first)));
}

// Weighted sums of pixels p and q, in halves.
struct Sums {
    __m256i low;
    __m256i high;
};

Sums weigh(__m256i p, __m256i q, __m256i pair) {
    return {_mm256_madd_epi16(_mm256_unpacklo_epi16(p, q), pair), _mm256_madd_epi16(_mm256_unpackhi_epi16(p, q), pair)};
}

__m256i round_sums(const Sums& s) {
    const __m256i half = _mm256_set1_epi32(16384);
    return _mm256_packs_epi32(_mm256_srai_epi32(_mm256_add_epi32(s.low, half), 15),
                              _mm256_srai_epi32(_mm256_add_epi32(s.high, half), 15));
}

// Weighted sums of a row's pixels and their neighbours. Neighbours lie side by side in memory already, so a load is a
// vector of pairs: those of the even pixels of a group, or, a pixel further, those of the odd ones.
class NeighbourPairs {
public:
    NeighbourPairs(const std::int16_t* row, std::int16_t own, std::int16_t neighbour, int step)
        : m_Pairs(step > 0 ? row : row - 1),
          m_Weights(step > 0 ? weight_pair(own, neighbour) : weight_pair(neighbour, own)) {}

    __m256i even(std::size_t i) const { return _mm256_madd_epi16(load(m_Pairs + i), m_Weights); }
    __m256i odd(std::size_t i) const { return _mm256_madd_epi16(load(m_Pairs + i + 1), m_Weights); }

private:
    const std::int16_t* m_Pairs;
    __m256i m_Weights;
};

// Weights add up to one, so that a rounded sum fits its 16 bits: those from bit 15 on are taken where they are needed.
__m256i round_pixels(__m256i even, __m256i odd) {
    const __m256i half = _mm256_set1_epi32(16384);
    return _mm256_blend_epi16(_mm256_srli_epi32(_mm256_add_epi32(even, half), 15),
                              _mm256_slli_epi32(_mm256_add_epi32(odd, half), 1), 0xAA);
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
    const auto put = [dst](std::size_t i, __m256i v) {
        store(dst + i, kKeepMaximum ? _mm256_max_epi16(load(dst + i), v) : v);
    };
    if (w.a1 == 0 && w.b1 == 0) {
        const __m256i pair = weight_pair(w.a0, w.b0);
        for_groups(count, [&](std::size_t i) {
            call_in(near_row + i + kAhead);
            call_in(far_row + i + kAhead);
            put(i, round_sums(weigh(load(near_row + i), load(far_row + i), pair)));
        });
        return;
    }
    const NeighbourPairs near(near_row, w.a0, w.a1, w.step);
    if (w.b0 == 0 && w.b1 == 0) {
        for_groups(count, [&](std::size_t i) {
            call_in(near_row + i + kAhead);
            put(i, round_pixels(near.even(i), near.odd(i)));
        });
        return;
    }
    const NeighbourPairs far(far_row, w.b0, w.b1, w.step);
    for_groups(count, [&](std::size_t i) {
        call_in(near_row + i + kAhead);
        call_in(far_row + i + kAhead);
        put(i, round_pixels(_mm256_add_epi32(near.even(i), far.even(i)), _mm256_add_epi32(near.odd(i), far.odd(i))));
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

}  // namespace

// The transposition of the level below stays: wider tiles touch more lines of one cache set and were slower.
void add_mip_avx2(MipKernels& table) {
    table.fill = fill;
    table.max_row = max_row;
    table.max_row_weighted = max_row_weighted;
    table.max_row_bilinear = max_row_bilinear;
    table.row_bilinear = row_bilinear;
}

}  // namespace ip_volr::kernels
