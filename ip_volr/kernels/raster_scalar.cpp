#include <algorithm>
#include <cstdint>

#include "ip_volr/IP_VOLRC_ListRay.h"
#include "ip_volr/kernels/raster_rows.h"

namespace ip_volr::kernels {

namespace {

// The factor, of 131072, that makes a byte of a ray's field, with the light that a ray ended early did not collect.
std::uint32_t brightness(std::uint32_t transparency, std::uint32_t threshold) {
    const std::uint32_t t = transparency / 2;
    return t >= threshold / 2 ? 32767u : std::min(32767u + t + 2 * (t * t / 65536), 65535u);
}

std::uint32_t field_byte(std::uint32_t field, std::uint32_t factor) {
    return std::min(field * factor / 131072, 16383u) / 64;
}

void rays_to_pixels(const _listRay* rays, int count, std::uint16_t threshold, std::uint32_t* pixels) {
    for (int i = 0; i < count; i++) {
        const _listRay& ray = rays[i];
        const std::uint32_t factor = brightness(ray.transparency, threshold);
        pixels[i] = field_byte(ray.transparency, factor) << 24 | field_byte(ray.colour[2], factor) << 16 |
                    field_byte(ray.colour[1], factor) << 8 | field_byte(ray.colour[0], factor);
    }
}

std::uint32_t byte_of(std::uint32_t pixel, int index) {
    return pixel >> (8 * index) & 0xff;
}

void blend_row(const std::uint32_t* raster, int count, std::uint32_t* out) {
    for (int i = 0; i < count; i++) {
        const std::uint32_t alpha = raster[i] >> 24;
        std::uint32_t pixel = 0;
        for (int c = 0; c < 4; c++) {
            const std::uint32_t sum = byte_of(raster[i], c) * 256 + byte_of(out[i], c) * alpha;
            pixel |= std::min(sum, 65535u) / 256 << (8 * c);
        }
        out[i] = pixel;
    }
}

std::uint32_t source_pixel(const ResizeRow& row, const std::uint32_t* pixels, std::int64_t x) {
    return pixels != nullptr && x >= 0 && x < row.source_width ? pixels[x] : 0;
}

// a * (65535 - f) + b * f on a scale of 65536, each product rounded down.
std::uint32_t mix(std::uint32_t a, std::uint32_t b, std::uint32_t fraction) {
    return (a * (65535 - fraction) >> 16) + (b * fraction >> 16);
}

void resize_row(const ResizeRow& row, int count, std::uint32_t* out) {
    for (int i = 0; i < count; i++) {
        const std::int64_t x = row.first_x + i * row.step_x;
        const auto fraction_x = static_cast<std::uint32_t>(x & 0xffff);
        const std::uint32_t corners[4] = {
            source_pixel(row, row.above, x >> 16), source_pixel(row, row.above, (x >> 16) + 1),
            source_pixel(row, row.below, x >> 16), source_pixel(row, row.below, (x >> 16) + 1)};
        std::uint32_t pixel = 0;
        for (int c = 0; c < 4; c++) {
            // Bytes take the upper half of 16 bits; rounding at the end makes good what the products lose.
            const std::uint32_t left = mix(byte_of(corners[0], c) << 8, byte_of(corners[2], c) << 8, row.fraction_y);
            const std::uint32_t right = mix(byte_of(corners[1], c) << 8, byte_of(corners[3], c) << 8, row.fraction_y);
            pixel |= std::min((mix(left, right, fraction_x) + 128) / 256, 255u) << (8 * c);
        }
        out[i] = pixel;
    }
}

}  // namespace

void fill_raster_scalar(RasterKernels& table) {
    table = {rays_to_pixels, blend_row, resize_row};
}

}  // namespace ip_volr::kernels
