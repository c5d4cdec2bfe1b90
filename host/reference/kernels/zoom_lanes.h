// The vector form of the zoom's rows, for registers of any width. Included by the files of the instruction sets only,
// each with a type `Lanes` of its own in an anonymous namespace; everything here is a template on it, so no two
// instruction sets share code.
//
// Positions along an axis are 32.32 numbers in two registers, `a` and `b`, which hold the pixels of a group so that one
// shuffle of their halves sorts them.
#pragma once

#include <stdint.h>

#include "host/reference/kernels/zoom_rows.h"

namespace reference_host::zoom {

namespace {

template <class Lanes>
class LaneRows {
    using Int = typename Lanes::Int;
    using Float = typename Lanes::Float;

public:
    static void over(const Run& run, int16_t floor_value) {
        const __m128i least = _mm_set1_epi16(floor_value);
        const auto rest =
            draw_groups(run, [least](__m128i values, const int16_t*) { return _mm_max_epi16(values, least); });
        kScalar.over(rest, floor_value);
    }

    static void max(const Run& run) {
        const auto rest = draw_groups(
            run, [](__m128i values, const int16_t* dst) { return _mm_max_epi16(values, Lanes::load_group(dst)); });
        kScalar.max(rest);
    }

private:
    struct Positions {
        Int a, b;
    };

    // Draws the whole groups of a run, each as `finish` makes it of the values and what is there, and returns the rest.
    template <class Finish>
    static Run draw_groups(const Run& run, Finish finish) {
        // The steps of a shorter run may be too long for the vectors' positions.
        if (run.count < Lanes::kCount) {
            return run;
        }
        Positions x = first_positions(run.x, run.step_x);
        Positions y = first_positions(run.y, run.step_y);
        const Int group_x = Lanes::set_64(Lanes::kCount * run.step_x);
        const Int group_y = Lanes::set_64(Lanes::kCount * run.step_y);
        int32_t i = 0;
        for (; i + Lanes::kCount <= run.count; i += Lanes::kCount) {
            Lanes::store_group(run.dst + i, finish(interpolate(run, x, y), run.dst + i));
            x = {Lanes::add_64(x.a, group_x), Lanes::add_64(x.b, group_x)};
            y = {Lanes::add_64(y.a, group_y), Lanes::add_64(y.b, group_y)};
        }
        Run rest = run;
        rest.dst += i;
        rest.count -= i;
        rest.x += i * run.step_x;
        rest.y += i * run.step_y;
        return rest;
    }

    static Positions first_positions(int64_t start, int64_t step) {
        return {Lanes::first_a(start, step), Lanes::first_b(start, step)};
    }

    static Float fractions(const Positions& p) {
        const Int low = Lanes::low_halves(p.a, p.b);
        return Lanes::mul(Lanes::to_float(Lanes::template shift_right<8>(low)), Lanes::set(1.0F / 16777216.0F));
    }

    // left + (right - left) * f of pairs of 16-bit pixels, the left one in the lower half.
    static Float interpolate_pairs(Int pairs, Float f) {
        const Int left = Lanes::template shift_right_signed<16>(Lanes::template shift_left<16>(pairs));
        const Int right = Lanes::template shift_right_signed<16>(pairs);
        return Lanes::add(Lanes::to_float(left), Lanes::mul(Lanes::to_float(Lanes::sub(right, left)), f));
    }

    // The values of a group as 16-bit numbers in order, in the lower lanes.
    static __m128i interpolate(const Run& run, const Positions& x, const Positions& y) {
        const Int rows = Lanes::mul_low(Lanes::high_halves(y.a, y.b), Lanes::set(run.src_width));
        const Int upper = Lanes::add(rows, Lanes::high_halves(x.a, x.b));
        const Float fx = fractions(x);
        const Float top = interpolate_pairs(Lanes::load_pairs(run.src, upper), fx);
        const Float bottom = interpolate_pairs(Lanes::load_pairs(run.src + run.src_width, upper), fx);
        const Float value = Lanes::add(top, Lanes::mul(Lanes::sub(bottom, top), fractions(y)));
        return Lanes::pack(Lanes::round_down(Lanes::add(value, Lanes::set(0.5F))));
    }
};

}  // namespace

}  // namespace reference_host::zoom
