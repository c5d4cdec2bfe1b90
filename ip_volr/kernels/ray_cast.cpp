#include "ip_volr/kernels/ray_cast.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "ip_volr/kernels/brick_gather.h"
#include "ip_volr/kernels/instruction_set.h"
#include "ip_volr/kernels/ray_cast_job.h"

namespace ip_volr::kernels {

namespace {

constexpr std::size_t kLeaves = kLeavesPerEdge;

const RayCastKernels& ray_cast_kernels() {
    static const KernelFamily<RayCastKernels> family(fill_ray_cast_scalar, fill_ray_cast_sse41, fill_ray_cast_avx2);
    return family.in_force();
}

RayCastWorkspace* align_workspace(void* work_block) {
    constexpr std::uintptr_t mask = alignof(RayCastWorkspace) - 1;
    return reinterpret_cast<RayCastWorkspace*>((reinterpret_cast<std::uintptr_t>(work_block) + mask) & ~mask);
}

// Packs bits 0, 4, 8, ... 28 of a word into eight bits.
std::uint64_t pack_every_fourth_bit(std::uint32_t bits) {
    bits &= 0x11111111u;
    bits = (bits | bits >> 3) & 0x03030303u;
    bits = (bits | bits >> 6) & 0x000f000fu;
    return (bits | bits >> 12) & 0xffu;
}

// The leaves with any visible cell.
LeafMask find_visible_leaves(const std::uint32_t* invisible_cache) {
    LeafMask mask{};
    for (std::size_t z = 0; z < kBrickEdge; z++) {
        const std::uint32_t* const plane = invisible_cache + z * kBrickEdge;
        for (std::size_t y = 0; y < kLeaves; y++) {
            std::uint32_t cells = plane[4 * y] | plane[4 * y + 1] | plane[4 * y + 2] | plane[4 * y + 3];
            cells |= cells >> 1;
            cells |= cells >> 2;
            mask[z / 4] |= pack_every_fourth_bit(cells) << (8 * y);
        }
    }
    return mask;
}

bool is_empty(const LeafMask& mask) {
    return std::all_of(mask.begin(), mask.end(), [](std::uint64_t plane) { return plane == 0; });
}

bool is_full(const LeafMask& mask) {
    return std::all_of(mask.begin(), mask.end(), [](std::uint64_t plane) { return ~plane == 0; });
}

// Spreads eight bits over eight bytes of value 0 or 1.
std::uint64_t spread_bits(std::uint64_t bits) {
    const std::uint64_t isolated = (bits & 0xff) * 0x0101010101010101u & 0x8040201008040201u;
    return (isolated + 0x7f7f7f7f7f7f7f7fu) >> 7 & 0x0101010101010101u;
}

// Keeps the leaves whose neighbours ahead of the rays (seven, diagonals included) are kept too.
void erode_forward(LeafMask& mask, const std::int32_t (&mirror)[3]) {
    for (std::uint64_t& plane : mask) {
        plane &= mirror[0] == 0 ? plane >> 1 & 0x7f7f7f7f7f7f7f7fu : plane << 1 & 0xfefefefefefefefeu;
        plane &= mirror[1] == 0 ? plane >> 8 : plane << 8;
    }
    if (mirror[2] == 0) {
        for (std::size_t z = 0; z < kLeaves; z++) {
            mask[z] &= z + 1 < kLeaves ? mask[z + 1] : 0;
        }
    } else {
        for (std::size_t z = kLeaves; z-- > 0;) {
            mask[z] &= z > 0 ? mask[z - 1] : 0;
        }
    }
}

// Adds to each leaf of the mask the edge of the largest cube inside the mask that extends forward from it: a cube of
// edge n + 1 is the union of the eight cubes of edge n that start at its first leaf and at the neighbours ahead.
void add_runs(LeafMask mask, const std::int32_t (&mirror)[3], std::array<std::uint64_t, kLeaves * kLeaves>& runs) {
    while (!is_empty(mask)) {
        for (std::size_t row = 0; row < runs.size(); row++) {
            runs[row] += spread_bits(mask[row / kLeaves] >> (8 * (row % kLeaves)));
        }
        erode_forward(mask, mirror);
    }
}

void find_leaf_runs(const LeafMask& visible, const std::int32_t (&mirror)[3], std::int8_t* leaf_runs) {
    LeafMask invisible;
    std::transform(visible.begin(), visible.end(), invisible.begin(), [](std::uint64_t plane) { return ~plane; });
    std::array<std::uint64_t, kLeaves * kLeaves> runs{};
    add_runs(visible, mirror, runs);
    // Negate the bytes of visible leaves. All are at least 1, so adding 1 to their complement carries nowhere.
    for (std::size_t row = 0; row < runs.size(); row++) {
        const std::uint64_t ones = spread_bits(visible[row / kLeaves] >> (8 * (row % kLeaves)));
        runs[row] = (runs[row] ^ ones * 0xff) + ones;
    }
    add_runs(invisible, mirror, runs);
    std::memcpy(leaf_runs, runs.data(), sizeof runs);
}

// Walks a list of rays. Where the next ray lies is known only when this one has arrived from memory, so the walk asks
// for what is likely to follow: lists run along the rows of the ray pool, and the same place in the next row is as far
// away as the last two rows were from each other.
class ListWalk {
public:
    explicit ListWalk(_listRay* first) : m_Ray(first), m_RowStart(first) {}

