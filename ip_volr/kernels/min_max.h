// Minimum and maximum of image rows and of leaves of four voxels.
#pragma once

#include <cstdint>

namespace ip_volr::kernels {

// Kernels for one kind of values, signed or unsigned; the buffers hold bit patterns. An empty entry has the kind's
// greatest value as its minimum and the lowest as its maximum.
struct MinMaxRows {
    // Minimum and maximum, for each x in [0, width), over the given rows. With `accumulate` the buffers' old contents
    // take part; without it and without rows they become empty.
    void (*reduce_rows)(const std::uint16_t* const* rows, int num_rows, int width, bool accumulate,
                        std::uint16_t* minimum, std::uint16_t* maximum);
    // Leaf i gets the minimum (low half) and maximum (high half) over columns 4i to 4i + 4 of two pairs of buffers, for
    // i in [0, num_leaves), num_leaves a multiple of 8. The buffers hold 4 num_leaves + 8 entries.
    void (*reduce_columns)(const std::uint16_t* minimum_a, const std::uint16_t* maximum_a,
                           const std::uint16_t* minimum_b, const std::uint16_t* maximum_b, int num_leaves,
                           std::uint32_t* leaves);
};

struct MinMaxKernels {
    MinMaxRows of_signed;
    MinMaxRows of_unsigned;
};

// The kernels of the instruction set in force.
const MinMaxKernels& min_max_kernels();

// The scalar row kernels, which also serve the others for rows shorter than a register.
void reduce_rows_signed(const std::uint16_t* const* rows, int num_rows, int width, bool accumulate,
                        std::uint16_t* minimum, std::uint16_t* maximum);
void reduce_rows_unsigned(const std::uint16_t* const* rows, int num_rows, int width, bool accumulate,
                          std::uint16_t* minimum, std::uint16_t* maximum);

// Fill a table with the kernels of one instruction set.
void add_min_max_scalar(MinMaxKernels& table);
void add_min_max_sse41(MinMaxKernels& table);
void add_min_max_avx2(MinMaxKernels& table);

}  // namespace ip_volr::kernels
