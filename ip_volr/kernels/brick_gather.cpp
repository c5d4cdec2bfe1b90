#include "ip_volr/kernels/brick_gather.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "ip_volr/kernels/instruction_set.h"

namespace ip_volr::kernels {

namespace {

constexpr std::size_t kEdge = kGatherEdge;
using Row = std::array<std::uint16_t, kEdge>;

// Voxel index `i` relative to the brick, clamped to the axis.
int clamp_voxel(int origin, int i, int dim) {
    return std::clamp(origin + i, 0, dim - 1);
}

// Copies one row with the columns beyond the volume replaced by its first or last voxel.
void copy_clamped_row(const std::uint16_t* slice_row, int origin_x, int dim_x, Row& out) {
    const int first = std::clamp(-(origin_x + kGatherMin), 0, kGatherEdge);
    const int last = std::clamp(dim_x - (origin_x + kGatherMin), first, kGatherEdge);
    const auto begin = out.begin();
    std::fill(begin, begin + first, slice_row[0]);
    std::copy_n(slice_row + origin_x + kGatherMin + first, last - first, begin + first);
    std::fill(begin + last, out.end(), slice_row[dim_x - 1]);
}

// Points at the 35 voxels of the wanted rows of one slice, through `copies` where the brick reaches over the volume's
// sides.
void point_at_rows(const GatherSource& source, const std::uint16_t* slice, std::uint64_t wanted,
                   std::array<Row, kEdge>& copies, std::array<const std::uint16_t*, kEdge>& rows) {
    const int first_x = source.origin[0] + kGatherMin;
    const bool is_inside = first_x >= 0 && first_x + kGatherEdge <= source.dims[0];
    // The lower voxels of a row of pairs are the next row's.
    for (std::uint64_t left = wanted | wanted << 1; left != 0; left &= left - 1) {
        const int r = __builtin_ctzll(left);
        const auto index = static_cast<std::size_t>(r);
        const int y = clamp_voxel(source.origin[1], r + kGatherMin, source.dims[1]);
        const std::uint16_t* const slice_row = slice + std::ptrdiff_t{y} * source.dims[0];
        if (is_inside) {
            rows[index] = slice_row + first_x;
        } else {
            copy_clamped_row(slice_row, source.origin[0], source.dims[0], copies[index]);
            rows[index] = copies[index].data();
        }
    }
}

// Unpacks `count` tissue indices from voxel `first` of a slice on.
void unpack_tissues(const std::uint8_t* slice, std::ptrdiff_t first, int count, std::uint8_t* out) {
    const std::uint8_t* byte = slice + first / 2;
    int i = 0;
    if ((first & 1) != 0 && count > 0) {
        out[i++] = *byte++ >> 4;
    }
    for (; i + 1 < count; i += 2, byte++) {
        out[i] = *byte & 15;
        out[i + 1] = *byte >> 4;
    }
    if (i < count) {
        out[i] = *byte & 15;
    }
}

}  // namespace

const GatherKernels& gather_kernels() {
    static const KernelFamily<GatherKernels> family(fill_gather_scalar, fill_gather_sse41, fill_gather_avx2);
    return family.in_force();
}

void gather_brick(const GatherSource& source, const GatherBlocks& wanted, std::uint32_t* pairs) {
    const GatherKernels& kernels = gather_kernels();
    std::array<Row, kEdge> copies;
    std::array<const std::uint16_t*, kEdge> rows;
    for (std::uint64_t left = wanted.planes; left != 0; left &= left - 1) {
        const int p = __builtin_ctzll(left);
        const std::uint64_t(&blocks)[kGatherBlocks] = wanted.rows[p];
        const std::uint64_t any = blocks[0] | blocks[1] | blocks[2] | blocks[3] | blocks[4];
        if (any == 0) {
            continue;
        }
        const std::uint16_t* const slice = source.slices[clamp_voxel(source.origin[2], p + kGatherMin, source.dims[2])];
        if (slice != nullptr) {
            point_at_rows(source, slice, any, copies, rows);
        } else {
            copies[0].fill(source.missing_value);
            rows.fill(copies[0].data());
        }
        kernels.interleave_plane(rows.data(), blocks, source.has_margin, source.flip, pairs + p * kPairPlane);
    }
}

void gather_tissues(const int dims[3], const int origin[3], const std::uint8_t* const* slices,
                    std::uint8_t missing_tissue, const GatherRows& wanted, std::uint8_t* tissues) {
    const GatherKernels& kernels = gather_kernels();
    const int count = std::min(kTissueEdge, dims[0] - origin[0]);
    for (int z = 0; z < kTissueEdge; z++) {
        const std::uint8_t* const slice = slices[clamp_voxel(origin[2], z, dims[2])];
        for (int y = 0; y < kTissueEdge; y++, tissues += kTissueEdge) {
            if ((wanted.rows[z - kGatherMin] >> (y - kGatherMin) & 1) == 0) {
                continue;
            }
            if (slice == nullptr) {
                std::memset(tissues, missing_tissue, kTissueEdge);
                continue;
            }
            const std::ptrdiff_t row = clamp_voxel(origin[1], y, dims[1]);
            const std::ptrdiff_t first = row * dims[0] + origin[0];
            if (count == kTissueEdge && first % 2 == 0) {
                kernels.unpack_row(slice + first / 2, tissues);
                continue;
            }
            if (count == kTissueEdge) {
                // The row begins with a high nibble; the 32 that follow end one voxel behind it, in the same byte.
                std::uint8_t following[kTissueEdge];
                kernels.unpack_row(slice + first / 2 + 1, following);
                tissues[0] = slice[first / 2] >> 4;
                std::memcpy(tissues + 1, following, kTissueEdge - 1);
                continue;
            }
            unpack_tissues(slice, first, count, tissues);
            if (count < kTissueEdge) {
                std::memset(tissues + count, tissues[count - 1], static_cast<std::size_t>(kTissueEdge - count));
            }
        }
    }
}

}  // namespace ip_volr::kernels
