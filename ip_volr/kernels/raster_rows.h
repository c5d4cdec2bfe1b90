// The kernels behind raster.h, by instruction set.
#pragma once

#include <cstdint>

struct _listRay;

namespace ip_volr::kernels {

// Two source rows and where a row of the enlarged picture lies between them. Null rows count as 0.
struct ResizeRow {
    const std::uint32_t* above;
    const std::uint32_t* below;
    int source_width;
    std::uint32_t fraction_y;  // weight of `below`, of 65536
    std::int64_t first_x;      // 16.16 source position of the first output pixel
    std::int64_t step_x;       // from one output pixel to the next
};

struct RasterKernels {
    void (*rays_to_pixels)(const _listRay* rays, int count, std::uint16_t threshold, std::uint32_t* pixels);
    void (*blend_row)(const std::uint32_t* raster, int count, std::uint32_t* out);
    void (*resize_row)(const ResizeRow& row, int count, std::uint32_t* out);
};

void fill_raster_scalar(RasterKernels& table);
void fill_raster_sse41(RasterKernels& table);
void fill_raster_avx2(RasterKernels& table);

}  // namespace ip_volr::kernels
