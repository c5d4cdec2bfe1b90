// What `process_brick` prepares for the kernels of the ray caster: one job is a batch of rays in one brick.
#pragma once

#include <array>
#include <cstdint>

#include "ip_volr/IP_VOLRC_ListRay.h"
#include "ip_volr/kernels/brick_gather.h"
#include "ip_volr/kernels/ray_cast.h"

namespace ip_volr::kernels {

constexpr int kMaxBatch = 256;       // rays of one job
constexpr int kShadeQueue = 64 + 8;  // samples that wait to be shaded, with room for one more vector
constexpr int kLeafEdgeLog2 = 2;
constexpr int kLeavesPerEdge = kBrickEdge >> kLeafEdgeLog2;
constexpr int kNumLeaves = kLeavesPerEdge * kLeavesPerEdge * kLeavesPerEdge;

// Positions inside a brick: 16.16, relative to its origin; outside when any bit from here on is set.
constexpr int kBrickPositionBits = 16 + kBrickEdgeLog2;
constexpr int kLeafPositionBits = 16 + kLeafEdgeLog2;

// Fractions of a cell along y: voxels are weighted by (16384 - f) and f, so that a product fits 32 bits signed.
constexpr int kWeightBits = 14;
constexpr std::int32_t kWeightOne = 1 << kWeightBits;

// Samples that wait to be shaded, an array for each property; the vector kernels shade them lane by lane.
struct ShadeQueue {
    std::int32_t x[kShadeQueue], y[kShadeQueue], z[kShadeQueue];  // position in the brick, 16.16
    std::uint32_t blue_red[kShadeQueue], green[kShadeQueue];      // halves of its entry
    std::uint32_t weight[kShadeQueue];                            // of the sample, 16 bits
    std::uint32_t table_index[kShadeQueue];                       // tissue << 16 | index
    std::uint32_t slot[kShadeQueue];                              // ray in the batch
};

// The leaves of a brick, one bit each: bit y * 8 + x of word z.
using LeafMask = std::array<std::uint64_t, kLeavesPerEdge>;

// The task's work block. Which parts a kernel uses is its own business.
struct alignas(64) RayCastWorkspace {
    std::uint32_t pairs[kNumPairs];              // voxels, see brick_gather.h
    std::uint8_t tissues[kNumTissueBytes + 16];  // one byte a voxel; room for wide loads behind
    // For each leaf of 4 x 4 x 4 cells (x fastest) the edge, in leaves, of the largest cube that extends from it along
    // the rays inside the brick and holds only leaves of its kind: above 0 for invisible ones, below 0 for visible
    // ones.
    std::int8_t leaf_runs[kNumLeaves + 16];
    LeafMask visible;        // leaves with any visible cell
    LeafMask gathered;       // leaves whose voxels are here
    GatherBlocks in_blocks;  // what is here of their rows
    _listRay* rays[kMaxBatch];
    std::uint16_t sums[kMaxBatch][4];  // light collected in this brick: blue, green, red, unused
    ShadeQueue queue;
};
static_assert(sizeof(RayCastWorkspace) + alignof(RayCastWorkspace) <= kWorkBlockBytes);

struct RayCastJob {
    const RayCastFrame* frame;
    const RayCastBrick* brick;
    RayCastWorkspace* work;  // voxels, tissues, leaf runs and rays are filled in
    int num_rays;
    std::int32_t value_offset;  // table index of the signed value 0 of the gathered voxels
    bool is_all_visible;        // no leaf of the brick is invisible
    bool has_tissues;           // tissues differ inside the brick: look each sample's up
    bool has_weight_tables;     // some tissue of the brick has a table of its own
    bool has_simple_weights;    // no tables, and the uniform weight of ambient light fits 16 bits
    float light[3];
    float half_vector[3];
    // For leaps: steps per unit of distance along x, y, z and the ray, a shade too small so that no product with a
    // distance rounds up past the true quotient; and the bits that mirror a coordinate that decreases.
    float steps_per_unit[4];
    std::int32_t mirror[3];
    std::int32_t steps_in_leaf;  // so many steps go no further than a leaf's edge on any axis
};

// Sees to it that the voxels (and tissues) are there that samples in these leaves and their gradients read.
void gather_leaves(const RayCastJob& job, const LeafMask& leaves);

// Carries rays 0 to num_rays - 1 of the workspace through the brick: writes their positions, step counts and
// transparencies, and their light into `sums`, which it clears first.
struct RayCastKernels {
    void (*cast)(const RayCastJob& job);
};

void fill_ray_cast_scalar(RayCastKernels& table);
void fill_ray_cast_sse41(RayCastKernels& table);
void fill_ray_cast_avx2(RayCastKernels& table);

}  // namespace ip_volr::kernels
