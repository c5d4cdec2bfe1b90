#include "ip_volr/kernels/lanes_sse41.h"
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

// What only the ray caster does with them.
struct Sse41Rays : Sse41Lanes {
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
    RayCaster<Sse41Rays>(job).cast();
}

}  // namespace

void fill_ray_cast_sse41(RayCastKernels& table) {
    table.cast = cast;
}

}  // namespace ip_volr::kernels
