// Copies the voxels of one brick from the volume's slices into a block that the ray caster samples fast.
//
// Layout. The block holds voxels -1 to 33 on each axis around the brick's origin (one before, two after), clamped to
// the volume. Element (x, y, z) is a 32-bit word of two voxels, (x, y, z) in its low and (x, y + 1, z) in its high 16
// bits, so that the eight voxels around a sample are two 64-bit loads:
//
//     plane z    row y    ... | (x,y) (x,y+1) | (x+1,y) (x+1,y+1) | ...      loaded at x: the cell's face at z
//     plane z+1  row y    ... | (x,y) (x,y+1) | (x+1,y) (x+1,y+1) | ...      and its face at z + 1
//
// Voxels become signed: unsigned ones have their top bit flipped (stored value minus 32768).
#pragma once

#include <cstdint>

namespace ip_volr::kernels {

constexpr int kGatherMin = -1;              // first voxel of an axis, relative to the brick
constexpr int kGatherEdge = 35;             // voxels of an axis
constexpr int kPairRow = 36;                // words from one row to the next
constexpr int kPairRows = kGatherEdge - 1;  // rows of a plane: the last voxel row is only an upper half
constexpr int kPairPlane = kPairRow * kPairRows;
constexpr int kNumPairs = kPairPlane * kGatherEdge;
// Word of voxel (0, 0, 0) of the brick.
constexpr int kPairOrigin = kPairPlane + kPairRow + 1;

// A row is gathered in blocks of eight elements, which end where its last voxels are and overlap there. Without the
// margin that only gradients read, they begin one voxel later: a brick's voxels 0 to 31 lie in one cache line.
constexpr int kGatherBlock = 8;
constexpr int kGatherBlocks = 5;
constexpr int gather_block_start(int block, bool has_margin) {
    const int last = kGatherEdge - kGatherBlock;
    const int start = kGatherBlock * block + (has_margin ? 0 : 1);
    return start < last ? start : last;
}

constexpr int kTissueEdge = 32;
constexpr int kNumTissueBytes = kTissueEdge * kTissueEdge * kTissueEdge;

struct GatherSource {
    int dims[3];    // voxels of the volume
    int origin[3];  // of the brick, inside the volume
    // One pointer for each slice of the volume; null where there are no voxels.
    const std::uint16_t* const* slices;
    std::uint16_t missing_value;  // what a null slice holds
    std::uint16_t flip;           // 0x8000 for unsigned voxels, else 0
    bool has_margin;              // where blocks begin
};

// Which rows are wanted, plane by plane: bit r of rows[p] is row r of plane p (voxel r - 1, slice p - 1).
struct GatherRows {
    std::uint64_t rows[kGatherEdge];
};
// The same for each block of the rows. Planes without a bit in `planes` have none; their rows mean nothing.
struct GatherBlocks {
    std::uint64_t planes;
    std::uint64_t rows[kGatherEdge][kGatherBlocks];
};
constexpr std::uint64_t kAllPairRows = (std::uint64_t{1} << kPairRows) - 1;

// Writes the wanted blocks of elements; the others keep what they held.
void gather_brick(const GatherSource& source, const GatherBlocks& wanted, std::uint32_t* pairs);

// Copies the tissue indices of the brick's 32^3 voxels, a byte each, x fastest, clamped to the volume. Slices hold 4
// bits a voxel: voxel y * dims[0] + x in byte (y * dims[0] + x) / 2, in the low nibble when even. A null slice reads as
// `missing_tissue`. Only the rows are written whose pairs are wanted (as above): the others keep what they held.
void gather_tissues(const int dims[3], const int origin[3], const std::uint8_t* const* slices,
                    std::uint8_t missing_tissue, const GatherRows& wanted, std::uint8_t* tissues);

// The instruction-set dependent part.
struct GatherKernels {
    // Writes eight elements: the voxels of two rows interleaved, each exclusive-or `flip`. For each block b, every bit
    // r of wanted[b]: rows r and r + 1 (of 35 voxels each, of which exactly the block is read) at out + r * kPairRow.
    void (*interleave_plane)(const std::uint16_t* const* rows, const std::uint64_t (&wanted)[kGatherBlocks],
                             bool has_margin, std::uint16_t flip, std::uint32_t* out);
    // 32 tissue indices from 16 bytes, the low nibble of each first.
    void (*unpack_row)(const std::uint8_t* bytes, std::uint8_t* out);
};

// The kernels of the instruction set in force.
const GatherKernels& gather_kernels();

void fill_gather_scalar(GatherKernels& table);
void fill_gather_sse41(GatherKernels& table);
void fill_gather_avx2(GatherKernels& table);

}  // namespace ip_volr::kernels
