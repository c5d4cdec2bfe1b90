// The vector form of the projection's rows, for registers of any width. Included by the files of the instruction sets
// only, each with a type `Lanes` of its own in an anonymous namespace; everything here is a template on it, so no two
// instruction sets share code.
//
// A row that is no whole number of registers ends with one that overlaps the one before: a maximum taken twice, or a
// sample written twice, is the same.
#pragma once

#include "ip_volr/kernels/mip_kernels.h"

namespace ip_volr::kernels {

namespace {

template <class Lanes>
class MipLanes {
    using Int = typename Lanes::Int;
    static constexpr std::size_t kPixels = 2 * Lanes::kCount;
    // How far ahead rows are called in: a row or two, since successive calls mostly read successive rows.
    static constexpr std::size_t kAhead = 1024;

public:
    static void fill(std::int16_t* dst, std::size_t count, std::int16_t value) {
        const Int v = Lanes::set_16(value);
        std::size_t i = 0;
        for (; i + kPixels <= count; i += kPixels) {
            Lanes::store(dst + i, v);
        }
        for (; i < count; i++) {
            dst[i] = value;
        }
    }

    static void max_row(std::int16_t* dst, const std::int16_t* src, std::size_t count) {
        if (count < kPixels) {
            mip_scalar::max_row(dst, src, count);
            return;
        }
        for_registers(count, [=](std::size_t i) {
            call_in(src + i);
            put<true>(dst + i, Lanes::load(src + i));
        });
    }

    static void max_row_weighted(std::int16_t* dst, const std::int16_t* src, std::size_t count, MipWeightRamp weight) {
        const std::uint32_t step = static_cast<std::uint32_t>(weight.step);
        // Weights of the pixels in the order in which two registers of them are packed.
        Int low = Lanes::add(Lanes::set(weight.start),
                             Lanes::mul_low(Lanes::lane_numbers_of_low_words(), Lanes::set(weight.step)));
        Int high = Lanes::add(low, Lanes::set(static_cast<std::int32_t>(4 * step)));
        const Int advance = Lanes::set(static_cast<std::int32_t>(kPixels * step));
        std::size_t i = 0;
        for (; i + kPixels <= count; i += kPixels) {
            const Int weights = Lanes::pack_words_within(Lanes::template shift_right_signed<16>(low),
                                                         Lanes::template shift_right_signed<16>(high));
            put<true>(dst + i, Lanes::mul_rounded_16(Lanes::load(src + i), Lanes::max_16(weights, Lanes::set(0))));
            low = Lanes::add(low, advance);
            high = Lanes::add(high, advance);
        }
        const std::uint32_t rest = static_cast<std::uint32_t>(weight.start) + static_cast<std::uint32_t>(i) * step;
        mip_scalar::max_row_weighted(dst + i, src + i, count - i, {static_cast<std::int32_t>(rest), weight.step});
    }

    // Keeps the maximum, or writes the sample.
    template <bool kKeepMaximum>
    static void bilinear(std::int16_t* dst, const std::int16_t* near_row, const std::int16_t* far_row,
                         std::size_t count, const MipBilinear& weights) {
        if (count < kPixels) {
            constexpr auto of_short_rows = kKeepMaximum ? mip_scalar::max_row_bilinear : mip_scalar::row_bilinear;
            of_short_rows(dst, near_row, far_row, count, weights);
            return;
        }
        blend<kKeepMaximum>(dst, near_row, far_row, count, weights);
    }

private:
    // Weighted sums of a row's pixels and their neighbours. Neighbours lie side by side in memory already, so a load is
    // a register of pairs: those of the even pixels, or, a pixel further, those of the odd ones.
    class NeighbourPairs {
    public:
        NeighbourPairs(const std::int16_t* row, std::int16_t own, std::int16_t neighbour, int step)
            : m_Pairs(step > 0 ? row : row - 1),
              m_Weights(step > 0 ? weight_pair(own, neighbour) : weight_pair(neighbour, own)) {}

        Int even(std::size_t i) const { return Lanes::madd(Lanes::load(m_Pairs + i), m_Weights); }
        Int odd(std::size_t i) const { return Lanes::madd(Lanes::load(m_Pairs + i + 1), m_Weights); }

    private:
        const std::int16_t* m_Pairs;
        Int m_Weights;
    };

    static void call_in(const std::int16_t* p) { __builtin_prefetch(p + kAhead); }

    template <bool kKeepMaximum>
    static void put(std::int16_t* dst, Int v) {
        Lanes::store(dst, kKeepMaximum ? Lanes::max_16(Lanes::load(dst), v) : v);
    }

    // Registers of a whole row; the last one overlaps the one before.
    template <class Body>
    static void for_registers(std::size_t count, const Body& body) {
        for (std::size_t i = 0; i + kPixels <= count; i += kPixels) {
            body(i);
        }
        body(count - kPixels);
    }

    // Two weights side by side, as the pairwise multiplication takes them.
    static Int weight_pair(std::int16_t first, std::int16_t second) {
        return Lanes::set(
            static_cast<int>(static_cast<std::uint32_t>(second) << 16 | static_cast<std::uint32_t>(first)));
    }

    // Sums in 1/32768 to pixels. Weights add up to one, so that a rounded sum fits its 16 bits: those from bit 15 on
    // are taken where they are needed.
    static Int round_pixels(Int even, Int odd) {
        const Int half = Lanes::set(16384);
        return Lanes::low_and_high_16(Lanes::template shift_right<15>(Lanes::add(even, half)),
                                      Lanes::template shift_left<1>(Lanes::add(odd, half)));
    }
    static Int round_sum(Int sum) { return Lanes::template shift_right_signed<15>(Lanes::add(sum, Lanes::set(16384))); }

    // Slices often shift along one axis only: two of the four weights are 0 then, and their pixels are not read.
    template <bool kKeepMaximum>
    static void blend(std::int16_t* dst, const std::int16_t* near_row, const std::int16_t* far_row, std::size_t count,
                      const MipBilinear& w) {
        if (w.a1 == 0 && w.b1 == 0) {
            const Int pair = weight_pair(w.a0, w.b0);
            for_registers(count, [=](std::size_t i) {
                call_in(near_row + i);
                call_in(far_row + i);
                const Int p = Lanes::load(near_row + i);
                const Int q = Lanes::load(far_row + i);
                put<kKeepMaximum>(dst + i,
                                  Lanes::pack_words_within(round_sum(Lanes::madd(Lanes::low_words(p, q), pair)),
                                                           round_sum(Lanes::madd(Lanes::high_words(p, q), pair))));
            });
            return;
        }
        const NeighbourPairs near(near_row, w.a0, w.a1, w.step);
        if (w.b0 == 0 && w.b1 == 0) {
            for_registers(count, [=](std::size_t i) {
                call_in(near_row + i);
                put<kKeepMaximum>(dst + i, round_pixels(near.even(i), near.odd(i)));
            });
            return;
        }
        const NeighbourPairs far(far_row, w.b0, w.b1, w.step);
        for_registers(count, [=](std::size_t i) {
            call_in(near_row + i);
            call_in(far_row + i);
            put<kKeepMaximum>(dst + i,
                              round_pixels(Lanes::add(near.even(i), far.even(i)), Lanes::add(near.odd(i), far.odd(i))));
        });
    }
};

}  // namespace

}  // namespace ip_volr::kernels
