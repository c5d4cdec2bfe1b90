// Ray casting inside one brick: the inner loop of a ray-cast frame.
//
// `process_brick` takes the list of rays that are in a brick of 32 x 32 x 32 cells, carries each of them to where it
// leaves the brick or ends, and sorts them by the neighbour they moved to. What defines its result is plain
// (ray_cast_scalar.cpp); the vector kernels give the same bytes.
//
// What happens to a ray at position p (see IP_VOLRC_ListRay.h), in the words of the optical model:
//   value     trilinear interpolation of the eight voxels around p, rounded to the nearest integer
//   entry     colour table entry 0xAARRGGBB of the sample's tissue at index clamp(value + table_offset, 0, table_last).
//             The sample's tissue is that of the nearest voxel among those that the brick owns
//   A = 0     nothing happens; a sample without opacity never touches its ray
//   A > 0     T' = (T * step_transparency[A]) / 65536; weight w = T - T';
//             weighted colour C = (w * channel * 256) / 65536 for blue, green, red;
//             ambient  = w2 * C / 65536
//             and when the sample is shaded (shading on and, depending on `weight_decides_shading`, w or A * 256 above
//             the opacity-gradient threshold), with N the normalised gradient of the interpolated volume:
//             diffuse  = round(clamp(N.L, 0, 1) * w0) * C / 65536
//             specular = round(min(1, max(0, 1 - 12.5 (1 - s))^8 + max(0, 1 - 2.5 (1 - s))^8) * w1) * w / 65536
//                        when s = N.H exceeds 0.5; the same for the three channels: a white highlight
//             all added to the ray's sums of this brick with saturation at 65535
//   then      p advances by `increment`, the step count by `step`. The ray is finished when the step count has passed
//             its end or the transparency has fallen below the threshold; otherwise it leaves when p has left the brick
//   at last   the sums of this brick, halved, are added to the ray's colour with saturation at 32767
//
// Gradients. The mean of the central differences at the eight voxels of a cell, weighted by the sample's trilinear
// weights, is half the difference between the volume interpolated one voxel ahead and one voxel behind with the same
// weights. The kernels compute it so: from 32 voxels that are mostly at hand, without a cache of gradients. Fast
// gradients are forward differences in the same manner. N points to higher values; light and view vectors are
// directions of travel (away from the lamp, away from the eye), so a surface lit from the eye has N.L > 0. A flat
// neighbourhood has N = 0.
//
// Skipping. Cells whose bit in the brick's cell invisible cache is 0 are leapt over in runs; the positions of the
// samples stay exactly those of stepping one by one. As long as every cell without a bit has opacity 0 for all values
// in its range, the result does not depend on the cache: a full cache gives the same bytes, slowly.
#pragma once

#include <cstddef>
#include <cstdint>

struct _listRay;

namespace ip_volr::kernels {

constexpr int kBrickEdgeLog2 = 5;
constexpr int kBrickEdge = 1 << kBrickEdgeLog2;
constexpr int kNumTissues = 16;
constexpr int kNoTissue = 15;            // the table of voxels without a tissue
constexpr int kNumTableEntries = 65536;  // entries of one colour table, whatever the number of bits
constexpr int kNumNeighbours = 27;       // index 13 + dx + 3 dy + 9 dz; 13 is the brick itself

// Bytes of scratch that one call needs: the work block of a task. Alignment does not matter, former content only where
// the call says so.
constexpr std::size_t kWorkBlockBytes = 215632;

// What is constant for a frame. Filled once, then read by all tasks. Trivially copyable; pointers are not owned.
struct RayCastFrame {
    // Volume: padded dimensions in voxels, and one pointer for each padded slice to its mapped voxels (16 bits, row
    // after row without gaps). A null slice reads as `missing_value`. The empty slices before the first and after the
    // last real one should point to that real slice: only gradients read them.
    int dims[3];
    const std::uint16_t* const* slices;
    bool is_signed;
    std::uint16_t missing_value;  // lowest stored value: 0, or -2^(bits - 1) when signed (as its 16 bits)

