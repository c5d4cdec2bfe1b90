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

constexpr int kTissueEdge = 32;
constexpr int kNumTissueBytes = kTissueEdge * kTissueEdge * kTissueEdge;

struct GatherSource {
    int dims[3];    // voxels of the volume
    int origin[3];  // of the brick, inside the volume
    // One pointer for each slice of the volume; null where there are no voxels.
    const std::uint16_t* const* slices;
    std::uint16_t missing_value;  // what a null slice holds
    std::uint16_t flip;           // 0x8000 for unsigned voxels, else 0
};

// Which rows are wanted, plane by plane: bit r of rows[p] is row r of plane p of the block (voxel r - 1, slice p - 1).
struct GatherRows {
    std::uint64_t rows[kGatherEdge];
};
constexpr std::uint64_t kAllPairRows = (std::uint64_t{1} << kPairRows) - 1;

// Writes the wanted rows of the block; the others keep what they held.
void gather_brick(const GatherSource& source, const GatherRows& wanted, std::uint32_t* pairs);

// Copies the tissue indices of the brick's 32^3 voxels, a byte each, x fastest, clamped to the volume. Slices hold 4
// bits a voxel: voxel y * dims[0] + x in byte (y * dims[0] + x) / 2, in the low nibble when even. A null slice reads as
// `missing_tissue`. Only the rows are written whose pairs are wanted (as above): the others keep what they held.
void gather_tissues(const int dims[3], const int origin[3], const std::uint8_t* const* slices,
                    std::uint8_t missing_tissue, const GatherRows& wanted, std::uint8_t* tissues);

// The instruction-set dependent part.
struct GatherKernels {
    // rows[0..34] point to 35 voxels each (exactly these are read). Writes row r of the plane at out + r * kPairRow for
    // every bit r of `wanted`: rows r and r + 1 interleaved, each voxel exclusive-or `flip`.
    void (*interleave_plane)(const std::uint16_t* const* rows, std::uint64_t wanted, std::uint16_t flip,
                             std::uint32_t* out);
    // 32 tissue indices from 16 bytes, the low nibble of each first.
    void (*unpack_row)(const std::uint8_t* bytes, std::uint8_t* out);
};

// The kernels of the instruction set in force.
const GatherKernels& gather_kernels();

void fill_gather_scalar(GatherKernels& table);
void fill_gather_sse41(GatherKernels& table);
void fill_gather_avx2(GatherKernels& table);

}  // namespace ip_volr::kernels
