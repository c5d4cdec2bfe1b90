#include "host/zoom.h"

#include <algorithm>
#include <cmath>

namespace {

// The interpolated value at a source position that is known to lie inside.
int sample(const short* src, int width, int height, double x, double y) {
    const double cx = std::clamp(x, 0.0, width - 1.0);
    const double cy = std::clamp(y, 0.0, height - 1.0);
    const int ix = static_cast<int>(cx);
    const int iy = static_cast<int>(cy);
    const int jx = std::min(ix + 1, width - 1);
    const int jy = std::min(iy + 1, height - 1);
    const short* const upper = src + static_cast<std::size_t>(iy) * width;
    const short* const lower = src + static_cast<std::size_t>(jy) * width;
    const double fx = cx - ix;
    const double top = upper[ix] + (upper[jx] - upper[ix]) * fx;
    const double bottom = lower[ix] + (lower[jx] - lower[ix]) * fx;
    return static_cast<int>(std::floor(top + (bottom - top) * (cy - iy) + 0.5));
}

void warp(const float m[4][4], const IP_Dims* src_dims, const IP_Dims* dst_dims, const short* src, short* dst,
          int floor_value, bool keep_maximum) {
    if (src_dims == nullptr || dst_dims == nullptr || src == nullptr || dst == nullptr) {
        return;
    }
    int s[3];
    int d[3];
    src_dims->GetDims(s);
    dst_dims->GetDims(d);
    const int floor_short = std::clamp(floor_value, -32768, 32767);
    for (int y = 0; y < d[1]; ++y) {
        for (int x = 0; x < d[0]; ++x) {
            const double sx = static_cast<double>(x) * m[0][0] + static_cast<double>(y) * m[1][0] + m[3][0];
            const double sy = static_cast<double>(x) * m[0][1] + static_cast<double>(y) * m[1][1] + m[3][1];
            const bool sees = sx >= -0.5 && sx <= s[0] - 0.5 && sy >= -0.5 && sy <= s[1] - 0.5 && s[0] > 0 && s[1] > 0;
            short& pixel = dst[static_cast<std::size_t>(y) * d[0] + x];
            const int value = sees ? sample(src, s[0], s[1], sx, sy) : -32768;
            pixel = static_cast<short>(std::max<int>(value, keep_maximum ? pixel : floor_short));
        }
    }
}

}  // namespace

void LinShearZoomShortMax(const float matrix[4][4], const IP_Dims* src_box, const IP_Dims* dst_box, const short* src,
                          short* dst, int floor) {
    warp(matrix, src_box, dst_box, src, dst, floor, true);
}

void LinShearZoomShortOver(const float matrix[4][4], const IP_Dims* src_dims, const IP_Dims* dst_dims, const short* src,
                           short* dst, int floor, const IP_BoxParams* /*src_params*/,
                           const IP_BoxParams* /*dst_params*/) {
    warp(matrix, src_dims, dst_dims, src, dst, floor, false);
}
