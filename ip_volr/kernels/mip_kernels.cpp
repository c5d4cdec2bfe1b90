#include "ip_volr/kernels/mip_kernels.h"

#include "ip_volr/kernels/instruction_set.h"

namespace ip_volr::kernels {

const MipKernels& mip_kernels() {
    static const KernelFamily<MipKernels> family(add_mip_scalar, add_mip_sse41, add_mip_avx2);
    return family.in_force();
}

}  // namespace ip_volr::kernels
