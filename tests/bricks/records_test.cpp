// Brick and octant records by themselves.
#include "tests/bricks/brick_test_support.h"

#include <cstring>

namespace {

using namespace brick_tests;

TEST(BrickRecord, FreshRecordIsEmpty) {
    IP_VOLRC_BrickData brick;
    EXPECT_EQ(brick.GetZeroLevelLuminosity(), 0);
    EXPECT_EQ(brick.GetNumTissues(), 1);
    for (int tissue = 0; tissue < 16; ++tissue) {
        EXPECT_EQ(brick.GetTissueActive(tissue), tissue == 15);
    }
    for (int word = 0; word < 1024; ++word) {
        ASSERT_EQ((*brick.GetCellInvisCache())[word], ~0U);
        ASSERT_EQ((*brick.GetCellVisCache())[word], 0U);
    }
    for (int i = 0; i < 8 * 64; ++i) {
        unsigned pair;
        std::memcpy(&pair, &brick.GetOD(i / 64)->GetData()[i % 64], sizeof(pair));
        ASSERT_EQ(pair, 0x0000FFFFU);
    }
    brick.SetNumOpaqueCells(5);
    EXPECT_EQ(brick.GetNumOpaqueLeaves(), 5);
    EXPECT_EQ(brick.GetNumOpaqueCells(), 0);
}

TEST(BrickRecord, LuminositySummaries) {
    IP_VOLRC_OctreeData octant;
    octant.GetLeavesLuminosityVector()[3] = 0x08;
    EXPECT_EQ(octant.FindNodeLuminosity(2, 3), 2);
    octant.GetLeavesLuminosityVector()[3] = 0x04;
    EXPECT_EQ(octant.FindNodeLuminosity(2, 3), 0);
    EXPECT_EQ(octant.FindNodeLuminosity(1, 3), 1);
    EXPECT_EQ(octant.FindNodeLuminosity(1, 2), 0);
    EXPECT_EQ(octant.FindNodeLuminosity(0, 2), 2);

    IP_VOLRC_BrickData brick;
    unsigned char bytes[8];
    std::memset(bytes, 0xFF, sizeof(bytes));
    brick.UpdateZeroLevelLuminosity(2, bytes);
    EXPECT_EQ(brick.GetZeroLevelLuminosity(), 0x0030);
    std::memset(bytes, 0, sizeof(bytes));
    bytes[6] = 0x01;
    brick.UpdateZeroLevelLuminosity(2, bytes);
    brick.UpdateZeroLevelLuminosity(7, bytes);
    EXPECT_EQ(brick.GetZeroLevelLuminosity(), 0x4010);
}

TEST(BrickRecord, UpdateCicClearsExactlyTheDarkLeaves) {
    for (int octant = 0; octant < 8; ++octant) {
        IP_VOLRC_OctreeData data;
        for (int node = 0; node < 8; ++node) {
            data.GetLeavesLuminosityVector()[node] = static_cast<unsigned char>(noise(octant, node, 0));
        }
        unsigned cache[1024];
        std::memset(cache, 0xFF, sizeof(cache));
        data.UpdateCIC(&cache, octant);
        for (int voxel = 0; voxel < 32 * 32 * 32; ++voxel) {
            const int p[3] = {voxel & 31, voxel >> 5 & 31, voxel >> 10};
            bool expected = true;
            if ((p[0] >> 4) + 2 * (p[1] >> 4) + 4 * (p[2] >> 4) == octant) {
                const int node = (p[0] >> 3 & 1) + 2 * (p[1] >> 3 & 1) + 4 * (p[2] >> 3 & 1);
                const int leaf = (p[0] >> 2 & 1) + 2 * (p[1] >> 2 & 1) + 4 * (p[2] >> 2 & 1);
                expected = (data.GetLeavesLuminosityVector()[node] >> leaf & 1) != 0;
            }
            ASSERT_EQ((cache[p[2] * 32 + p[1]] >> p[0] & 1) != 0, expected) << octant << " " << voxel;
        }
    }
}

TEST(BrickRecord, InitLeafWidensThePairAndZeroesLeavesBeyondTheVolume) {
    const auto volume = make_volume(9, 6, 5, 12, true, [](int x, int y, int z) { return 100 * z + 10 * y + x - 300; });
    for (int z = 0; z < 5; ++z) {
        ASSERT_EQ(volume->GetSlice(z)->MapMemory(), 0);
    }
    IP_VOLRC_BrickData brick;
    IP_VOLRC_OctreeData& octant = *brick.GetOD(0);
    octant.InitMinMaxTable(kEmptyMinMaxSigned);
    int origin[3] = {0, 0, 0};
    octant.CalcMinMaxVals(volume.get(), 3, origin);  // leaf 3 starts at voxel (4, 4, 0), rows end at 5
    EXPECT_EQ(static_cast<short>(octant.GetData()[3].minimum), -300 + 44);
    EXPECT_EQ(static_cast<short>(octant.GetData()[3].maximum), -300 + 458);
    sMinMax pair = {static_cast<unsigned short>(-1000), 1000};
    octant.InitLeaf(volume.get(), origin, &pair);
    EXPECT_EQ(static_cast<short>(pair.minimum), -1000);
    EXPECT_EQ(pair.maximum, 1000);
    int beyond[3] = {0, 0, 5};
    octant.InitLeaf(volume.get(), beyond, &pair);
    EXPECT_EQ(pair.minimum, 0);
    EXPECT_EQ(pair.maximum, 0);

    // Only the first leaf of each octant.
    octant.InitMinMaxTable(kEmptyMinMaxSigned);
    brick.InitOctree(volume.get());
    EXPECT_EQ(static_cast<short>(octant.GetData()[0].maximum), -300 + 444);
    EXPECT_EQ(octant.GetData()[1].minimum, 0x7FFF);

    // A slice of another size has no rows to read.
    octant.InitMinMaxTable(kEmptyMinMaxSigned);
    delete volume->GetSlice(4);
    volume->SetSlice(make_short_slice(2, 2, 4, 12, true, [](int, int, int) { return 2000; }), 4);
    ASSERT_EQ(volume->GetSlice(4)->MapMemory(), 0);
    brick.InitOctree(volume.get());
    EXPECT_EQ(static_cast<short>(octant.GetData()[0].maximum), -300 + 344);
    for (int z = 0; z < 5; ++z) {
        volume->GetSlice(z)->UnmapMemory();
    }
}

}  // namespace
