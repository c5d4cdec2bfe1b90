// The vector form of the reduction, for registers of any width. Included by the files of the instruction sets only,
// each with a type `Lanes` of its own in an anonymous namespace.
#pragma once

#include "ip_volr/kernels/reduce.h"

#include <algorithm>

namespace ip_volr::kernels {

namespace {

template <class Lanes>
struct ReduceLanes {
    using Int = typename Lanes::Int;

    // Maxima of the blocks over a register of columns: each lane holds two columns, which are widened with their sign
    // and compared.
    static Int block_maxima(const std::int16_t* row_a, const std::int16_t* row_b) {
        const Int columns = Lanes::max_16(Lanes::load(row_a), Lanes::load(row_b));
        const Int even = Lanes::template shift_right_signed<16>(Lanes::template shift_left<16>(columns));
        return Lanes::max(even, Lanes::template shift_right_signed<16>(columns));
    }

    static void maximum_2x2(const std::int16_t* row_a, const std::int16_t* row_b, std::int16_t* destination,
                            int count) {
        constexpr int kPixels = 2 * Lanes::kCount;
        int i = 0;
        for (; i + kPixels <= count; i += kPixels) {
            const Int low = block_maxima(row_a + 2 * i, row_b + 2 * i);
            const Int high = block_maxima(row_a + 2 * i + kPixels, row_b + 2 * i + kPixels);
            // The saturation of the packing never acts: the lanes are in range.
            Lanes::store(destination + i, Lanes::pack_words(low, high));
        }
        for (; i < count; i++) {
            destination[i] = std::max({row_a[2 * i], row_a[2 * i + 1], row_b[2 * i], row_b[2 * i + 1]});
        }
    }
};

}  // namespace

}  // namespace ip_volr::kernels
