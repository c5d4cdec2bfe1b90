// Registers of AVX2 and what kernels do with them. Included by the files of that instruction set only.
#pragma once

#include <immintrin.h>

#include <cstdint>

namespace ip_volr::kernels {

namespace {

// Eight lanes of 32 bits, or sixteen words of 16 bits where a name says so.
struct Avx2Lanes {
    using Int = __m256i;
    using Float = __m256;
    static constexpr int kCount = 8;

    static Int set(std::int32_t value) { return _mm256_set1_epi32(value); }
    static Float set(float value) { return _mm256_set1_ps(value); }
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
        return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(words));
    }
    template <class T>
    static void store(T* words, Int value) {
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(words), value);
    }
    static Int lane_numbers() { return _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7); }
    static Int first_lanes(int count) { return _mm256_cmpgt_epi32(_mm256_set1_epi32(count), lane_numbers()); }
    static Int only_lane(int lane) { return _mm256_cmpeq_epi32(_mm256_set1_epi32(lane), lane_numbers()); }

    static Int add(Int a, Int b) { return _mm256_add_epi32(a, b); }
    static Int sub(Int a, Int b) { return _mm256_sub_epi32(a, b); }
    static Int mul_low(Int a, Int b) { return _mm256_mullo_epi32(a, b); }
    static Int min(Int a, Int b) { return _mm256_min_epi32(a, b); }
    static Int max(Int a, Int b) { return _mm256_max_epi32(a, b); }
    static Int absolute(Int a) { return _mm256_abs_epi32(a); }
    template <int bits>
    static Int shift_left(Int a) {
        return _mm256_slli_epi32(a, bits);
    }
    template <int bits>
    static Int shift_right(Int a) {
        return _mm256_srli_epi32(a, bits);
    }
    template <int bits>
    static Int shift_right_signed(Int a) {
        return _mm256_srai_epi32(a, bits);
    }
    static Int bit_and(Int a, Int b) { return _mm256_and_si256(a, b); }
    static Int bit_and_not(Int a, Int b) { return _mm256_andnot_si256(a, b); }
    static Int bit_or(Int a, Int b) { return _mm256_or_si256(a, b); }
    static Int bit_xor(Int a, Int b) { return _mm256_xor_si256(a, b); }
    // The low 16 bits of `low` and the high 16 bits of `high`.
    static Int low_and_high_16(Int low, Int high) { return _mm256_blend_epi16(low, high, 0xaa); }
    static Int greater(Int a, Int b) { return _mm256_cmpgt_epi32(a, b); }
    static Int select(Int mask, Int a, Int b) { return _mm256_blendv_epi8(b, a, mask); }
    static int mask(Int a) { return _mm256_movemask_ps(_mm256_castsi256_ps(a)); }
    static int count_bits(int bits) { return __builtin_popcount(static_cast<unsigned>(bits)); }

    static Int madd(Int a, Int b) { return _mm256_madd_epi16(a, b); }
    static Int mul_high_16(Int a, Int b) { return _mm256_mulhi_epu16(a, b); }
    static Int add_saturated_16(Int a, Int b) { return _mm256_adds_epu16(a, b); }
    // The value in every 16 bits where `tested` is not 0 there.
    static Int keep_where_not_zero_16(Int tested, Int value) {
        return _mm256_andnot_si256(_mm256_cmpeq_epi16(tested, _mm256_setzero_si256()), value);
    }
    static Int saturating_product_16(Int a, Int b) {
        const Int fits = _mm256_cmpeq_epi16(_mm256_mulhi_epu16(a, b), _mm256_setzero_si256());
        const Int overflow = _mm256_xor_si256(fits, _mm256_set1_epi32(-1));
        return _mm256_or_si256(_mm256_mullo_epi16(a, b), overflow);
    }

    static Float to_float(Int a) { return _mm256_cvtepi32_ps(a); }
    static Int round(Float a) { return _mm256_cvtps_epi32(a); }
    static Int truncate(Float a) { return _mm256_cvttps_epi32(a); }
    static Float add(Float a, Float b) { return _mm256_add_ps(a, b); }
    static Float sub(Float a, Float b) { return _mm256_sub_ps(a, b); }
    static Float mul(Float a, Float b) { return _mm256_mul_ps(a, b); }
    static Float div(Float a, Float b) { return _mm256_div_ps(a, b); }
    static Float sqrt(Float a) { return _mm256_sqrt_ps(a); }
    static Float min(Float a, Float b) { return _mm256_min_ps(a, b); }
    static Float max(Float a, Float b) { return _mm256_max_ps(a, b); }
    static Float keep_where_greater(Float a, Float b, Float value) {
        return _mm256_and_ps(_mm256_cmp_ps(a, b, _CMP_GT_OQ), value);
    }

    // words[index] of each lane. Plain loads take half the time of the gather.
    static Int load_word(const std::uint32_t* words, Int index) {
        const __m128i low = load_4_words(words, _mm256_castsi256_si128(index));
        const __m128i high = load_4_words(words, _mm256_extracti128_si256(index, 1));
        return _mm256_inserti128_si256(_mm256_castsi128_si256(low), high, 1);
    }
    static __m128i load_4_words(const std::uint32_t* words, __m128i index) {
        const auto indices_01 = static_cast<std::uint64_t>(_mm_cvtsi128_si64(index));
        const auto indices_23 = static_cast<std::uint64_t>(_mm_extract_epi64(index, 1));
        __m128i out = _mm_cvtsi32_si128(static_cast<int>(words[indices_01 & 0xffffffff]));
        out = _mm_insert_epi32(out, static_cast<int>(words[indices_01 >> 32]), 1);
        out = _mm_insert_epi32(out, static_cast<int>(words[indices_23 & 0xffffffff]), 2);
        return _mm_insert_epi32(out, static_cast<int>(words[indices_23 >> 32]), 3);
    }

    // Words of 16 bits.
    static Int set_16(int value) { return _mm256_set1_epi16(static_cast<short>(value)); }
    static Int add_16(Int a, Int b) { return _mm256_add_epi16(a, b); }
    static Int mul_low_16(Int a, Int b) { return _mm256_mullo_epi16(a, b); }
    // (a b + 2^14) / 2^15 of signed words.
    static Int mul_rounded_16(Int a, Int b) { return _mm256_mulhrs_epi16(a, b); }
    static Int min_16(Int a, Int b) { return _mm256_min_epi16(a, b); }
    static Int max_16(Int a, Int b) { return _mm256_max_epi16(a, b); }
    static Int min_unsigned_16(Int a, Int b) { return _mm256_min_epu16(a, b); }
    static Int max_unsigned_16(Int a, Int b) { return _mm256_max_epu16(a, b); }
    static Int greater_16(Int a, Int b) { return _mm256_cmpgt_epi16(a, b); }
    template <int bits>
    static Int shift_left_16(Int a) {
        return _mm256_slli_epi16(a, bits);
    }
    template <int bits>
    static Int shift_right_16(Int a) {
        return _mm256_srli_epi16(a, bits);
    }

    // The signed lanes of a and b as words, saturated.
    static Int pack_words(Int a, Int b) { return _mm256_permute4x64_epi64(_mm256_packs_epi32(a, b), 0xD8); }

    // Bytes.
    static Int pack_bytes(Int a, Int b) { return _mm256_packus_epi16(a, b); }
    static Int shuffle_bytes(Int a, Int order) { return _mm256_shuffle_epi8(a, order); }

    // These work within each 128 bits.
    static Int low_bytes(Int a, Int b) { return _mm256_unpacklo_epi8(a, b); }
    static Int high_bytes(Int a, Int b) { return _mm256_unpackhi_epi8(a, b); }
    static Int low_words(Int a, Int b) { return _mm256_unpacklo_epi16(a, b); }
    static Int high_words(Int a, Int b) { return _mm256_unpackhi_epi16(a, b); }
    // The signed lanes of a and b as words, saturated. They are in order when the lanes of a have these numbers, and
    // those of b four more.
    static Int pack_words_within(Int a, Int b) { return _mm256_packs_epi32(a, b); }
    static Int lane_numbers_of_low_words() { return _mm256_setr_epi32(0, 1, 2, 3, 8, 9, 10, 11); }
    static Int low_lanes(Int a, Int b) { return _mm256_unpacklo_epi32(a, b); }
    static Int high_lanes(Int a, Int b) { return _mm256_unpackhi_epi32(a, b); }
    // The first word of each four in all four.
    static Int first_of_four_16(Int a) { return _mm256_shufflehi_epi16(_mm256_shufflelo_epi16(a, 0), 0); }
    static Int repeat(__m128i bits) { return _mm256_broadcastsi128_si256(bits); }
    template <int bits>
    static Int shift_left_64(Int a) {
        return _mm256_slli_epi64(a, bits);
    }
    template <int bits>
    static Int shift_right_64(Int a) {
        return _mm256_srli_epi64(a, bits);
    }
    template <int chosen>
    static Int blend_16(Int a, Int b) {
        return _mm256_blend_epi16(a, b, chosen);
    }
};

}  // namespace

}  // namespace ip_volr::kernels
