// The tissue list: neutral values, ownership, and what a copy leaves out.
#include "host/masks.h"
#include "host/multi_volume.h"
#include "ip_volr/IP_VolRTissueList.h"

#include <gtest/gtest.h>

namespace {

struct Offset {
    int x = 9;
    int y = 9;
    int z = 9;
    bool operator==(const Offset& o) const { return x == o.x && y == o.y && z == o.z; }
};

Offset offset_of(const IP_VolRTissueList& list, unsigned i) {
    Offset offset;
    list.GetTissueOffset(i, offset.x, offset.y, offset.z);
    return offset;
}

void expect_neutral(const IP_VolRTissueList& list, unsigned i, int colour_table) {
    EXPECT_EQ(list.GetTissue(i), nullptr);
    EXPECT_EQ(list.GetRbvList(i), nullptr);
    EXPECT_EQ(list.GetRotatedRbv(i), nullptr);
    EXPECT_EQ(list.GetColorTableIndex(i), colour_table);
    EXPECT_EQ(list.GetTissueSign(i), 0);
    EXPECT_FALSE(list.GetEqualSize(i));
    EXPECT_FALSE(list.ShouldNegate(i));
    EXPECT_EQ(offset_of(list, i), (Offset{0, 0, 0}));
}

struct FilledList {
    FilledList() {
        list.SetNumbTissues(2);
        list.SetTissue(1, &runs);
        list.SetRbvList(1, &bits);
        auto* const rotated = new IP_RealBitVol(IP_Box(4, 4, 4));
        rotated->SetPixel(1, 2, 3, true);
        list.SetRotatedRbv(1, rotated);
        list.SetColorTableIndex(1, 7);
        list.SetTissueSign(1, -1);
        list.SetEqualSize(1, true);
        list.SetShouldNegate(1, true);
        list.SetTissueOffset(1, 3, 4, 5);
    }
    IP_MultiRealListVol runs;
    IP_MultiRealBitVol bits;
    IP_VolRTissueList list;
};

TEST(TissueList, IndicesOutOfRangeAreAbsorbed) {
    IP_VolRTissueList list;
    EXPECT_EQ(list.GetNumbTissues(), 0U);
    for (const unsigned i : {0U, 3U, 0xFFFFFFFFU}) {
        list.SetColorTableIndex(i, 4);
        list.SetEqualSize(i, true);
        list.SetTissueOffset(i, 1, 2, 3);
        expect_neutral(list, i, -1);
    }
    list.SetNumbTissues(3);
    expect_neutral(list, 2, 0);
    expect_neutral(list, 3, -1);
}

TEST(TissueList, CopyHasItsOwnRotatedBitsAndNoOffsets) {
    const FilledList filled;
    IP_VolRTissueList copy(filled.list);
    EXPECT_EQ(copy.GetNumbTissues(), 2U);
    expect_neutral(copy, 0, 0);
    EXPECT_EQ(copy.GetTissue(1), filled.list.GetTissue(1));
    EXPECT_EQ(copy.GetRbvList(1), filled.list.GetRbvList(1));
    ASSERT_NE(copy.GetRotatedRbv(1), nullptr);
    EXPECT_NE(copy.GetRotatedRbv(1), filled.list.GetRotatedRbv(1));
    EXPECT_EQ(copy.GetRotatedRbv(1)->GetPixel(1, 2, 3), 1);
    EXPECT_EQ(copy.GetColorTableIndex(1), 7);
    EXPECT_EQ(copy.GetTissueSign(1), -1);
    EXPECT_TRUE(copy.GetEqualSize(1));
    EXPECT_TRUE(copy.ShouldNegate(1));
    EXPECT_EQ(offset_of(copy, 1), (Offset{0, 0, 0}));
    EXPECT_EQ(offset_of(filled.list, 1), (Offset{3, 4, 5}));

    copy.SetNumbTissues(2);
    expect_neutral(copy, 1, 0);
    copy = filled.list;
    EXPECT_EQ(copy.GetColorTableIndex(1), 7);
    const IP_VolRTissueList& same = copy;
    copy = same;
    EXPECT_EQ(copy.GetNumbTissues(), 2U);
    expect_neutral(copy, 1, 0);
}

TEST(TissueList, EqualSizeZeroesTheOffset) {
    FilledList filled;
    filled.list.SetEqualSize(1, false);
    EXPECT_EQ(offset_of(filled.list, 1), (Offset{3, 4, 5}));
    filled.list.SetEqualSize(1, true);
    EXPECT_EQ(offset_of(filled.list, 1), (Offset{0, 0, 0}));
}

}  // namespace
