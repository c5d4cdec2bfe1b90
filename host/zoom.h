// Zoom: warps 16-bit images with linear interpolation.
#pragma once

#include "host/geometry.h"
#include "host/host_export.h"

// For each pixel (x, y) of the destination (dimensions of the destination box, rows without gaps), the source position
// is (x, y, 0, 1) times the 2-D part of `matrix` (rows 0, 1 and 3, columns 0 and 1). Source positions count from the
// corner of the first pixel: source pixel (i, j) has its centre at (i + 0.5, j + 0.5). The value is interpolated
// bilinearly between the four source pixels around the position. Positions outside the source see nothing; within half
// a pixel of its border, where neighbours are missing, the border pixel counts.
//
// Over: a pixel that sees nothing, or a value below `floor`, becomes `floor`; everything is overwritten.
// Max: the pixel becomes the maximum of its old value and the new one; a pixel that sees nothing keeps its value. The
// floor does not count.
// Values are signed 16-bit.
IP_HOST_API void LinShearZoomShortMax(const float matrix[4][4], const IP_Dims* src_box, const IP_Dims* dst_box,
                                      const short* src, short* dst, int floor);
IP_HOST_API void LinShearZoomShortOver(const float matrix[4][4], const IP_Dims* src_dims, const IP_Dims* dst_dims,
                                       const short* src, short* dst, int floor, const IP_BoxParams* src_params,
                                       const IP_BoxParams* dst_params);
