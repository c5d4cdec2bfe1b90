#include "ip_volr/kernels/lanes_avx2.h"
#include "ip_volr/kernels/reduce_lanes.h"

namespace ip_volr::kernels {

void add_reduce_avx2(ReduceKernels& table) {
    table.maximum_2x2 = ReduceLanes<Avx2Lanes>::maximum_2x2;
}

}  // namespace ip_volr::kernels
