#include <immintrin.h>

#include "ip_volr/IP_VOLRC_ListRay.h"
#include "ip_volr/kernels/raster_rows.h"

namespace ip_volr::kernels {

namespace {

__m256i load_pixels(const std::uint32_t* pixels) {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(pixels));
}

void store_pixels(std::uint32_t* pixels, __m256i value) {
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(pixels), value);
}

// Lanes below `count`.
__m256i first_lanes(int count) {
    return _mm256_cmpgt_epi32(_mm256_set1_epi32(count), _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7));
}

// Stores the first `count` of eight pixels.
void store_some(std::uint32_t* pixels, __m256i value, int count) {
    if (count >= 8) {
        store_pixels(pixels, value);
    } else {
        _mm256_maskstore_epi32(reinterpret_cast<int*>(pixels), first_lanes(count), value);
    }
}

// ---- Rays to pixels ----

// Transparency, blue, green and red of rays 0, 1 (low half) and 4, 5 (high half) from `ray` on, none beyond `last`.
__m256i load_fields(const _listRay* ray, int last) {
    const auto load = [ray, last](int i) {
        const _listRay& chosen = ray[i <= last ? i : 0];
        return _mm_loadl_epi64(reinterpret_cast<const __m128i*>(&chosen.transparency));
    };
    const __m128i low = _mm_unpacklo_epi64(load(0), load(1));
    const __m128i high = _mm_unpacklo_epi64(load(4), load(5));
    return _mm256_inserti128_si256(_mm256_castsi128_si256(low), high, 1);
}

// The fields of four rays as bytes in the low half of 16 bits each.
__m256i brighten(__m256i fields, __m256i half_threshold) {
    const __m256i transparency = _mm256_shufflehi_epi16(_mm256_shufflelo_epi16(fields, 0), 0);
    const __m256i t = _mm256_srli_epi16(transparency, 1);
    const __m256i plain = _mm256_set1_epi16(32767);
    const __m256i boost = _mm256_slli_epi16(_mm256_mulhi_epu16(t, t), 1);
    const __m256i bright = _mm256_adds_epu16(_mm256_add_epi16(plain, t), boost);
    const __m256i factor = _mm256_blendv_epi8(plain, bright, _mm256_cmpgt_epi16(half_threshold, t));
    const __m256i scaled = _mm256_srli_epi16(_mm256_mulhi_epu16(fields, factor), 1);
    return _mm256_srli_epi16(_mm256_min_epu16(scaled, _mm256_set1_epi16(16383)), 6);
}

void rays_to_pixels(const _listRay* rays, int count, std::uint16_t threshold, std::uint32_t* pixels) {
    const __m256i half_threshold = _mm256_set1_epi16(static_cast<short>(threshold / 2));
    // From transparency, blue, green, red to blue, green, red, transparency.
    const __m256i order =
        _mm256_broadcastsi128_si256(_mm_setr_epi8(1, 2, 3, 0, 5, 6, 7, 4, 9, 10, 11, 8, 13, 14, 15, 12));
    for (int i = 0; i < count; i += 8) {
        const int last = count - 1 - i;
        const bool has_third = last >= 2;
        const __m256i low = load_fields(rays + i, last);
        const __m256i high = has_third ? load_fields(rays + i + 2, last - 2) : low;
        const __m256i bytes = _mm256_packus_epi16(brighten(low, half_threshold), brighten(high, half_threshold));
        store_some(pixels + i, _mm256_shuffle_epi8(bytes, order), count - i);
    }
}

// ---- Blending ----

// Blends four pixels, given as bytes in the upper (raster) and lower (out) half of 16 bits each.
__m256i blend_four(__m256i raster_high, __m256i out) {
    const __m256i alpha_bytes =
        _mm256_broadcastsi128_si256(_mm_setr_epi8(7, -1, 7, -1, 7, -1, 7, -1, 15, -1, 15, -1, 15, -1, 15, -1));
    const __m256i through = _mm256_mullo_epi16(out, _mm256_shuffle_epi8(raster_high, alpha_bytes));
    return _mm256_srli_epi16(_mm256_adds_epu16(raster_high, through), 8);
}

__m256i blend_eight(__m256i raster, __m256i out) {
    const __m256i zero = _mm256_setzero_si256();
    return _mm256_packus_epi16(blend_four(_mm256_unpacklo_epi8(zero, raster), _mm256_unpacklo_epi8(out, zero)),
                               blend_four(_mm256_unpackhi_epi8(zero, raster), _mm256_unpackhi_epi8(out, zero)));
}

void blend_row(const std::uint32_t* raster, int count, std::uint32_t* out) {
    int i = 0;
    for (; i + 8 <= count; i += 8) {
        store_pixels(out + i, blend_eight(load_pixels(raster + i), load_pixels(out + i)));
    }
    if (i < count) {
        const __m256i lanes = first_lanes(count - i);
        const __m256i front = _mm256_maskload_epi32(reinterpret_cast<const int*>(raster + i), lanes);
        const __m256i back = _mm256_maskload_epi32(reinterpret_cast<const int*>(out + i), lanes);
        _mm256_maskstore_epi32(reinterpret_cast<int*>(out + i), lanes, blend_eight(front, back));
    }
}

