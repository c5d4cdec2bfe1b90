// Registers of SSE4.1 and what kernels do with them. Included by the files of that instruction set only.
#pragma once

#include <smmintrin.h>

#include <cstdint>

namespace ip_volr::kernels {

namespace {

// Four lanes of 32 bits, or eight words of 16 bits where a name says so.
struct Sse41Lanes {
    using Int = __m128i;
    using Float = __m128;
    static constexpr int kCount = 4;

    static Int set(std::int32_t value) { return _mm_set1_epi32(value); }
    static Float set(float value) { return _mm_set1_ps(value); }
    // The value, as if it were not known.
    static Int hide(Int value) {
        __asm__("" : "+x"(value));
        return value;
    }
    static Float hide(Float value) {
        __asm__("" : "+x"(value));
        return value;
    }
    template <class T>
    static Int load(const T* words) {
        return _mm_loadu_si128(reinterpret_cast<const __m128i*>(words));
    }
    template <class T>
    static void store(T* words, Int value) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(words), value);
    }
    static Int lane_numbers() { return _mm_setr_epi32(0, 1, 2, 3); }
    static Int first_lanes(int count) { return _mm_cmpgt_epi32(_mm_set1_epi32(count), lane_numbers()); }
    static Int only_lane(int lane) { return _mm_cmpeq_epi32(_mm_set1_epi32(lane), lane_numbers()); }

    static Int add(Int a, Int b) { return _mm_add_epi32(a, b); }
    static Int sub(Int a, Int b) { return _mm_sub_epi32(a, b); }
    static Int mul_low(Int a, Int b) { return _mm_mullo_epi32(a, b); }
    static Int min(Int a, Int b) { return _mm_min_epi32(a, b); }
    static Int max(Int a, Int b) { return _mm_max_epi32(a, b); }
    static Int absolute(Int a) { return _mm_abs_epi32(a); }
    template <int bits>
    static Int shift_left(Int a) {
        return _mm_slli_epi32(a, bits);
    }
    template <int bits>
    static Int shift_right(Int a) {
        return _mm_srli_epi32(a, bits);
    }
    template <int bits>
    static Int shift_right_signed(Int a) {
        return _mm_srai_epi32(a, bits);
    }
    static Int bit_and(Int a, Int b) { return _mm_and_si128(a, b); }
    static Int bit_and_not(Int a, Int b) { return _mm_andnot_si128(a, b); }
    static Int bit_or(Int a, Int b) { return _mm_or_si128(a, b); }
    static Int bit_xor(Int a, Int b) { return _mm_xor_si128(a, b); }
    // The low 16 bits of `low` and the high 16 bits of `high`.
    static Int low_and_high_16(Int low, Int high) { return _mm_blend_epi16(low, high, 0xaa); }
    static Int greater(Int a, Int b) { return _mm_cmpgt_epi32(a, b); }
    static Int select(Int mask, Int a, Int b) { return _mm_blendv_epi8(b, a, mask); }
    static int mask(Int a) { return _mm_movemask_ps(_mm_castsi128_ps(a)); }
    static int count_bits(int bits) { return (bits & 1) + (bits >> 1 & 1) + (bits >> 2 & 1) + (bits >> 3 & 1); }

    static Int madd(Int a, Int b) { return _mm_madd_epi16(a, b); }
    static Int mul_high_16(Int a, Int b) { return _mm_mulhi_epu16(a, b); }
    static Int add_saturated_16(Int a, Int b) { return _mm_adds_epu16(a, b); }
    // The value in every 16 bits where `tested` is not 0 there.
    static Int keep_where_not_zero_16(Int tested, Int value) {
        return _mm_andnot_si128(_mm_cmpeq_epi16(tested, _mm_setzero_si128()), value);
    }
    static Int saturating_product_16(Int a, Int b) {
        const Int fits = _mm_cmpeq_epi16(_mm_mulhi_epu16(a, b), _mm_setzero_si128());
        const Int overflow = _mm_xor_si128(fits, _mm_set1_epi32(-1));
        return _mm_or_si128(_mm_mullo_epi16(a, b), overflow);
    }

