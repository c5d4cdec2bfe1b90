// The vector form of the minima and maxima, for registers of any width. Included by the files of the instruction sets
// only, each with a type `Lanes` of its own in an anonymous namespace; everything here is a template on it, so no two
// instruction sets share code.
#pragma once

#include <cstdint>

#include "ip_volr/kernels/min_max.h"

namespace ip_volr::kernels {

namespace {

template <class Lanes>
struct SignedOrder : Lanes {
    using Int = typename Lanes::Int;
    static Int least(Int a, Int b) { return Lanes::min_16(a, b); }
    static Int greatest(Int a, Int b) { return Lanes::max_16(a, b); }
    static Int empty_minimum() { return Lanes::set_16(INT16_MAX); }
    static Int empty_maximum() { return Lanes::set_16(INT16_MIN); }
    static constexpr auto reduce_short_rows = reduce_rows_signed;
};

template <class Lanes>
struct UnsignedOrder : Lanes {
    using Int = typename Lanes::Int;
    static Int least(Int a, Int b) { return Lanes::min_unsigned_16(a, b); }
    static Int greatest(Int a, Int b) { return Lanes::max_unsigned_16(a, b); }
    static Int empty_minimum() { return Lanes::set(-1); }
    static Int empty_maximum() { return Lanes::set(0); }
    static constexpr auto reduce_short_rows = reduce_rows_unsigned;
};

// The kernels of signed or unsigned values.
template <class Lanes>
class MinMaxLanes {
    using Int = typename Lanes::Int;
    static constexpr int kValues = 2 * Lanes::kCount;

public:
    static void reduce_rows(const std::uint16_t* const* rows, int num_rows, int width, bool accumulate,
                            std::uint16_t* minimum, std::uint16_t* maximum) {
        if (width < kValues) {
            Lanes::reduce_short_rows(rows, num_rows, width, accumulate, minimum, maximum);
            return;
        }
        int x = 0;
        for (; x + kValues <= width; x += kValues) {
            reduce_block(rows, num_rows, x, accumulate, minimum, maximum);
        }
        // The last register overlaps the one before: a minimum or maximum does not change when a value is taken twice.
        if (x < width) {
            reduce_block(rows, num_rows, width - kValues, accumulate, minimum, maximum);
        }
    }

    static void reduce_columns(const std::uint16_t* minimum_a, const std::uint16_t* maximum_a,
                               const std::uint16_t* minimum_b, const std::uint16_t* maximum_b, int num_leaves,
                               std::uint32_t* leaves) {
        for (int leaf = 0; leaf < num_leaves; leaf += 4) {
            Lanes::store_low_halves(leaves + leaf, [=](int first_value) {
                const int x = 4 * leaf + first_value;
                const Int low = reduce_lanes(minimum_a + x, minimum_b + x, Lanes::least);
                const Int high = reduce_lanes(maximum_a + x, maximum_b + x, Lanes::greatest);
                return Lanes::template blend_16<0x22>(low, Lanes::template shift_left_64<16>(high));
            });
        }
    }

private:
    static void reduce_block(const std::uint16_t* const* rows, int num_rows, int x, bool accumulate,
                             std::uint16_t* minimum, std::uint16_t* maximum) {
        Int low = accumulate ? Lanes::load(minimum + x) : Lanes::empty_minimum();
        Int high = accumulate ? Lanes::load(maximum + x) : Lanes::empty_maximum();
        for (int row = 0; row < num_rows; ++row) {
            const Int values = Lanes::load(rows[row] + x);
            low = Lanes::least(low, values);
            high = Lanes::greatest(high, values);
        }
        Lanes::store(minimum + x, low);
        Lanes::store(maximum + x, high);
    }

    // Extreme over columns x to x + 4 of two buffers, in the lowest 16 bits of every 64-bit lane; the other bits hold
    // partial results. Values move down within their lane, so that lanes 1 to 3 reach lane 0; lane 4 is lane 0 of the
    // values loaded four columns further on.
    template <class Extreme>
    static Int reduce_lanes(const std::uint16_t* a, const std::uint16_t* b, Extreme extreme) {
        const Int columns = extreme(Lanes::load(a), Lanes::load(b));
        const Int next = extreme(Lanes::load(a + 4), Lanes::load(b + 4));
        const Int pairs = extreme(columns, Lanes::template shift_right_64<16>(columns));
        const Int fours = extreme(pairs, Lanes::template shift_right_64<32>(pairs));
        return extreme(fours, next);
    }
};

}  // namespace

}  // namespace ip_volr::kernels
