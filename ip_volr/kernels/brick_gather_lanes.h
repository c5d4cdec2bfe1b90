// The vector form of the gather's planes. Included by the files of the instruction sets only, each with a type `Lanes`
// of its own in an anonymous namespace:
//
//     Lanes::set(flip)                           the flip in every 16 bits
//     Lanes::interleave8(low, high, flip, out)   eight elements, see brick_gather.h
#pragma once

#include <cstdint>

#include "ip_volr/kernels/brick_gather.h"

namespace ip_volr::kernels {

namespace {

template <class Lanes>
void interleave_plane(const std::uint16_t* const* rows, const std::uint64_t (&wanted)[kGatherBlocks], bool has_margin,
                      std::uint16_t flip, std::uint32_t* out) {
    const auto flips = Lanes::set(flip);
    const int first = gather_block_start(0, has_margin);
    constexpr int kLast = gather_block_start(kGatherBlocks - 1, true);
    const std::uint64_t whole_rows = wanted[0] & wanted[1] & wanted[2] & wanted[3] & wanted[4];
    for (std::uint64_t left = wanted[0] | wanted[1] | wanted[2] | wanted[3] | wanted[4]; left != 0; left &= left - 1) {
        const int r = __builtin_ctzll(left);
        const std::uint16_t* const low = rows[r];
        const std::uint16_t* const high = rows[r + 1];
        std::uint32_t* const row = out + r * kPairRow;
        const bool is_whole = (whole_rows >> r & 1) != 0;
        for (int block = 0, x = first; block < kGatherBlocks - 1; block++, x += kGatherBlock) {
            if (is_whole || (wanted[block] >> r & 1) != 0) {
                Lanes::interleave8(low + x, high + x, flips, row + x);
            }
        }
        if (is_whole || (wanted[kGatherBlocks - 1] >> r & 1) != 0) {
            Lanes::interleave8(low + kLast, high + kLast, flips, row + kLast);
        }
    }
}

}  // namespace

}  // namespace ip_volr::kernels
