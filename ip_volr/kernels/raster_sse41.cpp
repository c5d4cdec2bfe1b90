#include "ip_volr/IP_VOLRC_ListRay.h"
#include "ip_volr/kernels/lanes_sse41.h"
#include "ip_volr/kernels/raster_lanes.h"

namespace ip_volr::kernels {

namespace {

// Four pixels.
struct Sse41Pixels : Sse41Lanes {
    static Int load_first(const std::uint32_t* pixels, int count) {
        alignas(16) std::uint32_t buffer[4] = {};
        for (int i = 0; i < count; i++) {
            buffer[i] = pixels[i];
        }
        return load(buffer);
    }
    static void store_first(std::uint32_t* pixels, Int value, int count) {
        alignas(16) std::uint32_t buffer[4];
        store(buffer, value);
        for (int i = 0; i < count; i++) {
            pixels[i] = buffer[i];
        }
    }
    // Transparency, blue, green and red of rays 0 and 1, none beyond `last`.
    static Int load_fields(const _listRay* ray, int last) {
        const auto load = [ray, last](int i) {
            return _mm_loadl_epi64(reinterpret_cast<const __m128i*>(&ray[i <= last ? i : 0].transparency));
        };
        return _mm_unpacklo_epi64(load(0), load(1));
    }
};

}  // namespace

void fill_raster_sse41(RasterKernels& table) {
    using Rows = RasterRows<Sse41Pixels>;
    table = {Rows::rays_to_pixels, Rows::blend_row, Rows::resize_row};
}

}  // namespace ip_volr::kernels
