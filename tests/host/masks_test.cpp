// Masks against arrays of single voxels.
#include "host/masks.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

namespace {

constexpr int kWidth = 75;
constexpr int kHeight = 6;
constexpr int kDepth = 4;

// A mask twice: as runs and as an array of voxels.
struct MaskPair {
    IP_ListVol list{IP_Dims(kWidth, kHeight, kDepth)};
    std::vector<unsigned char> voxels = std::vector<unsigned char>(kWidth * kHeight * kDepth);

    unsigned char& At(int x, int y, int z) { return voxels[static_cast<std::size_t>((z * kHeight + y) * kWidth + x)]; }
    void Add(int row, int slice, int first, int last) {
        list.AddRun(row, slice, first, last);
        for (int x = std::max(first, 0); x < std::min(last, kWidth); ++x) {
            if (row >= 0 && row < kHeight && slice >= 0 && slice < kDepth) {
                At(x, row, slice) = 1;
            }
        }
    }
    void Negate() {
        list.Negate();
        for (unsigned char& voxel : voxels) {
            voxel ^= 1;
        }
    }
};

MaskPair make_random_mask(unsigned seed) {
    MaskPair mask;
    std::minstd_rand random(seed);
    for (int i = 0; i < 120; ++i) {
        const int first = static_cast<int>(random() % (kWidth + 20)) - 10;
        mask.Add(static_cast<int>(random() % (kHeight + 2)) - 1, static_cast<int>(random() % (kDepth + 2)) - 1, first,
                 first + static_cast<int>(random() % 9));
    }
    return mask;
}

template <class Mask>
void expect_lines(const Mask& mask, MaskPair& expected) {
    for (int z = -1; z <= kDepth; ++z) {
        for (int y = -1; y <= kHeight; ++y) {
            const bool inside = y >= 0 && y < kHeight && z >= 0 && z < kDepth;
            std::vector<unsigned char> set(kWidth, 7);
            std::vector<unsigned char> unset(kWidth, 7);
            mask.WriteLine(y, z, set.data(), 3, 1);
            mask.WriteLine(y, z, unset.data(), 3, 0);
            for (int x = 0; x < kWidth; ++x) {
                const bool is_set = inside && expected.At(x, y, z) != 0;
                ASSERT_EQ(set[static_cast<std::size_t>(x)], is_set ? 3 : 7);
                ASSERT_EQ(unset[static_cast<std::size_t>(x)], inside && !is_set ? 3 : 7);
                ASSERT_EQ(mask.GetPixel(x, y, z), is_set ? 1 : 0);
            }
            EXPECT_EQ(mask.GetPixel(-1, y, z) + mask.GetPixel(kWidth, y, z), 0);
        }
    }
}

TEST(MasksTest, RunsInAnyOrderGiveTheirVoxels) {
    for (unsigned seed = 0; seed < 20; ++seed) {
        MaskPair mask = make_random_mask(seed);
        expect_lines(mask.list, mask);
        std::vector<short> line(kWidth, -4);
        mask.list.WriteLine(2, 1, line.data(), 65535);
        for (int x = 0; x < kWidth; ++x) {
            EXPECT_EQ(line[static_cast<std::size_t>(x)], mask.At(x, 2, 1) != 0 ? -1 : -4);
        }

        // Runs stay apart and in order.
        int end = -1;
        for (const IP_ListVol::Run& run : mask.list.GetRuns(2, 1)) {
            EXPECT_GT(run.first, end);
            EXPECT_GT(run.last, run.first);
            end = run.last;
        }
        mask.Negate();
        expect_lines(mask.list, mask);
        mask.Add(0, 0, 5, 50);
        expect_lines(mask.list, mask);
    }
}

TEST(MasksTest, BitsAgreeWithRunsAndKeepTheirBorderUnset) {
    MaskPair mask = make_random_mask(77);
    for (const bool negate : {false, true}) {
        IP_RealBitVol bits(&mask.list, nullptr, negate);
        if (negate) {
            mask.Negate();
        }
        expect_lines(static_cast<const IP_BitVol&>(bits), mask);
        const unsigned* const words = bits.GetBits();
        const std::size_t last_slice = (kDepth + 1) * bits.GetSliceStride();
        EXPECT_TRUE(std::all_of(words, words + bits.GetSliceStride(), [](unsigned word) { return word == 0; }));
        EXPECT_TRUE(std::all_of(words + last_slice, words + last_slice + bits.GetSliceStride(),
                                [](unsigned word) { return word == 0; }));
        EXPECT_EQ(words[bits.GetSliceStride() + bits.GetRowStride()] & 1U, 0U);
    }
}

TEST(MasksTest, SmoothOrSamplesInSpace) {
    // A cube of twice the spacing, moved by a voxel: each of its voxels covers eight here.
    IP_RealBitVol fine(IP_Box(20, 20, 20));
    IP_Box coarse_box(10, 10, 10, 2.0F, 2.0F, 2.0F);
    coarse_box.Translate(2.0F, 0.0F, 0.0F);
    IP_RealBitVol coarse(coarse_box);
    for (int i = 0; i < 27; ++i) {
        coarse.SetPixel(3 + i % 3, 3 + i / 3 % 3, 3 + i / 9, true);
    }
    fine.SetPixel(0, 0, 0, true);
    IP_RealBitVol smooth = fine;
    fine.SmoothOr(coarse, 0);
    smooth.SmoothOr(coarse, 1);
    int num_fine = 0;
    int num_smooth = 0;
    for (int i = 0; i < 8000; ++i) {
        const int x = i % 20;
        const int y = i / 20 % 20;
        const int z = i / 400;
        const bool inside = x >= 8 && x < 14 && y >= 6 && y < 12 && z >= 6 && z < 12;
        EXPECT_EQ(fine.GetPixel(x, y, z), inside || i == 0 ? 1 : 0);
        num_fine += fine.GetPixel(x, y, z);
        num_smooth += smooth.GetPixel(x, y, z);
        EXPECT_LE(smooth.GetPixel(x, y, z), fine.GetPixel(x, y, z));
    }
    EXPECT_EQ(num_fine, 217);
    // Interpolation rounds off the eight corners (weight 27/64) and the twelve edges of 4 voxels (36/64) stay.
    EXPECT_EQ(num_smooth, 209);
}

TEST(MasksTest, EmptyAndImpossibleSizesHoldNothing) {
    for (IP_ListVol list : {IP_ListVol(), IP_ListVol(IP_Dims(-3, 4, 5)), IP_ListVol(IP_Dims(4, 0, 5))}) {
        list.AddRun(0, 0, 0, 4);
        list.Negate();
        EXPECT_EQ(list.GetPixel(0, 0, 0), 0);
        IP_RealBitVol bits(&list, nullptr, true);
        EXPECT_EQ(bits.GetPixel(0, 0, 0), 0);
    }
    IP_RealBitVol none(nullptr, nullptr, false);
    none.SmoothOr(none, 1);
    none.Negate();
    EXPECT_EQ(none.GetPixel(0, 0, 0), 0);
}

}  // namespace