    _listRay* ray() const { return m_Ray; }

    void advance() {
        _listRay* const next = m_Ray->next;
        const std::uintptr_t stride = address(next) - address(m_Ray);
        if (stride + kNear > 2 * kNear) {
            m_ToNextRow = address(next) - address(m_RowStart);
            m_RowStart = next;
        }
        m_Ray = next;
        __builtin_prefetch(reinterpret_cast<const void*>(address(next) + m_ToNextRow));
    }

private:
    // Addresses as numbers: the rays may lie in different pages of the pool, and differences wrap around.
    static std::uintptr_t address(const _listRay* ray) { return reinterpret_cast<std::uintptr_t>(ray); }

    static constexpr std::uintptr_t kNear = 4 * sizeof(_listRay);
    _listRay* m_Ray;
    _listRay* m_RowStart;
    std::uintptr_t m_ToNextRow = 0;
};

// For each set of a row's eight leaves, the blocks that hold the voxels around them: one for even leaves and for the
// last, which the last block holds wholly, two for the others.
constexpr std::array<std::uint8_t, 256> make_leaf_blocks() {
    std::array<std::uint8_t, 256> table{};
    for (unsigned leaves = 0; leaves < 256; leaves++) {
        unsigned blocks = (leaves & 0x80) != 0 ? 0x10 : 0;
        for (unsigned leaf = 0; leaf < 7; leaf++) {
            blocks |= (leaves >> leaf & 1) * (leaf % 2 == 0 ? 1 : 3) << leaf / 2;
        }
        table[leaves] = static_cast<std::uint8_t>(blocks);
    }
    return table;
}

constexpr std::array<std::uint8_t, 256> kLeafBlocks = make_leaf_blocks();

// Moves the blocks of voxels that samples in these leaves read from what is missing to what is there, and returns them.
// With the margin there are those that only gradients read, one voxel further.
GatherBlocks take_missing_blocks(const LeafMask& leaves, bool has_margin, GatherBlocks& gathered) {
    // Rows of pairs 4y - 1 to 4y + 4 and slices 4z - 1 to 4z + 5, counted from -1; without the margin two rows and two
    // slices less.
    const std::uint64_t leaf_rows = has_margin ? 0x3f : 0x1e;
    const std::size_t margin = has_margin ? 0 : 1;
    GatherBlocks missing;
    missing.planes = 0;
    for (std::size_t leaf_z = 0; leaf_z < kLeaves; leaf_z++) {
        std::uint64_t rows[kGatherBlocks] = {};
        std::uint64_t left = leaves[leaf_z];
        for (int leaf_y = 0; left != 0; leaf_y++, left >>= 8) {
            const unsigned blocks = kLeafBlocks[left & 0xff];
            for (std::size_t block = 0; block < kGatherBlocks; block++) {
                rows[block] |= (blocks >> block & 1) * leaf_rows << (4 * leaf_y);
            }
        }
        for (std::size_t plane = 4 * leaf_z + margin; leaves[leaf_z] != 0 && plane < 4 * leaf_z + 7 - margin; plane++) {
            const bool is_new = (missing.planes >> plane & 1) == 0;
            missing.planes |= std::uint64_t{1} << plane;
            for (std::size_t block = 0; block < kGatherBlocks; block++) {
                const std::uint64_t added = rows[block] & ~gathered.rows[plane][block];
                gathered.rows[plane][block] |= added;
                missing.rows[plane][block] = added | (is_new ? 0 : missing.rows[plane][block]);
            }
        }
    }
    return missing;
}

// Rows of tissues that samples in these leaves read: rows of voxels 4y to 4y + 4, slices 4z to 4z + 4, counted from -1.
GatherRows find_tissue_rows(const LeafMask& leaves) {
    GatherRows wanted{};
    for (std::size_t leaf_z = 0; leaf_z < kLeaves; leaf_z++) {
        std::uint64_t rows = 0;
        for (std::size_t leaf_y = 0; leaf_y < kLeaves; leaf_y++) {
            rows |= (leaves[leaf_z] >> (8 * leaf_y) & 0xff) != 0 ? std::uint64_t{0x3e} << (4 * leaf_y) : 0;
        }
        for (std::size_t plane = 4 * leaf_z + 1; plane < 4 * leaf_z + 6; plane++) {
            wanted.rows[plane] |= rows;
        }
    }
    return wanted;
}

// Makes the work block that of the brick, its voxels not yet gathered.
void take_brick(const RayCastBrick& brick, const std::int32_t (&mirror)[3], RayCastWorkspace& work) {
    work.visible = find_visible_leaves(brick.invisible_cache);
    work.gathered = {};
    work.in_blocks = {};
    work.tissues[0] = kNoTissue;  // lanes without a ray look here
    find_leaf_runs(work.visible, mirror, work.leaf_runs);
}

// The Blinn-Phong half vector of light and view; zero when they cancel.
void set_vectors(const RayCastFrame& frame, RayCastJob& job) {
    double half[3];
    double length_2 = 0.0;
    for (int axis = 0; axis < 3; axis++) {
        half[axis] = frame.light[axis] + frame.view[axis];
        length_2 += half[axis] * half[axis];
    }
    const double scale = length_2 > 1e-30 ? 1.0 / std::sqrt(length_2) : 0.0;
    for (int axis = 0; axis < 3; axis++) {
        job.light[axis] = static_cast<float>(frame.light[axis]);
        job.half_vector[axis] = static_cast<float>(half[axis] * scale);
    }
}

void set_leaps(const RayCastFrame& frame, RayCastJob& job) {
    // Float rounding of a distance and of its product stays below 2^-22: shortened by 2^-20, no quotient is too large.
    constexpr double shortened = 1.0 - 1.0 / (1 << 20);
    constexpr double unlimited = 1e6;
    for (int axis = 0; axis < 3; axis++) {
        const double increment = frame.increment[axis];
        job.steps_per_unit[axis] = static_cast<float>(increment != 0.0 ? shortened / std::abs(increment) : unlimited);
        job.mirror[axis] = increment < 0.0 ? (1 << kBrickPositionBits) - 1 : 0;
    }
    job.steps_per_unit[3] = static_cast<float>(shortened / frame.step);
    const std::int32_t longest =
        std::max({std::abs(frame.increment[0]), std::abs(frame.increment[1]), std::abs(frame.increment[2]), 1});
    job.steps_in_leaf = std::max((1 << kLeafPositionBits) / longest, 1);
}

RayCastJob make_job(const RayCastFrame& frame, const RayCastBrick& brick, RayCastWorkspace& work) {
    RayCastJob job{};
    job.frame = &frame;
    job.brick = &brick;
    job.work = &work;
    job.value_offset = frame.table_offset + (frame.is_signed ? 0 : 0x8000);
    job.has_tissues = brick.only_tissue < 0;
    const auto* const tables = frame.weight_tables;
    job.has_weight_tables =
        job.has_tissues ? std::any_of(tables, tables + kNumTissues, [](const void* table) { return table != nullptr; })
                        : tables[brick.only_tissue] != nullptr;
    job.has_simple_weights = !job.has_weight_tables && frame.uniform_weights[2] <= 0xffff;
    set_vectors(frame, job);
    set_leaps(frame, job);
    return job;
}

// Which neighbour holds a coordinate: -1, 0 or 1 on its axis.
int find_side(unsigned int position, int origin) {
    const auto local = static_cast<std::int32_t>(position - (static_cast<std::uint32_t>(origin) << 16));
    return local < 0 ? -1 : local >> kBrickPositionBits != 0 ? 1 : 0;
}

void append(_listRay* ray, RayList& list) {
    (list.head == nullptr ? list.head : list.tail->next) = ray;
    list.tail = ray;
    list.count++;
}

// Gives a ray the light of this brick and puts it where it went.
void settle_ray(const RayCastFrame& frame, const RayCastBrick& brick, const std::uint16_t* sums, _listRay* ray,
                RayCastResult& result) {
    for (int c = 0; c < 3; c++) {
        ray->colour[c] = static_cast<unsigned short>(std::min(ray->colour[c] + sums[c] / 2, 32767));
    }
    ray->next = nullptr;
    if (ray->step_count > ray->end || ray->transparency < frame.transparency_threshold) {
        result.num_finished++;
        return;
    }
    const int neighbour = 13 + find_side(ray->position[0], brick.origin[0]) +
                          3 * find_side(ray->position[1], brick.origin[1]) +
                          9 * find_side(ray->position[2], brick.origin[2]);
    append(ray, result.moved[neighbour]);
}

}  // namespace

void make_entries(const std::uint32_t* colours, const std::uint32_t (&step_transparency)[256], int count,
                  std::uint64_t* entries) {
    for (int i = 0; i < count; i++) {
        const std::uint32_t colour = colours[i];
        const std::uint32_t opacity = colour >> 24;
        const std::uint32_t transparency = opacity == 0 ? 0 : std::max(step_transparency[opacity], 1u);
        const std::uint32_t blue_red = (colour & 0xff) << 8 | (colour >> 16 & 0xff) << 24;
        const std::uint32_t rest = transparency | opacity << 16 | (colour >> 8 & 0xff) << 24;
        entries[i] = blue_red | std::uint64_t{rest} << 32;
    }
}

void gather_leaves(const RayCastJob& job, const LeafMask& leaves) {
    RayCastWorkspace& work = *job.work;
    LeafMask missing;
    for (std::size_t z = 0; z < kLeaves; z++) {
        missing[z] = leaves[z] & ~work.gathered[z];
        work.gathered[z] |= leaves[z];
    }
    if (is_empty(missing)) {
        return;
    }
    const RayCastFrame& frame = *job.frame;
    const int* const origin = job.brick->origin;
    const GatherSource source = {{frame.dims[0], frame.dims[1], frame.dims[2]},
                                 {origin[0], origin[1], origin[2]},
                                 frame.slices,
                                 frame.missing_value,
                                 static_cast<std::uint16_t>(frame.is_signed ? 0 : 0x8000),
                                 frame.shading};
    gather_brick(source, take_missing_blocks(missing, frame.shading, work.in_blocks), work.pairs);
    if (job.has_tissues) {
        gather_tissues(frame.dims, origin, frame.tissue_slices, kNoTissue, find_tissue_rows(missing), work.tissues);
    }
}

void process_brick(const RayCastFrame& frame, const RayCastBrick& brick, void* work_block, _listRay* rays,
                   RayCastResult& result) {
    result = {};
    if (rays == nullptr) {
        return;
    }

    // Prepare the brick.
    RayCastWorkspace& work = *align_workspace(work_block);
    RayCastJob job = make_job(frame, brick, work);
    if (!brick.is_held) {
        take_brick(brick, job.mirror, work);
    }
    job.is_all_visible = is_full(work.visible);
    // Cast the rays, a batch at a time.
    const RayCastKernels& kernels = ray_cast_kernels();
    for (ListWalk walk(rays); walk.ray() != nullptr;) {
        for (job.num_rays = 0; walk.ray() != nullptr && job.num_rays < kMaxBatch; walk.advance()) {
            work.rays[job.num_rays++] = walk.ray();
        }
        kernels.cast(job);
        for (int i = 0; i < job.num_rays; i++) {
            settle_ray(frame, brick, work.sums[i], work.rays[i], result);
        }
    }
}

}  // namespace ip_volr::kernels
