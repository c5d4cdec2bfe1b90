#include "ip_volr/kernels/lanes_avx2.h"
#include "ip_volr/kernels/ray_cast_job.h"
#include "ip_volr/kernels/ray_cast_lanes.h"

namespace ip_volr::kernels {

namespace {

// For each set of lanes, their numbers in ascending order.
struct CompressOrders {
    std::uint8_t lanes[256][8];
};

constexpr CompressOrders make_compress_orders() {
    CompressOrders orders{};
    for (int mask = 0; mask < 256; mask++) {
        int next = 0;
        for (int lane = 0; lane < 8; lane++) {
            if ((mask >> lane & 1) != 0) {
                orders.lanes[mask][next++] = static_cast<std::uint8_t>(lane);
            }
        }
    }
    return orders;
}

constexpr CompressOrders kCompressOrders = make_compress_orders();

// What only the ray caster does with them.
struct Avx2Rays : Avx2Lanes {
    static Int load_byte(const std::int8_t* bytes, Int index) {
        const Int words = _mm256_i32gather_epi32(reinterpret_cast<const int*>(bytes), index, 1);
        return _mm256_srai_epi32(_mm256_slli_epi32(words, 24), 24);
    }

    // 64 bits for each of lanes 2i (low) and 2i + 1 (high), whose indices share 64 bits. Plain loads beat the gather.
    template <class T>
    static __m128i load_2_of_2(const T* elements, std::uint64_t indices) {
        const __m128i low = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(elements + (indices & 0xffffffff)));
        const auto* const high = reinterpret_cast<const __m64*>(elements + (indices >> 32));
        return _mm_castps_si128(_mm_loadh_pi(_mm_castsi128_ps(low), high));
    }

    // words[index] and words[index + 1] of each lane.
    static void load_2(const std::uint32_t* words, Int index, Int& first, Int& second) {
        load_halves(words, index, first, second);
    }
    // The low and the high half of the 64 bits at elements + index of each lane.
    template <class T>
    static void load_halves(const T* elements, Int index, Int& first, Int& second) {
        const __m128i low = _mm256_castsi256_si128(index);
        const __m128i high = _mm256_extracti128_si256(index, 1);
        const __m128i lanes_01 = load_2_of_2(elements, static_cast<std::uint64_t>(_mm_cvtsi128_si64(low)));
        const __m128i lanes_23 = load_2_of_2(elements, static_cast<std::uint64_t>(_mm_extract_epi64(low, 1)));
        const __m128i lanes_45 = load_2_of_2(elements, static_cast<std::uint64_t>(_mm_cvtsi128_si64(high)));
        const __m128i lanes_67 = load_2_of_2(elements, static_cast<std::uint64_t>(_mm_extract_epi64(high, 1)));
        const __m256 a = _mm256_castsi256_ps(_mm256_inserti128_si256(_mm256_castsi128_si256(lanes_01), lanes_45, 1));
        const __m256 b = _mm256_castsi256_ps(_mm256_inserti128_si256(_mm256_castsi128_si256(lanes_23), lanes_67, 1));
        first = _mm256_castps_si256(_mm256_shuffle_ps(a, b, 0x88));
        second = _mm256_castps_si256(_mm256_shuffle_ps(a, b, 0xdd));
    }

    // words[index] to words[index + 3] of each lane.
    static void load_4(const std::uint32_t* words, Int index, Int (&out)[4]) {
        alignas(32) std::uint32_t indices[8];
        _mm256_store_si256(reinterpret_cast<__m256i*>(indices), index);
        __m256i pairs[4];
        for (int i = 0; i < 4; i++) {
            const __m128i low = _mm_loadu_si128(reinterpret_cast<const __m128i*>(words + indices[i]));
            const __m128i high = _mm_loadu_si128(reinterpret_cast<const __m128i*>(words + indices[i + 4]));
            pairs[i] = _mm256_inserti128_si256(_mm256_castsi128_si256(low), high, 1);
        }
        const __m256i a = _mm256_unpacklo_epi32(pairs[0], pairs[1]);
        const __m256i b = _mm256_unpacklo_epi32(pairs[2], pairs[3]);
        const __m256i c = _mm256_unpackhi_epi32(pairs[0], pairs[1]);
        const __m256i d = _mm256_unpackhi_epi32(pairs[2], pairs[3]);
        out[0] = _mm256_unpacklo_epi64(a, b);
        out[1] = _mm256_unpackhi_epi64(a, b);
        out[2] = _mm256_unpacklo_epi64(c, d);
        out[3] = _mm256_unpackhi_epi64(c, d);
    }

    static Int compress_order(int lanes) {
        return _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(kCompressOrders.lanes[lanes])));
    }
    template <class T>
    static void store_compressed(T* words, Int value, Int order) {
        store(words, _mm256_permutevar8x32_epi32(value, order));
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
    RayCaster<Avx2Rays>(job).cast();
}

}  // namespace

void fill_ray_cast_avx2(RayCastKernels& table) {
    table.cast = cast;
}

}  // namespace ip_volr::kernels
