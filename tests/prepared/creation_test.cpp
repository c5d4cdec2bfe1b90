// Creation of prepared volumes: shapes, contents, reuse and partial grants.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/host/log_recorder.h"
#include "tests/prepared/prepared_scene.h"

namespace {

using CreationTest = PreparedTest;

TEST_F(CreationTest, HoldsTheSourceCentredAtEverySizeAndFactor) {
    const int sizes[][4] = {{511, 511, 2, 1}, {511, 511, 2, 2}, {33, 18, 5, 1}, {37, 50, 3, 2},
                            {64, 64, 1, 2},   {32, 64, 4, 1},   {3, 2, 3, 2},   {16, 16, 0, 2}};
    for (const auto& s : sizes) {
        SCOPED_TRACE(testing::Message() << s[0] << " x " << s[1] << " x " << s[2] << " factor " << s[3]);
        const SourceVolume source(s[0], s[1], s[2], 7);
        Prepared prepared;
        ASSERT_TRUE(prepared.create(source, s[3]));
        expect_slices(prepared.data, source, kBackground);

        // Half of a full-size slice is a multiple of 16, a reduced one is one itself; spacing and centre stay.
        int dims[3];
        prepared.data.GetBox()->GetDims(dims);
        EXPECT_EQ(dims[0], prepared.data.GetChunkX());
        EXPECT_EQ(dims[1], prepared.data.GetChunkY());
        EXPECT_EQ(dims[2], s[2]);
        EXPECT_EQ(dims[0] % (s[3] == 1 ? 32 : 16), 0);
        EXPECT_LT(dims[0] - s[0] / s[3], s[3] == 1 ? 33 : 16);
        const float spacing = 0.5F * static_cast<float>(s[0]) / static_cast<float>(s[0] / s[3]);
        EXPECT_NEAR(prepared.data.GetBox()->GetXMmPerPixel(), spacing, 1e-5);
        EXPECT_FALSE(prepared.data.GetCurrentDir());
    }
}

TEST_F(CreationTest, BackgroundIsTheLowestValueOrTheMinimum) {
    const SourceVolume source(20, 20, 3, 1, 1);
    const IP_RealListVol tissue = scattered_tissue(*source.volume->GetBox());
    // Beyond 16 bits the minimum wraps, and is limited where there is a tissue.
    const struct {
        int minimum;
        const IP_ListVol* tissue;
        short background;
    } cases[] = {
        {-1024, nullptr, -1024}, {-4000, nullptr, kBackground}, {40000, nullptr, -25536}, {40000, &tissue, 32767}};
    for (const auto& [minimum, mask, background] : cases) {
        for (const int factor : {1, 2}) {
            Prepared prepared;
            ASSERT_TRUE(prepared.data.Create(*source.volume, prepared.map, mask, false, factor, false, 1, 1,
                                             factor == 1 ? 1 : 0, minimum));
            EXPECT_EQ(prepared_pixels(prepared.data, 0), expected_pixels(source, prepared.data, 0, background, mask));
            // A slice without memory is background all over.
            const Pixels blank(prepared_pixels(prepared.data, 0).size(), background);
            EXPECT_EQ(prepared_pixels(prepared.data, 1), blank);
        }
    }
}

TEST_F(CreationTest, SlicesAreReusedByTextVersionAndShape) {
    const SourceVolume source(40, 30, 6, 3);
    for (const int factor : {1, 2}) {
        Prepared prepared;
        ASSERT_TRUE(prepared.create(source, factor));
        const std::size_t num_chunks = prepared.data.GetChunks().size();
        EXPECT_EQ(prepared.map.size(), 6U);

        // Mark the blocks: whoever copies again removes the marks.
        const auto mark = [&] {
            for (int z = 0; z < 6; z++) {
                auto* slice = static_cast<IP_ShortSlice*>(prepared.data.GetSlice(z));
                ASSERT_EQ(slice->MapMemory(), 0);
                slice->GetMappedSlice()[0] = 999;
                slice->UnmapMemory();
            }
        };
        mark();
        {
            const LogRecorder log;
            ASSERT_TRUE(prepared.create(source, factor));
            EXPECT_EQ(log.Count("find 0 new slices\n"), 1);
            EXPECT_EQ(log.Count("build chunks for 0 slice, alloc = 1\n"), 1);
            EXPECT_EQ(log.Count("build index array for all slices (6)\n"), 1);
            EXPECT_EQ(log.Count("Alloc. Chunk"), 0);
        }
        EXPECT_EQ(prepared.data.GetChunks().size(), num_chunks);
        EXPECT_EQ(prepared_pixels(prepared.data, 5)[0], 999);

        // New pixel data, new tissues: copied again into the same blocks.
        MEM_PagerInfo* const block = prepared.data.GetSlice(0)->GetData();
        ASSERT_TRUE(prepared.create(source, factor, 2));
        expect_slices(prepared.data, source, kBackground);
        mark();
        ASSERT_TRUE(prepared.create(source, factor, 2, 2));
        expect_slices(prepared.data, source, kBackground);
        EXPECT_EQ(prepared.data.GetSlice(0)->GetData(), block);

        // Another size, another factor under the same texts: other blocks, and no stale find afterwards.
        const SourceVolume wider(42, 30, 6, 3);
        ASSERT_TRUE(prepared.create(wider, factor, 2, 2));
        expect_slices(prepared.data, wider, kBackground);
        ASSERT_TRUE(prepared.create(wider, 3 - factor, 2, 2));
        expect_slices(prepared.data, wider, kBackground);
        EXPECT_EQ(prepared.map.size(), 6U);
    }
}

TEST_F(CreationTest, SlicesWithoutOrWithRepeatedTextKeepTheirOwnPixels) {
    const SourceVolume source(24, 24, 5, 9);
    source.volume->GetSlice(1)->SetID("");
    source.volume->GetSlice(3)->SetID("");
    source.volume->GetSlice(4)->SetID(source.volume->GetSlice(2)->GetID());
    Prepared prepared;
    for (int round = 0; round < 3; round++) {
        ASSERT_TRUE(prepared.create(source, 2));
        expect_slices(prepared.data, source, kBackground);
        prepared.data.Transpose(0, 5);
        expect_slices(prepared.data, source, kBackground);
    }
    EXPECT_EQ(prepared.map.size(), 2U);
}

// 100 slices from a pager that grants 60 and then the rest, or 60, 30 and then the rest.
TEST_F(CreationTest, AsksAPagerThatGrantsLessForNoMoreThanItGranted) {
    const SourceVolume source(16, 16, 100, 4);
    for (const bool twice : {false, true}) {
        std::vector<std::string> requests;
        reference_host::SetLogLevel(7);
        reference_host::LogToCallback([&](const reference_host::LogLine& line) {
            const std::string text = line.text;
            if (text.rfind("Alloc. Chunk: ", 0) == 0) {
                requests.push_back(text);
                reference_host::PagerFaults faults;
                faults.refuse_allocation = requests.size() == 1 ? 61 : requests.size() == 2 && twice ? 31 : 0;
                reference_host::SetPagerFaults(faults);
            }
        });
        Prepared prepared;
        const bool created = prepared.create(source, 2);
        reference_host::LogToCallback({});
        reference_host::SetLogLevel(0);
        ASSERT_TRUE(created);
        std::vector<std::string> expected = {"Alloc. Chunk: try to allocate 100 slices\n",
                                             "Alloc. Chunk: try to allocate 40 slices\n"};
        if (twice) {
            expected.push_back("Alloc. Chunk: try to allocate 10 slices\n");
        }
        EXPECT_EQ(requests, expected);
        EXPECT_EQ(prepared.data.GetChunks().size(), expected.size() + 1);
        expect_slices(prepared.data, source, kBackground);
    }
}

TEST_F(CreationTest, LeanDataHasStructureAndNoMemory) {
    reference_host::SetNumberOfServers(2);  // each server has blocks of its own
    const SourceVolume source(40, 40, 7, 2);
    Prepared prepared;
    const std::int64_t before = reference_host::GetPagerStatistics().blocks;
    ASSERT_TRUE(prepared.data.LeanCreate(*source.volume, prepared.map, nullptr, false, 2, false, 1, 1, 0, -32768));
    EXPECT_EQ(reference_host::GetPagerStatistics().blocks, before + 4);
    EXPECT_EQ(prepared.data.GetChunkX(), 32);
    EXPECT_TRUE(prepared.map.empty());
    for (int z = 0; z < 7; z++) {
        ASSERT_NE(prepared.data.GetSlice(z), nullptr);
        EXPECT_EQ(prepared.data.GetSlice(z)->GetData(), nullptr);
        EXPECT_STREQ(prepared.data.GetSlice(z)->GetID(), source.volume->GetSlice(z)->GetID());
    }
    // What needs memory does nothing.
    prepared.data.CheckAndTransposed(0, 7, true);
    prepared.data.Transpose(0, 7);
    EXPECT_FALSE(prepared.data.Transpose2WorkSlice(0, 0));
    IP_RealListVol tissue(*source.volume->GetBox());
    EXPECT_TRUE(prepared.data.CopyFastFromSlow(source.volume.get(), &tissue, false, 2, 2, -32768));
}

TEST_F(CreationTest, RefusesWhatItCannotPrepare) {
    reference_host::SetNumberOfServers(2);  // each server has blocks of its own
    const SourceVolume source(20, 20, 4, 2);
    Prepared prepared;
    EXPECT_FALSE(prepared.data.Create(*source.volume, prepared.map, nullptr, false, 3, false, 1, 1, 0, 0));
    int dims[3];
    prepared.data.GetBox()->GetDims(dims);
    EXPECT_EQ(dims[0] + dims[1] + dims[2], 0);

    const LogRecorder log;
    EXPECT_TRUE(prepared.data.Create(*source.volume, prepared.map, nullptr, false, 2, false, 1, 1, 2, 0));
    EXPECT_EQ(log.Count("subtask_copy_slices wrong m_RenderQuality = 2\n"), 2);
    // Filled as soon as the quality is right: the records say that nothing was copied.
    ASSERT_TRUE(prepared.create(source, 2));
    expect_slices(prepared.data, source, kBackground);
    IP_VolDataMIP empty;
    empty.Transpose(0, 5);
    EXPECT_TRUE(empty.CheckTransposed(true));
    EXPECT_FALSE(empty.Transpose2WorkSlice(0, 0));
}

TEST_F(CreationTest, IsTheSameWithAnyNumberOfServers) {
    const SourceVolume source(70, 34, 9, 6);
    for (const int servers : {1, 2, 3, 8}) {
        for (const int factor : {1, 2}) {
            reference_host::SetNumberOfServers(servers);
            Prepared prepared;
            ASSERT_TRUE(prepared.create(source, factor));
            EXPECT_EQ(prepared.data.GetNumberWorkSlices(), std::max(2, servers));
            // Servers may join after the creation: the work slices do not.
            reference_host::SetNumberOfServers(8);
            prepared.data.Transpose(1, 8);
            expect_slices(prepared.data, source, kBackground);
        }
    }
}

}  // namespace
