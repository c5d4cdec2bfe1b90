// Reduction of a picture by 2 in both directions that keeps the brightest voxel.
#pragma once

#include "ip_volr/kernels/instruction_set.h"

#include <cstdint>

namespace ip_volr::kernels {

struct ReduceKernels {
    // destination[i] = the largest of row_a[2i], row_a[2i + 1], row_b[2i], row_b[2i + 1], for i in [0, count). The rows
    // may be one and the same; any count and alignment.
    void (*maximum_2x2)(const std::int16_t* row_a, const std::int16_t* row_b, std::int16_t* destination, int count);
};

const ReduceKernels& reduce_kernels();

void add_reduce_sse41(ReduceKernels& table);
void add_reduce_avx2(ReduceKernels& table);

}  // namespace ip_volr::kernels
