// Scalar kernels of the maximum-intensity projection: they define the results.
#include "ip_volr/kernels/mip_kernels.h"

namespace ip_volr::kernels {

namespace {

std::int16_t saturate(std::int32_t v) {
    return static_cast<std::int16_t>(v < -32768 ? -32768 : v > 32767 ? 32767 : v);
}

std::int16_t larger(std::int16_t a, std::int16_t b) {
    return a > b ? a : b;
}

std::int16_t weighted(std::int16_t v, std::int32_t weight_q31) {
    const std::int32_t weight = weight_q31 >> 16;
    return static_cast<std::int16_t>((v * (weight < 0 ? 0 : weight) + 16384) >> 15);
}

// The sum cannot overflow: its weights add up to 2^15, so its magnitude stays within 2^30.
std::int16_t sample(const std::int16_t* near_row, const std::int16_t* far_row, std::ptrdiff_t i, const MipBilinear& w) {
    const std::int32_t sum =
        w.a0 * near_row[i] + w.a1 * near_row[i + w.step] + w.b0 * far_row[i] + w.b1 * far_row[i + w.step];
    return saturate((sum + 16384) >> 15);
}

void transpose(std::int16_t* dst, std::size_t dst_stride, const std::int16_t* src, std::size_t src_stride,
               std::size_t columns, std::size_t rows, const std::int16_t*) {
    mip_scalar::transpose(dst, dst_stride, src, src_stride, columns, rows);
}

void fill(std::int16_t* dst, std::size_t count, std::int16_t value) {
    for (std::size_t i = 0; i < count; i++) {
        dst[i] = value;
    }
}

}  // namespace

namespace mip_scalar {

void max_row(std::int16_t* dst, const std::int16_t* src, std::size_t count) {
    for (std::size_t i = 0; i < count; i++) {
        dst[i] = larger(dst[i], src[i]);
    }
}

void max_row_weighted(std::int16_t* dst, const std::int16_t* src, std::size_t count, MipWeightRamp weight) {
    // Unsigned arithmetic: the value behind the last pixel may wrap and is not used.
    std::uint32_t w = static_cast<std::uint32_t>(weight.start);
    for (std::size_t i = 0; i < count; i++) {
        dst[i] = larger(dst[i], weighted(src[i], static_cast<std::int32_t>(w)));
        w += static_cast<std::uint32_t>(weight.step);
    }
}

void max_row_bilinear(std::int16_t* dst, const std::int16_t* near_row, const std::int16_t* far_row, std::size_t count,
                      const MipBilinear& weights) {
    for (std::size_t i = 0; i < count; i++) {
        dst[i] = larger(dst[i], sample(near_row, far_row, static_cast<std::ptrdiff_t>(i), weights));
    }
}

void row_bilinear(std::int16_t* dst, const std::int16_t* near_row, const std::int16_t* far_row, std::size_t count,
                  const MipBilinear& weights) {
    for (std::size_t i = 0; i < count; i++) {
        dst[i] = sample(near_row, far_row, static_cast<std::ptrdiff_t>(i), weights);
    }
}

void transpose(std::int16_t* dst, std::size_t dst_stride, const std::int16_t* src, std::size_t src_stride,
               std::size_t columns, std::size_t rows) {
    for (std::size_t x = 0; x < columns; x++) {
        for (std::size_t y = 0; y < rows; y++) {
            dst[y * dst_stride + x] = src[x * src_stride + y];
        }
    }
}

}  // namespace mip_scalar

void add_mip_scalar(MipKernels& table) {
    table.fill = fill;
    table.max_row = mip_scalar::max_row;
    table.max_row_weighted = mip_scalar::max_row_weighted;
    table.max_row_bilinear = mip_scalar::max_row_bilinear;
    table.row_bilinear = mip_scalar::row_bilinear;
    table.transpose = transpose;
}

}  // namespace ip_volr::kernels
