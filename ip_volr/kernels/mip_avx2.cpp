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
        _mm_prefetch(reinterpret_cast<const char*>(src + i + kAhead), _MM_HINT_T0);
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

struct Weights {
    __m256i near_pair;
    __m256i far_pair;
    __m256i half;

    explicit Weights(const MipBilinear& w)
        : near_pair(_mm256_set1_epi32(
              static_cast<int>(static_cast<std::uint32_t>(w.a1) << 16 | static_cast<std::uint32_t>(w.a0)))),
          far_pair(_mm256_set1_epi32(
              static_cast<int>(static_cast<std::uint32_t>(w.b1) << 16 | static_cast<std::uint32_t>(w.b0)))),
          half(_mm256_set1_epi32(16384)) {}
};

__m256i sample(const std::int16_t* near_row, const std::int16_t* far_row, std::ptrdiff_t step, const Weights& w) {
    const __m256i a0 = load(near_row);
    const __m256i a1 = load(near_row + step);
    const __m256i b0 = load(far_row);
    const __m256i b1 = load(far_row + step);
    const __m256i low = _mm256_add_epi32(_mm256_madd_epi16(_mm256_unpacklo_epi16(a0, a1), w.near_pair),
                                         _mm256_madd_epi16(_mm256_unpacklo_epi16(b0, b1), w.far_pair));
    const __m256i high = _mm256_add_epi32(_mm256_madd_epi16(_mm256_unpackhi_epi16(a0, a1), w.near_pair),
                                          _mm256_madd_epi16(_mm256_unpackhi_epi16(b0, b1), w.far_pair));
    return _mm256_packs_epi32(_mm256_srai_epi32(_mm256_add_epi32(low, w.half), 15),
                              _mm256_srai_epi32(_mm256_add_epi32(high, w.half), 15));
}

void max_row_bilinear(std::int16_t* dst, const std::int16_t* near_row, const std::int16_t* far_row, std::size_t count,
                      const MipBilinear& weights) {
    if (count < kLanes) {
        mip_scalar::max_row_bilinear(dst, near_row, far_row, count, weights);
        return;
    }
    const Weights w(weights);
    const std::ptrdiff_t step = weights.step;
    const auto group = [&](std::size_t i) {
        _mm_prefetch(reinterpret_cast<const char*>(near_row + i + kAhead), _MM_HINT_T0);
        _mm_prefetch(reinterpret_cast<const char*>(far_row + i + kAhead), _MM_HINT_T0);
        store(dst + i, _mm256_max_epi16(load(dst + i), sample(near_row + i, far_row + i, step, w)));
    };
    for (std::size_t i = 0; i + kLanes <= count; i += kLanes) {
        group(i);
    }
    group(count - kLanes);
}

void row_bilinear(std::int16_t* dst, const std::int16_t* near_row, const std::int16_t* far_row, std::size_t count,
                  const MipBilinear& weights) {
    if (count < kLanes) {
        mip_scalar::row_bilinear(dst, near_row, far_row, count, weights);
        return;
    }
    const Weights w(weights);
    const std::ptrdiff_t step = weights.step;
    const auto group = [&](std::size_t i) { store(dst + i, sample(near_row + i, far_row + i, step, w)); };
    for (std::size_t i = 0; i + kLanes <= count; i += kLanes) {
        group(i);
    }
    group(count - kLanes);
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
