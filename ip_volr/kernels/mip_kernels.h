// Kernels of the maximum-intensity projection: rows of signed 16-bit pixels.
//
// Counts may be 0; pointers need no alignment; source and destination do not overlap.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ip_volr::kernels {

// Weights of bilinear resampling in 1/32768. For pixel i of a row the sample is
//     (a0 * near[i] + a1 * near[i + step] + b0 * far[i] + b1 * far[i + step] + 16384) >> 15
// (arithmetic shift, saturated to 16 bits), where `step` is 1 or -1: the neighbour column that takes part. The four
// weights are between 0 and 32767 and their sum is 32768.
struct MipBilinear {
    std::int16_t a0;  // near row, own column
    std::int16_t a1;  // near row, neighbour column
    std::int16_t b0;  // far row, own column
    std::int16_t b1;  // far row, neighbour column
    int step;
};

// A weight that runs linearly along a row: pixel i has (start + i * step) >> 16 in 1/32768, limited to 0 to 32767.
// The host of the kernels keeps start + i * step inside 32 bits over the row.
struct MipWeightRamp {
    std::int32_t start;
    std::int32_t step;
};

struct MipKernels {
    // dst[i] = value
    void (*fill)(std::int16_t* dst, std::size_t count, std::int16_t value);
    // dst[i] = max(dst[i], src[i])
    void (*max_row)(std::int16_t* dst, const std::int16_t* src, std::size_t count);
    // dst[i] = max(dst[i], (src[i] * weight(i) + 16384) >> 15)
    void (*max_row_weighted)(std::int16_t* dst, const std::int16_t* src, std::size_t count, MipWeightRamp weight);
    // dst[i] = max(dst[i], sample(i)); reads near and far at i and i + step for i in [0, count)
    void (*max_row_bilinear)(std::int16_t* dst, const std::int16_t* near_row, const std::int16_t* far_row,
                             std::size_t count, const MipBilinear& weights);
    // dst[i] = sample(i)
    void (*row_bilinear)(std::int16_t* dst, const std::int16_t* near_row, const std::int16_t* far_row,
                         std::size_t count, const MipBilinear& weights);
    // dst[y * dst_stride + x] = src[x * src_stride + y] for x < columns, y < rows: `columns` source rows become
    // columns. `next` is where the following transposition of the same shape will read, or null: its beginning is
    // called in.
    void (*transpose)(std::int16_t* dst, std::size_t dst_stride, const std::int16_t* src, std::size_t src_stride,
                      std::size_t columns, std::size_t rows, const std::int16_t* next);
};

// The scalar kernels by name: the others leave the ends of rows to them.
namespace mip_scalar {

void max_row(std::int16_t* dst, const std::int16_t* src, std::size_t count);
void max_row_weighted(std::int16_t* dst, const std::int16_t* src, std::size_t count, MipWeightRamp weight);
void max_row_bilinear(std::int16_t* dst, const std::int16_t* near_row, const std::int16_t* far_row, std::size_t count,
                      const MipBilinear& weights);
void row_bilinear(std::int16_t* dst, const std::int16_t* near_row, const std::int16_t* far_row, std::size_t count,
                  const MipBilinear& weights);
void transpose(std::int16_t* dst, std::size_t dst_stride, const std::int16_t* src, std::size_t src_stride,
               std::size_t columns, std::size_t rows);

}  // namespace mip_scalar

void add_mip_scalar(MipKernels& table);
void add_mip_sse41(MipKernels& table);
void add_mip_avx2(MipKernels& table);

// The kernels of the instruction set in force.
const MipKernels& mip_kernels();

}  // namespace ip_volr::kernels
