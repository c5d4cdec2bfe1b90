// The vector form of the raster kernels, for registers of any width. Included by the files of the instruction sets
// only, each with a type `Lanes` of its own in an anonymous namespace; everything here is a template on it, so no two
// instruction sets share code.
//
// Beyond what all kernels use, `Lanes` loads and stores the first pixels of a register, and loads the fields of rays so
// that packing two registers of them brings the rays into order.
#pragma once

#include <cstdint>

#include "ip_volr/IP_VOLRC_ListRay.h"
#include "ip_volr/kernels/raster_rows.h"

namespace ip_volr::kernels {

namespace {

template <class Lanes>
class RasterRows {
    using Int = typename Lanes::Int;
    static constexpr int kPixels = Lanes::kCount;

public:
    static void rays_to_pixels(const _listRay* rays, int count, std::uint16_t threshold, std::uint32_t* pixels) {
        const Int half_threshold = Lanes::set_16(threshold / 2);
        // From transparency, blue, green, red to blue, green, red, transparency.
        const Int order = Lanes::repeat(_mm_setr_epi8(1, 2, 3, 0, 5, 6, 7, 4, 9, 10, 11, 8, 13, 14, 15, 12));
        for (int i = 0; i < count; i += kPixels) {
            const int last = count - 1 - i;
            const Int low = Lanes::load_fields(rays + i, last);
            const Int high = last >= 2 ? Lanes::load_fields(rays + i + 2, last - 2) : low;
            const Int bytes = Lanes::pack_bytes(brighten(low, half_threshold), brighten(high, half_threshold));
            store_some(pixels + i, Lanes::shuffle_bytes(bytes, order), count - i);
        }
    }

    static void blend_row(const std::uint32_t* raster, int count, std::uint32_t* out) {
        int i = 0;
        for (; i + kPixels <= count; i += kPixels) {
            Lanes::store(out + i, blend(Lanes::load(raster + i), Lanes::load(out + i)));
        }
        if (i < count) {
            const Int front = Lanes::load_first(raster + i, count - i);
            const Int back = Lanes::load_first(out + i, count - i);
            Lanes::store_first(out + i, blend(front, back), count - i);
        }
    }

    static void resize_row(const ResizeRow& row, int count, std::uint32_t* out) {
        if ((row.above == nullptr && row.below == nullptr) || row.source_width <= 0) {
            for (int i = 0; i < count; i++) {
                out[i] = 0;
            }
            return;
        }
        const int weight_above = row.above != nullptr ? static_cast<int>(65535 - row.fraction_y) : 0;
        const int weight_below = row.below != nullptr ? static_cast<int>(row.fraction_y) : 0;
        const Rows rows = {row.above != nullptr ? row.above : row.below, row.below != nullptr ? row.below : row.above,
                           Lanes::set_16(weight_above), Lanes::set_16(weight_below)};
        for (int i = 0; i < count; i += kPixels) {
            store_some(out + i, resize(rows, find_columns(row, i)), count - i);
        }
    }

private:
    struct Rows {
        const std::uint32_t* above;
        const std::uint32_t* below;
        Int weight_above, weight_below;  // 0 for a row that is missing
    };

    // Where output pixels lie in the source: neighbours, and their weights (0 when beyond the source), doubled to both
    // halves of 32 bits.
    struct Columns {
        Int left, right;
        Int weight_left, weight_right;
    };

    // Stores the first `count` pixels of a register.
    static void store_some(std::uint32_t* pixels, Int value, int count) {
        if (count >= kPixels) {
            Lanes::store(pixels, value);
        } else {
            Lanes::store_first(pixels, value, count);
        }
    }

    // The fields of rays as bytes in the low half of 16 bits each.
    static Int brighten(Int fields, Int half_threshold) {
        const Int t = Lanes::template shift_right_16<1>(Lanes::first_of_four_16(fields));
        const Int plain = Lanes::set_16(32767);
        const Int boost = Lanes::template shift_left_16<1>(Lanes::mul_high_16(t, t));
        const Int bright = Lanes::add_saturated_16(Lanes::add_16(plain, t), boost);
        const Int factor = Lanes::select(Lanes::greater_16(half_threshold, t), bright, plain);
        const Int scaled = Lanes::template shift_right_16<1>(Lanes::mul_high_16(fields, factor));
        return Lanes::template shift_right_16<6>(Lanes::min_unsigned_16(scaled, Lanes::set_16(16383)));
    }

