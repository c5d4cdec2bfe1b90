// Rows of the zoom: 16-bit pixels interpolated bilinearly along a straight line through the source.
//
// Positions are fixed-point numbers with 32 fractional bits, in source pixels, integers at pixel centres. The
// fraction's upper 24 bits become a float, and
//
//     top    = a + (b - a) * fx        a b   the four pixels around the position
//     bottom = c + (d - c) * fx        c d
//     value  = floor(top + (bottom - top) * fy + 0.5)
//
// in single precision in just this order, so that all instruction sets agree to the last bit. Differences of 16-bit
// values are exact; the value is off by less than a hundredth of a grey level.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace reference_host::zoom {

// A straight run of destination pixels all of whose four neighbours lie inside the source.
struct Run {
    const int16_t* src;  // first row of the source
    int32_t src_width;   // pixels from one source row to the next; width * height is below 2^30
    int16_t* dst;
    int32_t count;
    int64_t x;  // position of the first pixel
    int64_t y;
    int64_t step_x;  // from one pixel to the next
    int64_t step_y;
};

struct Kernels {
    // dst = max(value, floor_value)
    void (*over)(const Run& run, int16_t floor_value);
    // dst = max(value, dst)
    void (*max)(const Run& run);
};

extern const Kernels kScalar;
extern const Kernels kSse41;
extern const Kernels kAvx2;

}  // namespace reference_host::zoom