    static Float to_float(Int a) { return _mm_cvtepi32_ps(a); }
    static Int round(Float a) { return _mm_cvtps_epi32(a); }
    static Int truncate(Float a) { return _mm_cvttps_epi32(a); }
    static Float add(Float a, Float b) { return _mm_add_ps(a, b); }
    static Float sub(Float a, Float b) { return _mm_sub_ps(a, b); }
    static Float mul(Float a, Float b) { return _mm_mul_ps(a, b); }
    static Float div(Float a, Float b) { return _mm_div_ps(a, b); }
    static Float sqrt(Float a) { return _mm_sqrt_ps(a); }
    static Float min(Float a, Float b) { return _mm_min_ps(a, b); }
    static Float max(Float a, Float b) { return _mm_max_ps(a, b); }
    static Float keep_where_greater(Float a, Float b, Float value) { return _mm_and_ps(_mm_cmpgt_ps(a, b), value); }

    static std::uint32_t lane(Int a, int i) {
        return static_cast<std::uint32_t>(i == 0   ? _mm_extract_epi32(a, 0)
                                          : i == 1 ? _mm_extract_epi32(a, 1)
                                          : i == 2 ? _mm_extract_epi32(a, 2)
                                                   : _mm_extract_epi32(a, 3));
    }
    template <class T>
    static Int load_each(const T* values, Int index) {
        return _mm_setr_epi32(static_cast<int>(values[lane(index, 0)]), static_cast<int>(values[lane(index, 1)]),
                              static_cast<int>(values[lane(index, 2)]), static_cast<int>(values[lane(index, 3)]));
    }
    // words[index] of each lane.
    static Int load_word(const std::uint32_t* words, Int index) { return load_each(words, index); }

    // Words of 16 bits.
    static Int set_16(int value) { return _mm_set1_epi16(static_cast<short>(value)); }
    static Int add_16(Int a, Int b) { return _mm_add_epi16(a, b); }
    static Int mul_low_16(Int a, Int b) { return _mm_mullo_epi16(a, b); }
    // (a b + 2^14) / 2^15 of signed words.
    static Int mul_rounded_16(Int a, Int b) { return _mm_mulhrs_epi16(a, b); }
    static Int min_16(Int a, Int b) { return _mm_min_epi16(a, b); }
    static Int max_16(Int a, Int b) { return _mm_max_epi16(a, b); }
    static Int min_unsigned_16(Int a, Int b) { return _mm_min_epu16(a, b); }
    static Int max_unsigned_16(Int a, Int b) { return _mm_max_epu16(a, b); }
    static Int greater_16(Int a, Int b) { return _mm_cmpgt_epi16(a, b); }
    template <int bits>
    static Int shift_left_16(Int a) {
        return _mm_slli_epi16(a, bits);
    }
    template <int bits>
    static Int shift_right_16(Int a) {
        return _mm_srli_epi16(a, bits);
    }

    // The signed lanes of a and b as words, saturated.
    static Int pack_words(Int a, Int b) { return _mm_packs_epi32(a, b); }

    // Bytes.
    static Int pack_bytes(Int a, Int b) { return _mm_packus_epi16(a, b); }
    static Int shuffle_bytes(Int a, Int order) { return _mm_shuffle_epi8(a, order); }

    // These work within each 128 bits.
    static Int low_bytes(Int a, Int b) { return _mm_unpacklo_epi8(a, b); }
    static Int high_bytes(Int a, Int b) { return _mm_unpackhi_epi8(a, b); }
    static Int low_words(Int a, Int b) { return _mm_unpacklo_epi16(a, b); }
    static Int high_words(Int a, Int b) { return _mm_unpackhi_epi16(a, b); }
    // The signed lanes of a and b as words, saturated. They are in order when the lanes of a have these numbers, and
    // those of b four more.
    static Int pack_words_within(Int a, Int b) { return _mm_packs_epi32(a, b); }
    static Int lane_numbers_of_low_words() { return _mm_setr_epi32(0, 1, 2, 3); }
    static Int low_lanes(Int a, Int b) { return _mm_unpacklo_epi32(a, b); }
    static Int high_lanes(Int a, Int b) { return _mm_unpackhi_epi32(a, b); }
    // The first word of each four in all four.
    static Int first_of_four_16(Int a) { return _mm_shufflehi_epi16(_mm_shufflelo_epi16(a, 0), 0); }
    static Int repeat(__m128i bits) { return bits; }
    template <int bits>
    static Int shift_left_64(Int a) {
        return _mm_slli_epi64(a, bits);
    }
    template <int bits>
    static Int shift_right_64(Int a) {
        return _mm_srli_epi64(a, bits);
    }
    template <int chosen>
    static Int blend_16(Int a, Int b) {
        return _mm_blend_epi16(a, b, chosen);
    }
};

}  // namespace

}  // namespace ip_volr::kernels
