#include <smmintrin.h>

#include "ip_volr/IP_VOLRC_ListRay.h"
#include "ip_volr/kernels/raster_rows.h"

namespace ip_volr::kernels {

namespace {

__m128i load_pixels(const std::uint32_t* pixels) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(pixels));
}

void store_pixels(std::uint32_t* pixels, __m128i value) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(pixels), value);
}

// Stores the first `count` of four pixels.
void store_some(std::uint32_t* pixels, __m128i value, int count) {
    if (count >= 4) {
        store_pixels(pixels, value);
        return;
    }
    alignas(16) std::uint32_t buffer[4];
    store_pixels(buffer, value);
    for (int i = 0; i < count; i++) {
        pixels[i] = buffer[i];
    }
}

// ---- Rays to pixels ----

// Transparency, blue, green and red of two rays, in this order.
__m128i load_fields(const _listRay& first, const _listRay& second) {
    const __m128i low = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(&first.transparency));
    const __m128i high = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(&second.transparency));
    return _mm_unpacklo_epi64(low, high);
}

// The fields of two rays as bytes in the low half of 16 bits each.
__m128i brighten(__m128i fields, __m128i half_threshold) {
    const __m128i transparency = _mm_shufflehi_epi16(_mm_shufflelo_epi16(fields, 0), 0);
    const __m128i t = _mm_srli_epi16(transparency, 1);
    const __m128i plain = _mm_set1_epi16(32767);
    const __m128i boost = _mm_slli_epi16(_mm_mulhi_epu16(t, t), 1);
    const __m128i bright = _mm_adds_epu16(_mm_add_epi16(plain, t), boost);
    const __m128i factor = _mm_blendv_epi8(plain, bright, _mm_cmpgt_epi16(half_threshold, t));
    const __m128i scaled = _mm_srli_epi16(_mm_mulhi_epu16(fields, factor), 1);
    return _mm_srli_epi16(_mm_min_epu16(scaled, _mm_set1_epi16(16383)), 6);
}

void rays_to_pixels(const _listRay* rays, int count, std::uint16_t threshold, std::uint32_t* pixels) {
    const __m128i half_threshold = _mm_set1_epi16(static_cast<short>(threshold / 2));
    // From transparency, blue, green, red to blue, green, red, transparency.
    const __m128i order = _mm_setr_epi8(1, 2, 3, 0, 5, 6, 7, 4, 9, 10, 11, 8, 13, 14, 15, 12);
    for (int i = 0; i < count; i += 4) {
        const int last = count - 1;
        const _listRay* const ray = rays + i;
        const __m128i low = load_fields(ray[0], ray[i + 1 <= last ? 1 : 0]);
        const __m128i high = load_fields(ray[i + 2 <= last ? 2 : 0], ray[i + 3 <= last ? 3 : 0]);
        const __m128i bytes = _mm_packus_epi16(brighten(low, half_threshold), brighten(high, half_threshold));
        store_some(pixels + i, _mm_shuffle_epi8(bytes, order), count - i);
    }
}

// ---- Blending ----

// Blends two pixels, given as bytes in the upper (raster) and lower (out) half of 16 bits each.
__m128i blend_two(__m128i raster_high, __m128i out) {
    const __m128i alpha_bytes = _mm_setr_epi8(7, -1, 7, -1, 7, -1, 7, -1, 15, -1, 15, -1, 15, -1, 15, -1);
    const __m128i through = _mm_mullo_epi16(out, _mm_shuffle_epi8(raster_high, alpha_bytes));
    return _mm_srli_epi16(_mm_adds_epu16(raster_high, through), 8);
}

__m128i blend_four(__m128i raster, __m128i out) {
    const __m128i zero = _mm_setzero_si128();
    return _mm_packus_epi16(blend_two(_mm_unpacklo_epi8(zero, raster), _mm_unpacklo_epi8(out, zero)),
                            blend_two(_mm_unpackhi_epi8(zero, raster), _mm_unpackhi_epi8(out, zero)));
}

void blend_row(const std::uint32_t* raster, int count, std::uint32_t* out) {
    int i = 0;
    for (; i + 4 <= count; i += 4) {
        store_pixels(out + i, blend_four(load_pixels(raster + i), load_pixels(out + i)));
    }
    for (; i < count; i++) {
        const __m128i pixel =
            blend_four(_mm_cvtsi32_si128(static_cast<int>(raster[i])), _mm_cvtsi32_si128(static_cast<int>(out[i])));
        out[i] = static_cast<std::uint32_t>(_mm_cvtsi128_si32(pixel));
    }
}

// ---- Enlargement ----

struct Rows {
    const std::uint32_t* above;
    const std::uint32_t* below;
    __m128i weight_above, weight_below;  // 0 for a row that is missing
};

// Where four output pixels lie in the source: neighbours, and their weights (0 when beyond the source), doubled to both
// halves of 32 bits.
struct Columns {
    __m128i left, right;
    __m128i weight_left, weight_right;
};

