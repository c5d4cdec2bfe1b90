#include "ip_volr/kernels/nibbles.h"

namespace ip_volr::kernels {

namespace {

void pack(const std::uint8_t* values, std::uint8_t* packed, int count) {
    for (int k = 0; k < count; k++) {
        packed[k] = static_cast<std::uint8_t>(values[2 * k] | values[2 * k + 1] << 4);
    }
}

void add_scalar(NibbleKernels& table) {
    table.pack = pack;
}

}  // namespace

const NibbleKernels& nibble_kernels() {
#if defined(__x86_64__)
    static const KernelFamily<NibbleKernels> family(add_scalar, add_nibbles_sse41, add_nibbles_avx2);
#else
    static const KernelFamily<NibbleKernels> family(add_scalar, nullptr, nullptr);
#endif
    return family.in_force();
}

}  // namespace ip_volr::kernels