    // Tissues: null, or one pointer for each padded slice to its tissue indices: 4 bits a voxel, voxel y * dims[0] + x
    // in byte (y * dims[0] + x) / 2, low nibble when even. A null slice reads as `kNoTissue`.
    const std::uint8_t* const* tissue_slices;

    // Movement in 16.16 fixed point. Each increment is less than 32 voxels; `step` is positive.
    std::int32_t increment[3];
    std::int32_t step;

    // Transfer function: 16 tables of 65536 colours 0xAARRGGBB, of which the first table_last + 1 count; the opacity A
    // becomes the transparency of one step by `step_transparency` (0 to 65535 each).
    const std::uint32_t* colours;  // [tissue * kNumTableEntries + index]
    std::int32_t table_offset;     // index of stored value 0: 2^(bits - 1) when signed, else 0
    std::int32_t table_last;       // 2^bits - 1
    std::uint32_t step_transparency[256];
    // The same as the vector kernels read it: what `make_entries` makes of the tables of all tissues in the volume, in
    // the places of the colours.
    const std::uint64_t* entries;

    // A ray ends below this transparency. Rays arrive with at least as much.
    std::uint16_t transparency_threshold;

    // Shading. Vectors are in index space and normalised (zero is allowed: no diffuse or specular light).
    bool shading;
    bool fast_gradients;
    bool weight_decides_shading;  // the sample's weight instead of its opacity decides whether it is shaded
    std::uint16_t opacity_gradient_threshold;
    double light[3];
    double view[3];

    // Weights of diffuse, specular and ambient light on a scale of 65535: from the sample's tissue's table where there
    // is one (three 16-bit fields, low to high, at the same index as the colour), else the uniform ones (0 to 2^20,
    // the first at most 65535).
    const std::uint64_t* weight_tables[kNumTissues];
    std::int32_t uniform_weights[3];
};

// What a sample needs of its colour and its step's transparency, in 64 bits:
//
//     48     56      48      40      32
//      | green | opacity | transparency |   | red | 0 | blue | 0 |
//
// The step's transparency is at least 1 where there is opacity, which makes no difference, and 0 where there is none.
void make_entries(const std::uint32_t* colours, const std::uint32_t (&step_transparency)[256], int count,
                  std::uint64_t* entries);

// What is constant for a brick.
struct RayCastBrick {
    int origin[3];                         // voxel of its lower corner, a multiple of 32 on each axis
    const std::uint32_t* invisible_cache;  // 1024 words, bit x of word z * 32 + y: the cell can contribute
    int only_tissue;                       // the one active tissue of the brick, or -1: look at `tissue_slices`.
                                           // kNoTissue in a frame without tissues
    bool is_held;  // the work block is as a call for this very brick in this frame left it: its voxels are not gathered
                   // again. The result does not depend on it
};

// A list of rays, linked by `next`; all null and 0 when empty.
struct RayList {
    _listRay* head;
    _listRay* tail;
    int count;
};

// Where the rays of one call went. Rays are in the order in which the call came to the end of them, which depends
// neither on the instruction set nor on the cache: the order of the incoming list.
struct RayCastResult {
    RayList moved[kNumNeighbours];  // by neighbour; list 13 (the brick itself) stays empty
    int num_finished;               // rays that ended; in no list, `next` is null
};

// Carries the rays of the list `rays` (null: none) through one brick. Writes the rays' position, step count,
// transparency, colour and next; overwrites `result`. Any number of calls may run at the same time on different bricks
// and lists, each with a work block of its own.
void process_brick(const RayCastFrame& frame, const RayCastBrick& brick, void* work_block, _listRay* rays,
                   RayCastResult& result);

}  // namespace ip_volr::kernels