Columns find_columns(const ResizeRow& row, int first) {
    const std::int64_t x = row.first_x + first * row.step_x;
    const __m128i steps = _mm_mullo_epi32(_mm_setr_epi32(0, 1, 2, 3), _mm_set1_epi32(static_cast<int>(row.step_x)));
    const __m128i offset = _mm_add_epi32(steps, _mm_set1_epi32(static_cast<int>(x & 0xffff)));
    const __m128i left = _mm_add_epi32(_mm_srli_epi32(offset, 16), _mm_set1_epi32(static_cast<int>(x >> 16)));
    const __m128i right = _mm_add_epi32(left, _mm_set1_epi32(1));
    const __m128i fraction = _mm_and_si128(offset, _mm_set1_epi32(0xffff));
    const __m128i both = _mm_or_si128(fraction, _mm_slli_epi32(fraction, 16));

    const __m128i zero = _mm_setzero_si128();
    const __m128i last = _mm_set1_epi32(row.source_width - 1);
    const __m128i left_missing = _mm_or_si128(_mm_cmpgt_epi32(zero, left), _mm_cmpgt_epi32(left, last));
    const __m128i right_missing = _mm_or_si128(_mm_cmpgt_epi32(zero, right), _mm_cmpgt_epi32(right, last));
    return {_mm_max_epi32(zero, _mm_min_epi32(left, last)), _mm_max_epi32(zero, _mm_min_epi32(right, last)),
            _mm_andnot_si128(left_missing, _mm_xor_si128(both, _mm_set1_epi32(-1))),
            _mm_andnot_si128(right_missing, both)};
}

__m128i gather_pixels(const std::uint32_t* pixels, __m128i index) {
    return _mm_setr_epi32(
        static_cast<int>(pixels[_mm_extract_epi32(index, 0)]), static_cast<int>(pixels[_mm_extract_epi32(index, 1)]),
        static_cast<int>(pixels[_mm_extract_epi32(index, 2)]), static_cast<int>(pixels[_mm_extract_epi32(index, 3)]));
}

__m128i mix(__m128i a, __m128i b, __m128i weight_a, __m128i weight_b) {
    return _mm_add_epi16(_mm_mulhi_epu16(a, weight_a), _mm_mulhi_epu16(b, weight_b));
}

// Rounds 16 bits to the upper byte.
__m128i round_bytes(__m128i value) {
    return _mm_srli_epi16(_mm_add_epi16(value, _mm_set1_epi16(128)), 8);
}

__m128i resize_four(const Rows& rows, const Columns& columns) {
    const __m128i above_left = gather_pixels(rows.above, columns.left);
    const __m128i above_right = gather_pixels(rows.above, columns.right);
    const __m128i below_left = gather_pixels(rows.below, columns.left);
    const __m128i below_right = gather_pixels(rows.below, columns.right);
    const __m128i zero = _mm_setzero_si128();
    const auto low = [zero](__m128i pixels) { return _mm_unpacklo_epi8(zero, pixels); };
    const auto high = [zero](__m128i pixels) { return _mm_unpackhi_epi8(zero, pixels); };
    const __m128i left_low = mix(low(above_left), low(below_left), rows.weight_above, rows.weight_below);
    const __m128i left_high = mix(high(above_left), high(below_left), rows.weight_above, rows.weight_below);
    const __m128i right_low = mix(low(above_right), low(below_right), rows.weight_above, rows.weight_below);
    const __m128i right_high = mix(high(above_right), high(below_right), rows.weight_above, rows.weight_below);
    const __m128i low_pixels = mix(left_low, right_low, _mm_unpacklo_epi32(columns.weight_left, columns.weight_left),
                                   _mm_unpacklo_epi32(columns.weight_right, columns.weight_right));
    const __m128i high_pixels = mix(left_high, right_high, _mm_unpackhi_epi32(columns.weight_left, columns.weight_left),
                                    _mm_unpackhi_epi32(columns.weight_right, columns.weight_right));
    return _mm_packus_epi16(round_bytes(low_pixels), round_bytes(high_pixels));
}

void resize_row(const ResizeRow& row, int count, std::uint32_t* out) {
    if ((row.above == nullptr && row.below == nullptr) || row.source_width <= 0) {
        for (int i = 0; i < count; i++) {
            out[i] = 0;
        }
        return;
    }
    const int weight_above = row.above != nullptr ? static_cast<int>(65535 - row.fraction_y) : 0;
    const int weight_below = row.below != nullptr ? static_cast<int>(row.fraction_y) : 0;
    const Rows rows = {row.above != nullptr ? row.above : row.below, row.below != nullptr ? row.below : row.above,
                       _mm_set1_epi16(static_cast<short>(weight_above)),
                       _mm_set1_epi16(static_cast<short>(weight_below))};
    for (int i = 0; i < count; i += 4) {
        store_some(out + i, resize_four(rows, find_columns(row, i)), count - i);
    }
}

}  // namespace

void fill_raster_sse41(RasterKernels& table) {
    table = {rays_to_pixels, blend_row, resize_row};
}

}  // namespace ip_volr::kernels
