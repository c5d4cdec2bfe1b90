// Gathering a brick: every wanted voxel from the right place, nothing else written, nothing read beyond a slice.
#include "ip_volr/kernels/brick_gather.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <vector>

#include "ip_volr/kernels/instruction_set.h"

namespace {

using namespace ip_volr::kernels;

constexpr InstructionSet kSets[] = {InstructionSet::Scalar, InstructionSet::Sse41, InstructionSet::Avx2};

// A volume whose slices are blocks of exactly their size, so that a memory checker sees a read beyond them.
struct Volume {
    std::vector<std::unique_ptr<std::uint16_t[]>> blocks;
    std::vector<const std::uint16_t*> slices;

    Volume(const int (&dims)[3], unsigned seed) {
        std::mt19937 random(seed);
        const auto count = static_cast<std::size_t>(dims[0] * dims[1]);
        for (int z = 0; z < dims[2]; z++) {
            blocks.push_back(std::make_unique<std::uint16_t[]>(count));
            std::generate_n(blocks.back().get(), count, [&random] { return static_cast<std::uint16_t>(random()); });
            slices.push_back(z % 5 == 4 ? nullptr : blocks.back().get());
        }
    }
};

int clamp_to(int i, int dim) {
    return std::clamp(i, 0, dim - 1);
}

std::uint32_t voxel_of(const GatherSource& source, int x, int y, int z) {
    const std::uint16_t* const slice = source.slices[clamp_to(source.origin[2] + z, source.dims[2])];
    const int index = clamp_to(source.origin[1] + y, source.dims[1]) * source.dims[0] +
                      clamp_to(source.origin[0] + x, source.dims[0]);
    return (slice == nullptr ? source.missing_value : slice[index]) ^ source.flip;
}

TEST(BrickGather, WantedBlocksComeFromTheirPlaces) {
    constexpr std::uint32_t kUntouched = 0xdeadbeefu;
    constexpr int kCases[][6] = {{5, 5, 5, 0, 0, 0},       {33, 34, 36, 0, 0, 0},   {33, 34, 36, 32, 32, 32},
                                 {97, 70, 66, 32, 32, 32}, {67, 67, 67, 32, 0, 32}, {66, 40, 40, 32, 0, 0}};
    std::mt19937_64 random(7);
    for (const auto& [nx, ny, nz, ox, oy, oz] : kCases) {
        const Volume volume({nx, ny, nz}, 3);
        GatherBlocks wanted{};
        wanted.planes = (random() | random()) & ((std::uint64_t{1} << kGatherEdge) - 1);
        for (auto& plane : wanted.rows) {
            const std::uint64_t whole_rows = random();
            for (std::uint64_t& rows : plane) {
                rows = (random() | whole_rows) & kAllPairRows;
            }
        }
        for (const InstructionSet set : kSets) {
            const ScopedInstructionSet limit(set);
            const auto flip = static_cast<std::uint16_t>(random() % 2 * 0x8000);
            const bool has_margin = random() % 2 != 0;
            const GatherSource source = {{nx, ny, nz}, {ox, oy, oz}, volume.slices.data(), 77, flip, has_margin};
            std::vector<std::uint32_t> pairs(kNumPairs, kUntouched);
            gather_brick(source, wanted, pairs.data());
            int num_wrong = 0;
            for (int i = 0; i < kNumPairs; i++) {
                const int x = i % kPairRow, row = i / kPairRow % kPairRows, plane = i / kPairPlane;
                bool is_wanted = false;
                for (int block = 0; block < kGatherBlocks; block++) {
                    const int start = gather_block_start(block, has_margin);
                    is_wanted =
                        is_wanted || (x >= start && x < start + kGatherBlock && (wanted.planes >> plane & 1) != 0 &&
                                      (wanted.rows[plane][block] >> row & 1) != 0);
                }
                const std::uint32_t expected = is_wanted ? voxel_of(source, x - 1, row - 1, plane - 1) |
                                                               voxel_of(source, x - 1, row, plane - 1) << 16
                                                         : kUntouched;
                num_wrong += pairs[static_cast<std::size_t>(i)] != expected;
            }
            EXPECT_EQ(num_wrong, 0) << instruction_set_name(set) << " volume " << nx << "x" << ny << "x" << nz;
        }
    }
}

TEST(BrickGather, TissuesOfOddWidthsCrossBytes) {
    constexpr int kDims[][3] = {{37, 35, 34}, {64, 33, 33}, {33, 32, 32}, {1, 1, 1}};
    for (int i_case = 0; i_case < 12; i_case++) {
        const auto& dims = kDims[i_case % 4];
        const ScopedInstructionSet limit(kSets[i_case / 4]);
        const auto bytes = static_cast<std::size_t>((dims[0] * dims[1] + 1) / 2);
        std::mt19937 random(11);
        std::vector<std::unique_ptr<std::uint8_t[]>> blocks;
        std::vector<const std::uint8_t*> slices;
        for (int z = 0; z < dims[2]; z++) {
            blocks.push_back(std::make_unique<std::uint8_t[]>(bytes));
            std::generate_n(blocks.back().get(), bytes, [&random] { return static_cast<std::uint8_t>(random()); });
            slices.push_back(z % 6 == 5 ? nullptr : blocks.back().get());
        }
        for (const int origin_x : {0, dims[0] > 32 ? 32 : 0}) {
            const int origin[3] = {origin_x, 0, dims[2] > 32 ? 32 : 0};
            // Some rows are not wanted and keep what they held.
            GatherRows wanted{};
            for (int p = 0; p < kGatherEdge; p++) {
                wanted.rows[p] = p % 7 == 5 ? 0 : kAllPairRows & ~(std::uint64_t{0x11} << p % 20);
            }
            std::vector<std::uint8_t> tissues(kNumTissueBytes, 99);
            gather_tissues(dims, origin, slices.data(), 15, wanted, tissues.data());
            int num_wrong = 0;
            for (int i = 0; i < kNumTissueBytes; i++) {
                const std::uint8_t* const slice =
                    slices[static_cast<std::size_t>(clamp_to(origin[2] + i / 1024, dims[2]))];
                const int voxel =
                    clamp_to(origin[1] + i / 32 % 32, dims[1]) * dims[0] + clamp_to(origin[0] + i % 32, dims[0]);
                const bool is_wanted = (wanted.rows[i / 1024 + 1] >> (i / 32 % 32 + 1) & 1) != 0;
                const int held = slice == nullptr ? 15 : slice[voxel / 2] >> (4 * (voxel % 2)) & 15;
                const int expected = is_wanted ? held : 99;
                num_wrong += tissues[static_cast<std::size_t>(i)] != expected;
            }
            EXPECT_EQ(num_wrong, 0) << instruction_set_name(kSets[i_case / 4]) << " " << dims[0] << " from "
                                    << origin_x;
        }
    }
}

}  // namespace
