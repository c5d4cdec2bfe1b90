// Life of the structure: sizes, queues, mapping, copies, refusals and cancellation.
#include "tests/bricks/brick_test_support.h"
#include "tests/support/fault_sweep.h"

#include <climits>
#include <cstring>
#include <numeric>
#include <set>
#include <tuple>

namespace {

using namespace brick_tests;

class BrickStructure : public BrickTest {};

const VoxelFunction kFlat = [](int, int, int) { return 100; };

TEST_F(BrickStructure, QueuesWalkDiagonalsFromEveryCorner) {
    const auto volume = make_empty_volume(33, 64, 100);  // 2 x 2 x 4 bricks
    IP_VOLRC_BrickStructure structure = make_structure(false);
    ASSERT_TRUE(structure.Init(volume.get()));
    auto& queues = *structure.GetProjectionQueues();
    ASSERT_EQ(queues.size(), 8U);
    int largest = 0;
    for (int q = 0; q < 8; ++q) {
        ASSERT_EQ(queues[q].size(), 6U);
        std::set<std::tuple<int, int, int>> seen;
        for (int d = 0; d < 6; ++d) {
            largest = std::max(largest, static_cast<int>(queues[q][d].size()));
            for (const _int_coord& b : queues[q][d]) {
                const int from_corner =
                    ((q & 1) != 0 ? 1 - b.x : b.x) + ((q & 2) != 0 ? 1 - b.y : b.y) + ((q & 4) != 0 ? 3 - b.z : b.z);
                EXPECT_EQ(from_corner, d);
                EXPECT_NE(structure.GetBrick(b.x, b.y, b.z), nullptr);
                seen.insert({b.x, b.y, b.z});
            }
        }
        EXPECT_EQ(seen.size(), 16U);
    }
    EXPECT_EQ(structure.GetLargestLayerSize(), largest);

    // Order within a wavefront: highest z first, then highest y.
    EXPECT_TRUE(queues[0][1][0].z == 1 && queues[0][1][1].y == 1 && queues[0][1][2].x == 1);

    const auto flat = make_empty_volume(512, 512, 1);
    ASSERT_TRUE(structure.Init(flat.get()));
    EXPECT_EQ(structure.GetProjectionQueues()->at(0).size(), 31U);
    EXPECT_EQ(structure.GetLargestLayerSize(), 16);
}

TEST_F(BrickStructure, BricksAndFlagsAfterInit) {
    reference_host::SetNumberOfServers(3);
    const auto volume = make_empty_volume(33, 5, 390);  // 2 x 1 x 13 bricks, two blocks
    IP_VOLRC_BrickStructure structure = make_structure(true);
    EXPECT_EQ(structure.GetBrick(0, 0, 0), nullptr);
    ASSERT_TRUE(structure.Init(volume.get()));
    EXPECT_EQ(structure.GetCurrentVolData(), volume.get());
    EXPECT_EQ(structure.GetMaxRasterProjections(), 3);
    for_each_brick(structure, [](IP_VOLRC_BrickData& brick, int bx, int by, int bz) {
        int x = 0;
        int y = 0;
        int z = 0;
        brick.GetOrigin(x, y, z);
        EXPECT_TRUE(x == 32 * bx && y == 32 * by && z == 32 * bz);
        for (int i = 0; i < 8 * 64; ++i) {
            unsigned pair;
            std::memcpy(&pair, &brick.GetOD(i / 64)->GetData()[i % 64], sizeof(pair));
            ASSERT_EQ(pair, kEmptyMinMaxSigned);
        }
    });
    EXPECT_EQ(structure.GetBrick(2, 0, 0), nullptr);
    EXPECT_EQ(structure.GetBrick(-1, 0, 0), nullptr);
    EXPECT_EQ(structure.GetBrick(0, 0, 13), nullptr);

    const int num_bricks = 2 * 1 * 13;
    for (int i = 0; i < 4 * num_bricks; ++i) {
        ASSERT_TRUE(structure.GetBrickClipVisibility()[i]);
    }
    for (int q = 0; q < 8; ++q) {
        EXPECT_EQ(structure.GetBrickOcclusionIndex(q), structure.GetBrickClipVisibility() + (4 + q) * num_bricks);
        for (int i = 0; i < num_bricks; ++i) {
            ASSERT_FALSE(structure.GetBrickOcclusionIndex(q)[i]);
        }
    }
}

TEST_F(BrickStructure, MappingsBalanceAndRecordsSurvivePaging) {
    const auto volume = make_volume(40, 40, 370, 12, false, [](int x, int, int z) { return x + z; });
    IP_VOLRC_BrickStructure structure = make_structure(false);
    EXPECT_FALSE(structure.Map());
    EXPECT_TRUE(structure.Unmap());
    structure.SetMaxLayerLoaded(1);
    const auto mappings_before = reference_host::GetPagerStatistics().mappings;
    ASSERT_TRUE(structure.Init(volume.get()));
    const auto mappings_of_init = reference_host::GetPagerStatistics().mappings;
    EXPECT_EQ(mappings_of_init - mappings_before, 3) << "two blocks of layers and the flags";
    ASSERT_TRUE(structure.Map());
    EXPECT_TRUE(structure.Unmap());
    EXPECT_NE(structure.GetBrick(0, 0, 0), nullptr);
    EXPECT_TRUE(structure.Unmap());
    EXPECT_EQ(reference_host::GetPagerStatistics().mappings, mappings_before);
    EXPECT_EQ(structure.GetBrick(0, 0, 0), nullptr);
    EXPECT_EQ(structure.GetBrickClipVisibility(), nullptr);
    EXPECT_TRUE(structure.Unmap()) << "one too many";

    // Drive everything out of memory and back.
    const auto budget = reference_host::GetMemoryBudget();
    reference_host::SetMemoryBudget(1);
    reference_host::SetMemoryBudget(budget);
    for (int refused = 1; refused <= 2; ++refused) {
        reference_host::SetPagerFaults({.refuse_map = refused});
        EXPECT_FALSE(structure.Map());
        EXPECT_EQ(reference_host::GetPagerStatistics().mappings, mappings_before);
    }
    reference_host::SetPagerFaults({});
    ASSERT_TRUE(structure.Map());
    const int dims[3] = {40, 40, 370};
    expect_min_max(structure, dims, false, [](int x, int, int z) { return x + z; });
}

TEST_F(BrickStructure, CopiesShareRecordsAndFreeThemOnce) {
    const auto volume = make_volume(40, 8, 8, 12, false, kFlat);
    IP_VOLRC_BrickStructure structure = make_structure(false);
    ASSERT_TRUE(structure.Init(volume.get()));
    auto copy = std::make_unique<IP_VOLRC_BrickStructure>(structure);
    EXPECT_EQ(copy->GetBrick(1, 0, 0), structure.GetBrick(1, 0, 0));
    structure.Unmap();
    EXPECT_EQ(copy->GetBrick(1, 0, 0), nullptr);
    ASSERT_TRUE(copy->Map());
    EXPECT_NE(structure.GetBrick(1, 0, 0), nullptr);
    IP_VOLRC_BrickStructure other = make_structure(true);
    other = *copy;
    copy.reset();
    structure.Clean();
    EXPECT_EQ(structure.GetBrick(0, 0, 0), nullptr);
    EXPECT_EQ(structure.GetCurrentVolData(), nullptr);
    EXPECT_NE(other.GetBrick(1, 0, 0), nullptr);
}

TEST_F(BrickStructure, ImpossibleVolumesAreRefused) {
    IP_VOLRC_BrickStructure structure = make_structure(false);
    EXPECT_FALSE(structure.Init(nullptr));
    for (const auto& [x, y, z] :
         {std::tuple(0, 5, 5), std::tuple(5, 0, 5), std::tuple(5, 5, 0), std::tuple(INT_MAX, INT_MAX, 2)}) {
        IP_Box box(x, y, z);
        IP_VolData volume(&box, std::min(z, 5));
        EXPECT_FALSE(structure.Init(&volume));
        EXPECT_EQ(structure.GetBrick(0, 0, 0), nullptr);
    }
    EXPECT_FALSE(structure.RecalculateMinMaxForNewSlices());
    EXPECT_TRUE(structure.UpdateTissue(nullptr)) << "no brick to update";
    structure.EvaluateLuminosities();
    structure.BuildProjectionQueues();
    EXPECT_EQ(structure.GetProjectionQueues()->size(), 8U);
}

// ---- Faults: two blocks of layers and the flags, two groups of slices

constexpr int kDims[3] = {20, 20, 400};
constexpr int kNumBlocks = 3;

std::int64_t mappings_now() {
    return reference_host::GetPagerStatistics().mappings;
}

TEST_F(BrickStructure, FaultsInSetUpLeaveMappedRecordsOrNothing) {
    const VoxelFunction value = [](int x, int y, int z) { return x * y + z; };
    const auto volume = make_volume(kDims[0], kDims[1], kDims[2], 12, false, value);
    FaultSweep sweep;
    sweep.run([&](FaultPoint& point) {
        const auto before = reference_host::GetPagerStatistics();
        IP_VOLRC_BrickStructure structure = make_structure(false);
        structure.SetMaxLayerLoaded(1);
        bool done = false;
        point.run([&] { done = structure.Init(volume.get()); }, true);
        point.expect_ended_by_fault(done);
        const bool has_records = structure.GetCurrentVolData() != nullptr;
        EXPECT_TRUE(has_records || point.came());
        EXPECT_FALSE(has_records && point.is(Fault::Allocation));
        EXPECT_EQ(mappings_now(), before.mappings + (has_records ? kNumBlocks : 0));
        EXPECT_EQ(reference_host::GetPagerStatistics().blocks, before.blocks + (has_records ? kNumBlocks : 0));
        ASSERT_TRUE(structure.Init(volume.get()));
        EXPECT_EQ(mappings_now(), before.mappings + kNumBlocks);
        expect_min_max(structure, kDims, false, value);
    });
}

TEST_F(BrickStructure, FaultsInStreamingAndTissueUpdatesAreMadeGood) {
    std::list<int> all(kDims[2] - 4);
    std::iota(all.begin(), all.end(), 0);
    const VoxelFunction tissue = [](int, int, int z) { return z / 32; };
    const auto tissues = make_tissue_volume(kDims[0], kDims[1], kDims[2], tissue);
    FaultSweep sweep;
    for (const bool streaming : {true, false}) {
        sweep.run([&](FaultPoint& point) {
            int brightness = 0;
            const VoxelFunction value = [&](int x, int, int z) { return x + z + brightness; };
            const auto volume = make_volume(kDims[0], kDims[1], kDims[2], 12, false, value);
            IP_VOLRC_BrickStructure structure = make_structure(false);
            structure.SetMaxLayerLoaded(1);
            ASSERT_TRUE(structure.Init(volume.get()));
            brightness = 1000;
            for (int z = 0; z < kDims[2]; ++z) {
                delete volume->GetSlice(z);
                volume->SetSlice(make_short_slice(kDims[0], kDims[1], z, 12, false, value), z);
            }
            structure.PrepareUpdatedBricksVector(&all);
            const auto update = [&] {
                return streaming ? structure.RecalculateMinMaxForNewSlices() : structure.UpdateTissue(tissues.get());
            };
            bool done = false;
            point.run([&] { done = update(); });
            point.expect_ended_by_fault(done);
            ASSERT_TRUE(update());
            if (streaming) {
                expect_min_max(structure, kDims, false, value);
            }
            for (int layer = 0; layer < 13; ++layer) {
                EXPECT_EQ(structure.GetBrick(0, 0, layer)->GetTissueActive(layer), !streaming);
            }
        });
    }
}

}  // namespace
