#include "ip_volr/kernels/lanes_sse41.h"
#include "ip_volr/kernels/reduce_lanes.h"

namespace ip_volr::kernels {

void add_reduce_sse41(ReduceKernels& table) {
    table.maximum_2x2 = ReduceLanes<Sse41Lanes>::maximum_2x2;
}

}  // namespace ip_volr::kernels
