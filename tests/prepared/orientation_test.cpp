// Orientation of prepared slices: flags, blocks, views, batches.
#include <gtest/gtest.h>

#include <set>

#include "tests/host/log_recorder.h"
#include "tests/prepared/prepared_scene.h"

namespace {

using OrientationTest = PreparedTest;

std::set<MEM_PagerInfo*> blocks(const IP_VolDataProj& data, int first, int count) {
    std::set<MEM_PagerInfo*> result;
    for (int i = first; i < first + count; i++) {
        result.insert(data.GetSlice(i)->GetData());
    }
    return result;
}

int num_transposed(const IP_VolDataProj& data) {
    int count = 0;
    for (int z = 0; z < data.GetNumberSlices(); z++) {
        count += data.IsSliceTransposed(z) ? 1 : 0;
    }
    return count;
}

TEST_F(OrientationTest, TurnsSlicesInPlaceAndKeepsWorkBlocksApart) {
    const SourceVolume source(70, 34, 9, 1);
    Prepared prepared;
    ASSERT_TRUE(prepared.create(source, 2));
    const std::set<MEM_PagerInfo*> own = blocks(prepared.data, 0, 9);
    const std::set<MEM_PagerInfo*> work = blocks(prepared.data, 9, 2);

    prepared.data.Transpose(2, 7);
    EXPECT_EQ(num_transposed(prepared.data), 5);
    expect_slices(prepared.data, source, kBackground);

    // Only what differs is touched.
    {
        const LogRecorder log;
        prepared.data.CheckAndTransposed(0, 9, true);
        EXPECT_EQ(log.Count("subtask_check_transpose: "), 4);
        EXPECT_EQ(log.Count("subtask_check_transpose: 8 slice transpose\n"), 1);
        prepared.data.CheckAndTransposed(0, 9, true);
        EXPECT_EQ(log.Count("subtask_check_transpose: "), 4);
    }
    EXPECT_EQ(num_transposed(prepared.data), 9);
    expect_slices(prepared.data, source, kBackground);
    prepared.data.CheckAndTransposed(3, 6, false);
    EXPECT_EQ(num_transposed(prepared.data), 6);
    prepared.data.CheckTransposed(false);
    EXPECT_EQ(num_transposed(prepared.data), 0);
    prepared.data.CheckTransposed(true);
    prepared.data.CheckTransposed(true);
    EXPECT_EQ(num_transposed(prepared.data), 9);
    expect_slices(prepared.data, source, kBackground);
    EXPECT_EQ(blocks(prepared.data, 0, 9), own);
    EXPECT_EQ(blocks(prepared.data, 9, 2), work);

    // Odd ranges are cut.
    prepared.data.Transpose(-5, 400);
    prepared.data.CheckAndTransposed(7, 3, true);
    EXPECT_EQ(num_transposed(prepared.data), 0);
    expect_slices(prepared.data, source, kBackground);
}

TEST_F(OrientationTest, RefilledBlocksAreNotTransposedAnyMore) {
    const SourceVolume source(70, 34, 5, 1);
    IP_RealListVol nothing(*source.volume->GetBox());
    for (const int factor : {1, 2}) {
        Prepared prepared;
        ASSERT_TRUE(prepared.create(source, factor));
        prepared.data.Transpose(0, 3);
        // The next creation finds turned slices: full-size data is turned back, reduced data says what it is.
        ASSERT_TRUE(prepared.create(source, factor));
        EXPECT_EQ(num_transposed(prepared.data), factor == 1 ? 0 : 3);
        expect_slices(prepared.data, source, kBackground);
        prepared.data.CheckAndTransposed(0, 5, true);
        ASSERT_TRUE(prepared.create(source, factor, 2));
        EXPECT_EQ(num_transposed(prepared.data), 0);
        expect_slices(prepared.data, source, kBackground);
        prepared.data.CheckAndTransposed(0, 5, true);
        if (factor == 1) {
            ASSERT_TRUE(prepared.data.CopyWithTissue(source.volume.get(), &nothing, false, 2, 2, -32768, true));
        } else {
            ASSERT_TRUE(prepared.data.CopyFastFromSlow(source.volume.get(), &nothing, false, 2, 2, -32768));
        }
        EXPECT_EQ(num_transposed(prepared.data), 0);
        expect_slices(prepared.data, source, kBackground);
    }
}

TEST_F(OrientationTest, FullSizeDataIsLeftAsAskedFor) {
    const SourceVolume source(33, 66, 5, 1);
    Prepared prepared;
    const LogRecorder log;
    ASSERT_TRUE(prepared.create(source, 1, 1, 1, nullptr, false, true));
    EXPECT_EQ(log.Count("firstNewSliceInd = 4\n"), 1);
    EXPECT_EQ(log.Count("subtask_copy_slices: 4 slice transpose\n"), 1);
    EXPECT_EQ(num_transposed(prepared.data), 5);
    EXPECT_EQ(blocks(prepared.data, 0, 7).size(), 7U);
    expect_slices(prepared.data, source, kBackground);
}

TEST_F(OrientationTest, ASliceGoesIntoAWorkSliceTheOtherWayRound) {
    reference_host::SetNumberOfServers(2);  // each server has blocks of its own
    const SourceVolume source(70, 34, 3, 1);
    Prepared prepared;
    ASSERT_TRUE(prepared.create(source, 2));
    prepared.data.Transpose(1, 2);
    for (int z = 0; z < 2; z++) {
        ASSERT_TRUE(prepared.data.Transpose2WorkSlice(z, 1));
        const Pixels plain = prepared_pixels(prepared.data, z);
        auto* work = static_cast<IP_ShortSlice*>(prepared.data.GetSlice(3 + 1));
        ASSERT_EQ(work->MapMemory(), 0);
        const int x = prepared.data.GetChunkX();
        const int y = prepared.data.GetChunkY();
        for (int i = 0; i < x * y; i++) {
            const int turned = (i % x) * y + i / x;
            ASSERT_EQ(work->GetMappedSlice()[z == 0 ? turned : i], plain[static_cast<std::size_t>(i)]);
        }
        work->UnmapMemory();
    }
    EXPECT_FALSE(prepared.data.Transpose2WorkSlice(3, 0));
    EXPECT_FALSE(prepared.data.Transpose2WorkSlice(0, 2));
}

// A pager that maps little at a time: error lines, and what was done stays right.
TEST_F(OrientationTest, MappingLimitsLeaveEverySliceTrue) {
    const SourceVolume source(64, 64, 12, 1);
    Prepared prepared;
    ASSERT_TRUE(prepared.create(source, 2));
    IP_RealListVol nothing(*source.volume->GetBox());
    const std::int64_t slice_bytes = 32 * 32 * 2 + 128;
    const LogRecorder log;
    reference_host::PagerFaults faults;
    faults.refuse_mapped_above = slice_bytes;
    reference_host::SetPagerFaults(faults);
    prepared.data.Transpose(0, 12);
    EXPECT_EQ(log.Count("Transpose: Map excess failed!\n"), 1);
    EXPECT_FALSE(prepared.data.CopyFastFromSlow(source.volume.get(), &nothing, false, 1, 2, -32768));
    EXPECT_EQ(log.Count("CopyFastFromSlow: Map excess failed!\n"), 1);
    faults.refuse_mapped_above = 12 * slice_bytes;
    reference_host::SetPagerFaults(faults);
    prepared.data.CheckAndTransposed(0, 12, true);
    EXPECT_EQ(log.Count("Transpose: Map quota failed!\n"), 1);
    faults.refuse_mapped_above = 20 * slice_bytes;
    reference_host::SetPagerFaults(faults);
    EXPECT_FALSE(prepared.data.CopyFastFromSlow(source.volume.get(), &nothing, false, 1, 2, -32768));
    EXPECT_EQ(log.Count("CopyFastFromSlow: Map quota failed!\n"), 1);
    reference_host::SetPagerFaults({});
    expect_slices(prepared.data, source, kBackground);
    EXPECT_EQ(num_transposed(prepared.data), 0);
}

// A pixel said to be so wide that a batch holds three slices, or less than one, which counts as one.
TEST_F(OrientationTest, VolumesLargerThanABatchGoBatchByBatch) {
    reference_host::SetNumberOfServers(2);  // each server has blocks of its own
    for (const int batch : {3, 1}) {
        const SourceVolume source(64, 64, 10, 1, -1, batch == 3 ? 8 * 1600000 : 8 * 16000000);
        IP_RealListVol tissue = scattered_tissue(*source.volume->GetBox());
        Prepared prepared;
        ASSERT_TRUE(prepared.create(source, 2));
        const std::int64_t slice_bytes = 32 * 32 * 2 + 128;
        reference_host::PagerFaults faults;
        faults.refuse_mapped_above = (2 + batch) * slice_bytes;
        reference_host::SetPagerFaults(faults);
        prepared.data.Transpose(0, 10);
        EXPECT_EQ(num_transposed(prepared.data), 10);
        prepared.data.CheckAndTransposed(0, 9, false);
        EXPECT_EQ(num_transposed(prepared.data), 1);
        expect_slices(prepared.data, source, -32768);
        reference_host::SetPagerFaults({});
        ASSERT_TRUE(prepared.data.CopyFastFromSlow(source.volume.get(), &tissue, false, 2, 2, -32768));
        expect_slices(prepared.data, source, -32768, &tissue);
    }
}

TEST_F(OrientationTest, ViewsShowPartsWithoutOwningThem) {
    const SourceVolume source(70, 34, 6, 1);
    Prepared prepared;
    ASSERT_TRUE(prepared.create(source, 2));
    prepared.data.SetXYCBounds(new int[8]());
    {
        IP_VolDataMIP straight(prepared.data, false);
        IP_VolDataMIP turned(prepared.data, true);
        prepared.data.CheckAndTransposed(0, 2, true);
        turned.ShowSlices(prepared.data, 0, 2);
        straight.ShowSlices(prepared.data, 2, 6);
        EXPECT_EQ(turned.GetSlice(1), prepared.data.GetSlice(1));
        EXPECT_EQ(turned.GetSlice(2), nullptr);
        EXPECT_EQ(straight.GetSlice(5), prepared.data.GetSlice(5));
        EXPECT_EQ(straight.GetSlice(6), prepared.data.GetSlice(6));  // a work slice
        EXPECT_EQ(straight.GetFirstSliceInd(), 2);
        EXPECT_EQ(straight.GetXYCBounds(), prepared.data.GetXYCBounds());

        // Both parts together fill the box; the turned one has its rows for columns.
        int dims[3];
        turned.GetTransposedBox()->GetDims(dims);
        EXPECT_EQ(dims[0], prepared.data.GetChunkY());
        EXPECT_EQ(dims[1], prepared.data.GetChunkX());
        EXPECT_EQ(dims[2], 2);
        float start[3];
        float middle[3];
        straight.GetBox()->GetStart(start);
        prepared.data.GetBox()->GetMiddle(middle);
        EXPECT_NEAR(start[2], 2 * 1.5F, 1e-5);
        EXPECT_NEAR(straight.GetBox()->GetDepth(), 4 * 1.5F, 1e-5);
        EXPECT_NEAR(turned.GetCurrentBox()->GetWidth(), prepared.data.GetBox()->GetHeight(), 1e-5);

        const IP_VolDataMIP copy(turned);
        turned = straight;
        EXPECT_TRUE(copy.GetCurrentDir());
        EXPECT_FALSE(turned.GetCurrentDir());
        EXPECT_TRUE(copy.GetChunks().empty());
        straight.ShowSlices(prepared.data, 4, 4);
        straight.GetBox()->GetDims(dims);
        EXPECT_EQ(dims[2], 0);
    }
    expect_slices(prepared.data, source, kBackground);

    // Directions exchange x and y of the current box; bounds follow them.
    prepared.data.SetYXCBounds(new int[8]());
    EXPECT_EQ(prepared.data.GetCurrentCBounds(), prepared.data.GetXYCBounds());
    prepared.data.FlipCurrentDir();
    EXPECT_EQ(prepared.data.GetCurrentCBounds(), prepared.data.GetYXCBounds());
    EXPECT_NEAR(prepared.data.GetCurrentBox()->GetWidth(), prepared.data.GetBox()->GetHeight(), 1e-5);
    prepared.data.SetDirOriginal();
    EXPECT_TRUE(*prepared.data.GetCurrentBox() == *prepared.data.GetBox());
}

}  // namespace
