// Rows of pixels: rays to pixels, blending over the host's picture, bilinear enlargement.
//
// Pixels are 32 bits, 0xAARRGGBB: premultiplied colour, and in the top byte the transparency through which shines what
// lies behind (0 is opaque).
#pragma once

#include <cstdint>

struct _listRay;

namespace ip_volr::kernels {

// Turns `count` rays, consecutive in memory, into pixels. A ray that ended below `transparency_threshold` is brightened
// for the light that it did not live to collect:
//   f = 32767, or below the threshold (t = transparency / 2) min(65535, 32767 + t + 2 ((t t) div 65536));
//   each field c (transparency, red, green, blue) becomes the byte min((c f) div 131072, 16383) div 64.
void rays_to_pixels(const _listRay* rays, int count, std::uint16_t transparency_threshold, std::uint32_t* pixels);

// Composites `count` pixels of the raster over the host's: each byte, the top one included, becomes
//   min(255, (raster 256 + out raster_alpha) div 256), sums saturating at 65535. `raster` and `out` do not overlap.
void blend_row(const std::uint32_t* raster, int count, std::uint32_t* out);

// A picture to be enlarged and the raster that takes it; rows follow each other without gaps. Sizes in pixels, at
// least 0; the output is at least as large as the source on each axis.
struct ResizeFrame {
    const std::uint32_t* source;
    int source_width, source_height;
    std::uint32_t* output;
    int output_width, output_height;
};

// Writes rows [first_row, last_row) of the output: bilinear interpolation of each byte between the four nearest pixel
// centres, with 16 bits of fraction, rounded to nearest. Pixel centres beyond the source count as 0, so the outermost
// half pixel fades to opaque black. Source and output do not overlap; tasks may write different rows at the same time.
void resize_rows(const ResizeFrame& frame, int first_row, int last_row);

}  // namespace ip_volr::kernels
