// Packing of values of 4 bits.
#pragma once

#include "ip_volr/kernels/instruction_set.h"

#include <cstdint>

namespace ip_volr::kernels {

struct NibbleKernels {
    // packed[k] = values[2k] | values[2k + 1] << 4, for k in [0, count); values are 0 to 15. Any count and alignment.
    void (*pack)(const std::uint8_t* values, std::uint8_t* packed, int count);
};

const NibbleKernels& nibble_kernels();

void add_nibbles_sse41(NibbleKernels& table);
void add_nibbles_avx2(NibbleKernels& table);

}  // namespace ip_volr::kernels
