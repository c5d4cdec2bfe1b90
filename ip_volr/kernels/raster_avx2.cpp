#include "ip_volr/IP_VOLRC_ListRay.h"
#include "ip_volr/kernels/lanes_avx2.h"
#include "ip_volr/kernels/raster_lanes.h"

namespace ip_volr::kernels {

namespace {

// Eight pixels.
struct Avx2Pixels : Avx2Lanes {
    static Int load_first(const std::uint32_t* pixels, int count) {
        return _mm256_maskload_epi32(reinterpret_cast<const int*>(pixels), first_lanes(count));
    }
    static void store_first(std::uint32_t* pixels, Int value, int count) {
        _mm256_maskstore_epi32(reinterpret_cast<int*>(pixels), first_lanes(count), value);
    }
    // Transparency, blue, green and red of rays 0, 1 (low half) and 4, 5 (high half), none beyond `last`.
    static Int load_fields(const _listRay* ray, int last) {
        const auto load = [ray, last](int i) {
            return _mm_loadl_epi64(reinterpret_cast<const __m128i*>(&ray[i <= last ? i : 0].transparency));
        };
        const __m128i low = _mm_unpacklo_epi64(load(0), load(1));
        const __m128i high = _mm_unpacklo_epi64(load(4), load(5));
        return _mm256_inserti128_si256(_mm256_castsi128_si256(low), high, 1);
    }
};

}  // namespace

void fill_raster_avx2(RasterKernels& table) {
    using Rows = RasterRows<Avx2Pixels>;
    table = {Rows::rays_to_pixels, Rows::blend_row, Rows::resize_row};
}

}  // namespace ip_volr::kernels
