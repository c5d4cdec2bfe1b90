#include "ip_volr/kernels/brick_gather.h"

namespace ip_volr::kernels {

namespace {

void interleave_plane(const std::uint16_t* const* rows, const std::uint64_t (&wanted)[kGatherBlocks], bool has_margin,
                      std::uint16_t flip, std::uint32_t* out) {
    for (int r = 0; r < kPairRows; r++, out += kPairRow) {
        for (int block = 0; block < kGatherBlocks; block++) {
            const int start = gather_block_start(block, has_margin);
            for (int x = start; x < start + kGatherBlock && (wanted[block] >> r & 1) != 0; x++) {
                const std::uint32_t low = rows[r][x] ^ flip;
                const std::uint32_t high = rows[r + 1][x] ^ flip;
                out[x] = low | high << 16;
            }
        }
    }
}

void unpack_row(const std::uint8_t* bytes, std::uint8_t* out) {
    for (int i = 0; i < kTissueEdge / 2; i++) {
        out[2 * i] = bytes[i] & 15;
        out[2 * i + 1] = bytes[i] >> 4;
    }
}

}  // namespace

void fill_gather_scalar(GatherKernels& table) {
    table.interleave_plane = interleave_plane;
    table.unpack_row = unpack_row;
}

}  // namespace ip_volr::kernels
