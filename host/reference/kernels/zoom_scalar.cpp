// Scalar rows of the zoom: they define the result.
#include <stddef.h>
#include <stdint.h>

#include "host/reference/kernels/zoom_rows.h"

namespace reference_host::zoom {

namespace {

constexpr float kFractionUnit = 1.0F / 16777216.0F;

float fraction_of(int64_t position) {
    return static_cast<float>(static_cast<int32_t>(static_cast<uint32_t>(position) >> 8)) * kFractionUnit;
}

int32_t interpolate(const Run& run, int64_t x, int64_t y) {
    const int16_t* const upper = run.src + (y >> 32) * run.src_width + (x >> 32);
    const int16_t* const lower = upper + run.src_width;
    const float fx = fraction_of(x);
    const float top = static_cast<float>(upper[0]) + static_cast<float>(upper[1] - upper[0]) * fx;
    const float bottom = static_cast<float>(lower[0]) + static_cast<float>(lower[1] - lower[0]) * fx;
    const float value = top + (bottom - top) * fraction_of(y) + 0.5F;

    // Floor: truncation, one less where that rounded up.
    const int32_t truncated = static_cast<int32_t>(value);
    return truncated - (static_cast<float>(truncated) > value ? 1 : 0);
}

void over_scalar(const Run& run, int16_t floor_value) {
    for (int32_t i = 0; i < run.count; ++i) {
        const int32_t value = interpolate(run, run.x + i * run.step_x, run.y + i * run.step_y);
        run.dst[i] = static_cast<int16_t>(value > floor_value ? value : floor_value);
    }
}

void max_scalar(const Run& run) {
    for (int32_t i = 0; i < run.count; ++i) {
        const int32_t value = interpolate(run, run.x + i * run.step_x, run.y + i * run.step_y);
        run.dst[i] = static_cast<int16_t>(value > run.dst[i] ? value : run.dst[i]);
    }
}

}  // namespace

const Kernels kScalar = {over_scalar, max_scalar};

}  // namespace reference_host::zoom
