#include <smmintrin.h>

#include "ip_volr/kernels/ray_cast_job.h"
#include "ip_volr/kernels/ray_cast_lanes.h"

namespace ip_volr::kernels {

namespace {

// For each set of four lanes, the bytes that bring them to the front in ascending order.
struct CompressOrders {
    std::uint8_t bytes[16][16];
};

constexpr CompressOrders make_compress_orders() {
    CompressOrders orders{};
    for (int mask = 0; mask < 16; mask++) {
        int next = 0;
        for (int lane = 0; lane < 4; lane++) {
            for (int byte = 0; (mask >> lane & 1) != 0 && byte < 4; byte++) {
                orders.bytes[mask][next++] = static_cast<std::uint8_t>(4 * lane + byte);
            }
        }
    }
    return orders;
}

constexpr CompressOrders kCompressOrders = make_compress_orders();

// Four lanes of 32 bits.
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
    static Int load_word(const std::uint32_t* words, Int index) { return load_each(words, index); }
    static Int load_byte(const std::int8_t* bytes, Int index) { return load_each(bytes, index); }

    // words[index] and words[index + 1] of each lane.
    static void load_2(const std::uint32_t* words, Int index, Int& first, Int& second) {
        load_halves(words, index, first, second);
    }
    // The low and the high half of the 64 bits at elements + index of each lane.
    template <class T>
    static void load_halves(const T* elements, Int index, Int& first, Int& second) {
        const __m128 a = load_2_of_2(elements + lane(index, 0), elements + lane(index, 1));
        const __m128 b = load_2_of_2(elements + lane(index, 2), elements + lane(index, 3));
        first = _mm_castps_si128(_mm_shuffle_ps(a, b, 0x88));
        second = _mm_castps_si128(_mm_shuffle_ps(a, b, 0xdd));
    }
    static __m128 load_2_of_2(const void* low, const void* high) {
        const __m128i lower = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(low));
        return _mm_loadh_pi(_mm_castsi128_ps(lower), reinterpret_cast<const __m64*>(high));
    }

    // words[index] to words[index + 3] of each lane.
    static void load_4(const std::uint32_t* words, Int index, Int (&out)[4]) {
        const Int lane_0 = load(words + lane(index, 0));
        const Int lane_1 = load(words + lane(index, 1));
        const Int lane_2 = load(words + lane(index, 2));
        const Int lane_3 = load(words + lane(index, 3));
        const Int a = _mm_unpacklo_epi32(lane_0, lane_1);
        const Int b = _mm_unpacklo_epi32(lane_2, lane_3);
        const Int c = _mm_unpackhi_epi32(lane_0, lane_1);
        const Int d = _mm_unpackhi_epi32(lane_2, lane_3);
        out[0] = _mm_unpacklo_epi64(a, b);
        out[1] = _mm_unpackhi_epi64(a, b);
        out[2] = _mm_unpacklo_epi64(c, d);
        out[3] = _mm_unpackhi_epi64(c, d);
    }

    static Int compress_order(int lanes) { return load(kCompressOrders.bytes[lanes]); }
    template <class T>
    static void store_compressed(T* words, Int value, Int order) {
        store(words, _mm_shuffle_epi8(value, order));
    }

    // Sums are four 16-bit fields: blue, green, red and one unused.
    static void clear_sums(std::uint16_t* sums) {
        _mm_storel_epi64(reinterpret_cast<__m128i*>(sums), _mm_setzero_si128());
    }
    static void add_to_sums(std::uint16_t* sums, std::uint32_t blue_red, std::uint32_t green) {
        const std::uint64_t light = (blue_red & 0xffff) | green << 16 | std::uint64_t{blue_red >> 16} << 32;
        const __m128i old = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(sums));
        const __m128i sum = _mm_adds_epu16(old, _mm_cvtsi64_si128(static_cast<long long>(light)));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(sums), sum);
    }
};

void cast(const RayCastJob& job) {
    RayCaster<Sse41Lanes>(job).cast();
}

}  // namespace

void fill_ray_cast_sse41(RayCastKernels& table) {
    table.cast = cast;
}

}  // namespace ip_volr::kernels