// ---- Enlargement ----

struct Rows {
    const std::uint32_t* above;
    const std::uint32_t* below;
    __m256i weight_above, weight_below;  // 0 for a row that is missing
};

// Where eight output pixels lie in the source: neighbours, and their weights (0 when beyond the source), doubled to
// both halves of 32 bits.
struct Columns {
    __m256i left, right;
    __m256i weight_left, weight_right;
};

Columns find_columns(const ResizeRow& row, int first) {
    const std::int64_t x = row.first_x + first * row.step_x;
    const __m256i steps =
        _mm256_mullo_epi32(_mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7), _mm256_set1_epi32(static_cast<int>(row.step_x)));
    const __m256i offset = _mm256_add_epi32(steps, _mm256_set1_epi32(static_cast<int>(x & 0xffff)));
    const __m256i left = _mm256_add_epi32(_mm256_srli_epi32(offset, 16), _mm256_set1_epi32(static_cast<int>(x >> 16)));
    const __m256i right = _mm256_add_epi32(left, _mm256_set1_epi32(1));
    const __m256i fraction = _mm256_and_si256(offset, _mm256_set1_epi32(0xffff));
    const __m256i both = _mm256_or_si256(fraction, _mm256_slli_epi32(fraction, 16));

    const __m256i zero = _mm256_setzero_si256();
    const __m256i last = _mm256_set1_epi32(row.source_width - 1);
    const __m256i left_missing = _mm256_or_si256(_mm256_cmpgt_epi32(zero, left), _mm256_cmpgt_epi32(left, last));
    const __m256i right_missing = _mm256_or_si256(_mm256_cmpgt_epi32(zero, right), _mm256_cmpgt_epi32(right, last));
    return {_mm256_max_epi32(zero, _mm256_min_epi32(left, last)), _mm256_max_epi32(zero, _mm256_min_epi32(right, last)),
            _mm256_andnot_si256(left_missing, _mm256_xor_si256(both, _mm256_set1_epi32(-1))),
            _mm256_andnot_si256(right_missing, both)};
}

__m256i gather_pixels(const std::uint32_t* pixels, __m256i index) {
    return _mm256_i32gather_epi32(reinterpret_cast<const int*>(pixels), index, 4);
}

__m256i mix(__m256i a, __m256i b, __m256i weight_a, __m256i weight_b) {
    return _mm256_add_epi16(_mm256_mulhi_epu16(a, weight_a), _mm256_mulhi_epu16(b, weight_b));
}

// Rounds 16 bits to the upper byte.
__m256i round_bytes(__m256i value) {
    return _mm256_srli_epi16(_mm256_add_epi16(value, _mm256_set1_epi16(128)), 8);
}

__m256i resize_eight(const Rows& rows, const Columns& columns) {
    const __m256i above_left = gather_pixels(rows.above, columns.left);
    const __m256i above_right = gather_pixels(rows.above, columns.right);
    const __m256i below_left = gather_pixels(rows.below, columns.left);
    const __m256i below_right = gather_pixels(rows.below, columns.right);
    const __m256i zero = _mm256_setzero_si256();
    const auto low = [zero](__m256i pixels) { return _mm256_unpacklo_epi8(zero, pixels); };
    const auto high = [zero](__m256i pixels) { return _mm256_unpackhi_epi8(zero, pixels); };
    const __m256i left_low = mix(low(above_left), low(below_left), rows.weight_above, rows.weight_below);
    const __m256i left_high = mix(high(above_left), high(below_left), rows.weight_above, rows.weight_below);
    const __m256i right_low = mix(low(above_right), low(below_right), rows.weight_above, rows.weight_below);
    const __m256i right_high = mix(high(above_right), high(below_right), rows.weight_above, rows.weight_below);
    const __m256i low_pixels = mix(left_low, right_low, _mm256_unpacklo_epi32(columns.weight_left, columns.weight_left),
                                   _mm256_unpacklo_epi32(columns.weight_right, columns.weight_right));
    const __m256i high_pixels =
        mix(left_high, right_high, _mm256_unpackhi_epi32(columns.weight_left, columns.weight_left),
            _mm256_unpackhi_epi32(columns.weight_right, columns.weight_right));
    return _mm256_packus_epi16(round_bytes(low_pixels), round_bytes(high_pixels));
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
                       _mm256_set1_epi16(static_cast<short>(weight_above)),
                       _mm256_set1_epi16(static_cast<short>(weight_below))};
    for (int i = 0; i < count; i += 8) {
        store_some(out + i, resize_eight(rows, find_columns(row, i)), count - i);
    }
}

}  // namespace

void fill_raster_avx2(RasterKernels& table) {
    table = {rays_to_pixels, blend_row, resize_row};
}

}  // namespace ip_volr::kernels
