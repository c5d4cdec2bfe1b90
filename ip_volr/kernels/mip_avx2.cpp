// AVX2 kernels of the maximum-intensity projection: sixteen pixels at a time.
#include "ip_volr/kernels/lanes_avx2.h"
#include "ip_volr/kernels/mip_lanes.h"

namespace ip_volr::kernels {

// The transposition of the level below stays: wider tiles touch more lines of one cache set and were slower.
void add_mip_avx2(MipKernels& table) {
    using Rows = MipLanes<Avx2Lanes>;
    table.fill = Rows::fill;
    table.max_row = Rows::max_row;
    table.max_row_weighted = Rows::max_row_weighted;
    table.max_row_bilinear = Rows::bilinear<true>;
    table.row_bilinear = Rows::bilinear<false>;
}

}  // namespace ip_volr::kernels
