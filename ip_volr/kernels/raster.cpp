#include "ip_volr/kernels/raster.h"

#include "ip_volr/kernels/instruction_set.h"
#include "ip_volr/kernels/raster_rows.h"

namespace ip_volr::kernels {

namespace {

const RasterKernels& raster_kernels() {
    static const KernelFamily<RasterKernels> family(fill_raster_scalar, fill_raster_sse41, fill_raster_avx2);
    return family.in_force();
}

// 16.16 distance between two output pixels in the source.
std::int64_t resize_step(int source_size, int output_size) {
    return static_cast<std::int64_t>(static_cast<double>(source_size) / output_size * 65536.0);
}

const std::uint32_t* find_row(const ResizeFrame& frame, std::int64_t row) {
    return row >= 0 && row < frame.source_height ? frame.source + row * frame.source_width : nullptr;
}

}  // namespace

void rays_to_pixels(const _listRay* rays, int count, std::uint16_t transparency_threshold, std::uint32_t* pixels) {
    raster_kernels().rays_to_pixels(rays, count, transparency_threshold, pixels);
}

void blend_row(const std::uint32_t* raster, int count, std::uint32_t* out) {
    raster_kernels().blend_row(raster, count, out);
}

void resize_rows(const ResizeFrame& frame, int first_row, int last_row) {
    if (frame.output_width <= 0 || frame.output_height <= 0) {
        return;
    }
    const RasterKernels& kernels = raster_kernels();
    const std::int64_t step_x = resize_step(frame.source_width, frame.output_width);
    const std::int64_t step_y = resize_step(frame.source_height, frame.output_height);
    for (int row = first_row; row < last_row; row++) {
        const std::int64_t y = step_y / 2 + row * step_y - 32768;
        const ResizeRow kernel_row = {find_row(frame, y >> 16), find_row(frame, (y >> 16) + 1),
                                      frame.source_width,       static_cast<std::uint32_t>(y & 0xffff),
                                      step_x / 2 - 32768,       step_x};
        kernels.resize_row(kernel_row, frame.output_width, frame.output + std::int64_t{row} * frame.output_width);
    }
}

}  // namespace ip_volr::kernels