    // Blends half a register of pixels, given as bytes in the upper (raster) and lower (out) half of 16 bits each.
    static Int blend_half(Int raster_high, Int out) {
        const Int alpha_bytes =
            Lanes::repeat(_mm_setr_epi8(7, -1, 7, -1, 7, -1, 7, -1, 15, -1, 15, -1, 15, -1, 15, -1));
        const Int through = Lanes::mul_low_16(out, Lanes::shuffle_bytes(raster_high, alpha_bytes));
        return Lanes::template shift_right_16<8>(Lanes::add_saturated_16(raster_high, through));
    }

    static Int blend(Int raster, Int out) {
        const Int zero = Lanes::set(0);
        return Lanes::pack_bytes(blend_half(Lanes::low_bytes(zero, raster), Lanes::low_bytes(out, zero)),
                                 blend_half(Lanes::high_bytes(zero, raster), Lanes::high_bytes(out, zero)));
    }

    static Columns find_columns(const ResizeRow& row, int first) {
        const std::int64_t x = row.first_x + first * row.step_x;
        const Int steps = Lanes::mul_low(Lanes::lane_numbers(), Lanes::set(static_cast<int>(row.step_x)));
        const Int offset = Lanes::add(steps, Lanes::set(static_cast<int>(x & 0xffff)));
        const Int left = Lanes::add(Lanes::template shift_right<16>(offset), Lanes::set(static_cast<int>(x >> 16)));
        const Int right = Lanes::add(left, Lanes::set(1));
        const Int fraction = Lanes::bit_and(offset, Lanes::set(0xffff));
        const Int both = Lanes::bit_or(fraction, Lanes::template shift_left<16>(fraction));

        const Int zero = Lanes::set(0);
        const Int last = Lanes::set(row.source_width - 1);
        const Int left_missing = Lanes::bit_or(Lanes::greater(zero, left), Lanes::greater(left, last));
        const Int right_missing = Lanes::bit_or(Lanes::greater(zero, right), Lanes::greater(right, last));
        return {Lanes::max(zero, Lanes::min(left, last)), Lanes::max(zero, Lanes::min(right, last)),
                Lanes::bit_and_not(left_missing, Lanes::bit_xor(both, Lanes::set(-1))),
                Lanes::bit_and_not(right_missing, both)};
    }

    static Int mix(Int a, Int b, Int weight_a, Int weight_b) {
        return Lanes::add_16(Lanes::mul_high_16(a, weight_a), Lanes::mul_high_16(b, weight_b));
    }

    // Rounds 16 bits to the upper byte.
    static Int round_bytes(Int value) {
        return Lanes::template shift_right_16<8>(Lanes::add_16(value, Lanes::set_16(128)));
    }

    static Int resize(const Rows& rows, const Columns& columns) {
        const Int above_left = Lanes::load_word(rows.above, columns.left);
        const Int above_right = Lanes::load_word(rows.above, columns.right);
        const Int below_left = Lanes::load_word(rows.below, columns.left);
        const Int below_right = Lanes::load_word(rows.below, columns.right);
        const auto low = [](Int pixels) { return Lanes::low_bytes(Lanes::set(0), pixels); };
        const auto high = [](Int pixels) { return Lanes::high_bytes(Lanes::set(0), pixels); };
        const Int left_low = mix(low(above_left), low(below_left), rows.weight_above, rows.weight_below);
        const Int left_high = mix(high(above_left), high(below_left), rows.weight_above, rows.weight_below);
        const Int right_low = mix(low(above_right), low(below_right), rows.weight_above, rows.weight_below);
        const Int right_high = mix(high(above_right), high(below_right), rows.weight_above, rows.weight_below);
        const Int low_pixels = mix(left_low, right_low, Lanes::low_lanes(columns.weight_left, columns.weight_left),
                                   Lanes::low_lanes(columns.weight_right, columns.weight_right));
        const Int high_pixels = mix(left_high, right_high, Lanes::high_lanes(columns.weight_left, columns.weight_left),
                                    Lanes::high_lanes(columns.weight_right, columns.weight_right));
        return Lanes::pack_bytes(round_bytes(low_pixels), round_bytes(high_pixels));
    }
};

}  // namespace

}  // namespace ip_volr::kernels
