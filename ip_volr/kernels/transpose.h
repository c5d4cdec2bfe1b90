// Transposition of pictures of 16-bit and 32-bit elements.
#pragma once

#include "ip_volr/kernels/instruction_set.h"

#include <cstdint>

namespace ip_volr::kernels {

// destination[x * destination_stride + y] = source[y * source_stride + x] for y in [0, rows), x in [0, columns);
// strides in elements, no overlap, any size and alignment.
struct TransposeKernels {
    void (*transpose_16)(const std::uint16_t* source, std::uint16_t* destination, int columns, int rows,
                         int source_stride, int destination_stride);
    void (*transpose_32)(const std::uint32_t* source, std::uint32_t* destination, int columns, int rows,
                         int source_stride, int destination_stride);
};

const TransposeKernels& transpose_kernels();

void add_transpose_sse41(TransposeKernels& table);
void add_transpose_avx2(TransposeKernels& table);

}  // namespace ip_volr::kernels
