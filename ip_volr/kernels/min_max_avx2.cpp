#include "ip_volr/kernels/min_max.h"

#include <immintrin.h>
#include <cstdint>

namespace ip_volr::kernels {
namespace {

constexpr int kLanes = 16;

struct SignedLanes {
    static __m256i min(__m256i a, __m256i b) { return _mm256_min_epi16(a, b); }
    static __m256i max(__m256i a, __m256i b) { return _mm256_max_epi16(a, b); }
    static __m256i empty_minimum() { return _mm256_set1_epi16(INT16_MAX); }
    static __m256i empty_maximum() { return _mm256_set1_epi16(INT16_MIN); }
    static constexpr auto reduce_short_rows = reduce_rows_signed;
};

struct UnsignedLanes {
    static __m256i min(__m256i a, __m256i b) { return _mm256_min_epu16(a, b); }
    static __m256i max(__m256i a, __m256i b) { return _mm256_max_epu16(a, b); }
    static __m256i empty_minimum() { return _mm256_set1_epi16(-1); }
    static __m256i empty_maximum() { return _mm256_setzero_si256(); }
    static constexpr auto reduce_short_rows = reduce_rows_unsigned;
};

__m256i load(const std::uint16_t* p) {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
}
void store(std::uint16_t* p, __m256i v) {
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), v);
}

template <class Lanes>
void reduce_block(const std::uint16_t* const* rows, int num_rows, int x, bool accumulate, std::uint16_t* minimum,
                  std::uint16_t* maximum) {
    __m256i low = accumulate ? load(minimum + x) : Lanes::empty_minimum();
    __m256i high = accumulate ? load(maximum + x) : Lanes::empty_maximum();
    for (int row = 0; row < num_rows; ++row) {
        const __m256i values = load(rows[row] + x);
        low = Lanes::min(low, values);
        high = Lanes::max(high, values);
    }
    store(minimum + x, low);
    store(maximum + x, high);
}

template <class Lanes>
void reduce_rows(const std::uint16_t* const* rows, int num_rows, int width, bool accumulate, std::uint16_t* minimum,
                 std::uint16_t* maximum) {
    if (width < kLanes) {
        Lanes::reduce_short_rows(rows, num_rows, width, accumulate, minimum, maximum);
        return;
    }
    int x = 0;
    for (; x + kLanes <= width; x += kLanes) {
        reduce_block<Lanes>(rows, num_rows, x, accumulate, minimum, maximum);
    }
    // The last register overlaps the one before: a minimum or maximum does not change when a value is taken twice.
    if (x < width) {
        reduce_block<Lanes>(rows, num_rows, width - kLanes, accumulate, minimum, maximum);
    }
}

// Extreme over columns x to x + 4 of two buffers, in the lowest 16 bits of every 64-bit lane; the other bits hold
// partial results. Values move down within their lane, so that lanes 1 to 3 reach lane 0; lane 4 is lane 0 of the
// values loaded four columns further on.
template <class Extreme>
__m256i reduce_lanes(const std::uint16_t* a, const std::uint16_t* b, Extreme extreme) {
    const __m256i columns = extreme(load(a), load(b));
    const __m256i next = extreme(load(a + 4), load(b + 4));
    const __m256i pairs = extreme(columns, _mm256_srli_epi64(columns, 16));
    const __m256i fours = extreme(pairs, _mm256_srli_epi64(pairs, 32));
    return extreme(fours, next);
}

// Minimum and maximum of the leaves that start at column x, in the low half of each 64-bit lane.
template <class Lanes>
__m256i reduce_leaves(const std::uint16_t* minimum_a, const std::uint16_t* maximum_a, const std::uint16_t* minimum_b,
                      const std::uint16_t* maximum_b, int x) {
    const __m256i low = reduce_lanes(minimum_a + x, minimum_b + x, Lanes::min);
    const __m256i high = reduce_lanes(maximum_a + x, maximum_b + x, Lanes::max);
    return _mm256_blend_epi16(low, _mm256_slli_epi64(high, 16), 0x22);
}

template <class Lanes>
void reduce_columns(const std::uint16_t* minimum_a, const std::uint16_t* maximum_a, const std::uint16_t* minimum_b,
                    const std::uint16_t* maximum_b, int num_leaves, std::uint32_t* leaves) {
    const __m256i low_halves = _mm256_setr_epi32(0, 2, 4, 6, 0, 2, 4, 6);
    for (int leaf = 0; leaf < num_leaves; leaf += 4) {
        const __m256i lanes = reduce_leaves<Lanes>(minimum_a, maximum_a, minimum_b, maximum_b, 4 * leaf);
        const __m256i packed = _mm256_permutevar8x32_epi32(lanes, low_halves);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(leaves + leaf), _mm256_castsi256_si128(packed));
    }
}

}  // namespace

void add_min_max_avx2(MinMaxKernels& table) {
    table.of_signed = {reduce_rows<SignedLanes>, reduce_columns<SignedLanes>};
    table.of_unsigned = {reduce_rows<UnsignedLanes>, reduce_columns<UnsignedLanes>};
}

}  // namespace ip_volr::kernels
