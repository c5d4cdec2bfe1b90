// Slice chunks and slice identity.
#include "ip_volr/IP_SliceChunk.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "host/reference/settings.h"
#include "tests/host/log_recorder.h"

namespace {

std::int64_t num_blocks() {
    return reference_host::GetPagerStatistics().blocks;
}

TEST(SliceChunk, HoldsWhatThePagerGrantsAndFreesExactlyThat) {
    const std::int64_t before = num_blocks();
    unsigned granted = 99;
    {
        LogRecorder log;
        IP_SliceChunk chunk(4, 3, 3, 2.0F, true, &granted);
        EXPECT_EQ(granted, 4U);
        EXPECT_EQ(chunk.GetSliceSize(), 160U);
        EXPECT_EQ(num_blocks(), before + 4);
        EXPECT_EQ(reference_host::GetPagerStatistics().mappings, 0);
        EXPECT_EQ(chunk.MapSlices(), 0);
        EXPECT_EQ(reference_host::GetPagerStatistics().mappings, 4);
        EXPECT_EQ(chunk.UnmapSlices(), 0);
        EXPECT_EQ(log.Texts().front(),
                  "BuildChunk: NumbSlices = 4, X = 3, Y = 3, SizeInBytes = 2.000000, MaxAlloc = 1\n");
        EXPECT_EQ(log.Count("MapSlices: MapMemPagerInfoVec [0 - 4[\n"), 1);
        EXPECT_EQ(log.Count("UnmapSlices: UnmapMemPagerInfoVec [0 - 4[\n"), 1);
    }
    EXPECT_EQ(num_blocks(), before);

    // A pager that refuses the fourth block.
    reference_host::PagerFaults faults;
    faults.refuse_allocation = 4;
    reference_host::SetPagerFaults(faults);
    {
        IP_SliceChunk chunk(10, 512, 512, 2.0F, false, &granted);
        reference_host::SetPagerFaults({});
        EXPECT_EQ(granted, 3U);
        EXPECT_EQ(chunk.GetNumbSlices(), 3U);
        EXPECT_EQ(chunk.GetSliceSize(), 524416U);
        EXPECT_EQ(num_blocks(), before + 3);
        faults = {};
        faults.refuse_map = 1;
        reference_host::SetPagerFaults(faults);
        EXPECT_NE(chunk.MapSlices(), 0);
        reference_host::SetPagerFaults({});
    }
    EXPECT_EQ(num_blocks(), before);

    // Nothing asked for, nothing there; and sizes that no block can have.
    const int sizes[][3] = {{0, 8, 8}, {4, 0, 8}, {4, 8, 0}, {2, 100000, 100000}, {2, -4, 8}};
    for (const auto& size : sizes) {
        IP_SliceChunk chunk(static_cast<unsigned>(size[0]), size[1], size[2], 2.0F, true, &granted);
        EXPECT_EQ(granted, 0U);
        EXPECT_EQ(chunk.MapSlices(), 0);
        EXPECT_EQ(chunk.UnmapSlices(), 0);
    }
    EXPECT_EQ(num_blocks(), before);
}

// The hash, written out for texts of one word, one and a quarter, and one and three quarters.
TEST(SliceIdentity, HashGoesByLittleEndianWordsWithZeroFill) {
    const auto rotated = [](std::uint32_t h) { return (h << 5) | (h >> 27); };
    EXPECT_EQ(SliceIDHash::HashText("", 0), 0U);
    EXPECT_EQ(SliceIDHash::HashText("abcd", 4), rotated(4) ^ 0x64636261U);
    EXPECT_EQ(SliceIDHash::HashText("abcde", 5), rotated(rotated(5) ^ 0x64636261U) ^ 0x65U);
    EXPECT_EQ(SliceIDHash::HashText("abcdefg", 7), rotated(rotated(7) ^ 0x64636261U) ^ 0x00676665U);
}

TEST(SliceIdentity, KeysAreEqualByTextAndEmptyKeysEqualNothing) {
    const SliceIDHash equal;
    char text[] = "1.2.840.1";
    SliceIDKey referring;
    referring.SetText(text, false);
    SliceIDKey owning;
    owning.SetText(text, true);
    EXPECT_TRUE(equal(&referring, &owning));
    EXPECT_NE(owning.GetText(), text);
    text[8] = '2';
    EXPECT_FALSE(equal(&referring, &owning));
    SliceIDKey longer;
    longer.SetText("1.2.840.11", false);
    EXPECT_FALSE(equal(&owning, &longer));
    const SliceIDKey empty;
    EXPECT_FALSE(equal(&empty, &empty));
    owning.SetText(owning.GetText(), true);
    EXPECT_STREQ(owning.GetText(), "1.2.840.1");
}

TEST(SliceIdentity, RecordsAreEqualOnlyForOneBlockInOneVersionAndOrientation) {
    unsigned granted = 0;
    const IP_SliceChunk chunk(2, 1024, 1024, 2.0F, false, &granted);
    ASSERT_EQ(granted, 2U);
    IP_SliceIDInfo a;
    IP_SliceIDInfo b;
    EXPECT_EQ(a.GetPDCounter() + a.GetTissueCounter(), 0);
    for (IP_SliceIDInfo* record : {&a, &b}) {
        record->SetID("slice");
        record->SetData(chunk.GetMemInfo(0));
    }
    EXPECT_EQ(a == b, 1);
    // Also when the pager moves whatever is not mapped out of memory.
    reference_host::SetMemoryBudget(1);
    EXPECT_EQ(a == b, 1);
    b.SetData(chunk.GetMemInfo(1));
    EXPECT_EQ(a == b, 0);
    b.SetData(chunk.GetMemInfo(0));
    reference_host::SetMemoryBudget(0);
    b.SetIsBlankSlice(true);
    EXPECT_EQ(a == b, 1);
    b.ReverseTranspose();
    EXPECT_EQ(a == b, 0);
    b.SetTransposed(false);
    b.SetPDCounter(1);
    EXPECT_EQ(a == b, 0);
    b.SetPDCounter(0);
    b.SetData(chunk.GetMemInfo(1));
    EXPECT_EQ(a == b, 0);
    b.SetData(nullptr);
    EXPECT_EQ(a == b, 0);
    const IP_SliceIDInfo copy(a);
    EXPECT_EQ(copy.GetData(), nullptr);
    EXPECT_EQ(reference_host::GetPagerStatistics().mappings, 0);
}

TEST(SliceIdentity, RecordsLeaveTheirMapWhenTheyDieOrGiveWay) {
    SliceHashMap map;
    IP_SliceIDInfo lasting;
    lasting.SetID("a");
    lasting.Register(map);
    {
        IP_SliceIDInfo brief;
        brief.SetID("b");
        brief.Register(map);
        IP_SliceIDInfo successor;
        successor.SetID("a");
        successor.Register(map);
        EXPECT_EQ(map.size(), 2U);
        EXPECT_EQ(map.find(successor.GetID())->second, &successor);
        IP_SliceIDInfo without_text;
        without_text.Register(map);
        EXPECT_EQ(map.size(), 2U);
    }
    EXPECT_TRUE(map.empty());
}

}  // namespace
