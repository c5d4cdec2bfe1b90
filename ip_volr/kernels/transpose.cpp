#include "ip_volr/kernels/transpose.h"

#include <algorithm>
#include <cstddef>

namespace ip_volr::kernels {

namespace {

// Walks tiles of one cache line by as many lines, so that rows at strides of a power of two, which share few cache
// sets, are finished before they are thrown out.
template <class Element>
void transpose_tiled(const Element* source, Element* destination, int columns, int rows, int source_stride,
                     int destination_stride) {
    constexpr int kTile = static_cast<int>(64 / sizeof(Element));
    for (int y0 = 0; y0 < rows; y0 += kTile) {
        const int y1 = std::min(rows, y0 + kTile);
        for (int x0 = 0; x0 < columns; x0 += kTile) {
            const int x1 = std::min(columns, x0 + kTile);
            for (int x = x0; x < x1; x++) {
                const Element* from = source + x;
                Element* to = destination + static_cast<std::ptrdiff_t>(x) * destination_stride;
                for (int y = y0; y < y1; y++) {
                    to[y] = from[static_cast<std::ptrdiff_t>(y) * source_stride];
                }
            }
        }
    }
}

void add_scalar(TransposeKernels& table) {
    table.transpose_16 = transpose_tiled<std::uint16_t>;
    table.transpose_32 = transpose_tiled<std::uint32_t>;
}

}  // namespace

const TransposeKernels& transpose_kernels() {
#if defined(__x86_64__)
    static const KernelFamily<TransposeKernels> family(add_scalar, add_transpose_sse41, add_transpose_avx2);
#else
    static const KernelFamily<TransposeKernels> family(add_scalar, nullptr, nullptr);
#endif
    return family.in_force();
}

}  // namespace ip_volr::kernels
