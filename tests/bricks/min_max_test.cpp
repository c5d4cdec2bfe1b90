// Minimum and maximum of every leaf against a voxel-by-voxel reference.
#include "tests/bricks/brick_test_support.h"

namespace {

using namespace brick_tests;

struct Case {
    int dims[3];
    int bits;
    bool is_signed;
};

VoxelFunction noise_of_kind(int bits, bool is_signed) {
    return [=](int x, int y, int z) {
        const int value = static_cast<int>(noise(x, y, z) & ((1U << bits) - 1));
        return is_signed ? value - (1 << (bits - 1)) : value;
    };
}

class BrickMinMax : public BrickTest {};

TEST_F(BrickMinMax, EveryLeafHoldsItsExtremes) {
    const Case cases[] = {
        {{1, 1, 1}, 16, true},    {{33, 33, 33}, 12, true}, {{33, 33, 33}, 16, false}, {{70, 37, 1}, 12, false},
        {{4, 129, 30}, 16, true}, {{6, 5, 330}, 12, true},  {{100, 64, 36}, 16, true},
    };
    for (const Case& c : cases) {
        const VoxelFunction value = noise_of_kind(c.bits, c.is_signed);
        const auto volume = make_volume(c.dims[0], c.dims[1], c.dims[2], c.bits, c.is_signed, value);
        for (const int servers : {1, 2, 3, 8}) {
            SCOPED_TRACE(testing::Message()
                         << c.dims[0] << "x" << c.dims[1] << "x" << c.dims[2] << " servers " << servers);
            reference_host::SetNumberOfServers(servers);
            IP_VOLRC_BrickStructure structure = make_structure(c.is_signed);
            structure.SetMaxLayerLoaded(1);
            ASSERT_TRUE(structure.Init(volume.get()));
            expect_min_max(structure, c.dims, c.is_signed, value);
        }
    }
}

// Padding slices share one object without pixel data and with default attributes; others may not have arrived yet, or
// be of a size or kind that would be read out of bounds.
TEST_F(BrickMinMax, SlicesWithoutUsablePixelsCountAsTheLowestStoredValue) {
    for (const bool is_signed : {false, true}) {
        const int dims[3] = {40, 20, 44};
        const auto is_padding = [](int z) { return z < 2 || z >= 42 || z == 32; };
        const auto is_missing = [&](int z) { return is_padding(z) || z == 17 || z == 20 || z == 23; };
        const VoxelFunction stored = [](int x, int y, int z) { return 50 + static_cast<int>(noise(x, y, z) % 900); };
        const auto volume = make_empty_volume(dims[0], dims[1], dims[2]);
        IP_ShortSlice padding(nullptr, PixelDataAttributes{dims[0], dims[1], 16, is_signed}, 0);
        for (int z = 0; z < dims[2]; ++z) {
            volume->SetSlice(is_padding(z) ? &padding : make_short_slice(dims[0], dims[1], z, 12, is_signed, stored),
                             z);
        }
        for (const int z : {17, 20, 23}) {
            delete volume->GetSlice(z);
        }
        volume->SetSlice(nullptr, 17);
        volume->SetSlice(make_short_slice(8, 8, 20, 12, is_signed, stored), 20);
        volume->SetSlice(make_slice<IP_RGBASlice>(40, 20, 8, false, std::vector<unsigned>(40 * 20, 7U)), 23);

        IP_VOLRC_BrickStructure structure = make_structure(is_signed);
        structure.SetMaxLayerLoaded(1);
        ASSERT_TRUE(structure.Init(volume.get()));
        expect_min_max(structure, dims, is_signed, [&](int x, int y, int z) {
            return !is_missing(z) ? stored(x, y, z) : is_signed ? -2048 : 0;
        });
        for (int z = 0; z < dims[2]; ++z) {
            if (is_padding(z)) {
                volume->SetSlice(nullptr, z);
            }
        }
    }
}

TEST_F(BrickMinMax, StreamingSliceBySliceEndsLikeAWholeVolume) {
    const int dims[3] = {20, 35, 330};  // in the padded volume: two slices without pixels at both ends
    const VoxelFunction value = noise_of_kind(12, true);
    const auto volume = make_empty_volume(dims[0], dims[1], dims[2]);
    IP_VOLRC_BrickStructure structure = make_structure(true);
    ASSERT_TRUE(structure.Init(volume.get()));
    unsigned short first_minimum = structure.GetBrick(0, 0, 0)->GetOD(0)->GetData()[0].minimum;
    EXPECT_EQ(first_minimum, 0x7FFF) << "without a loaded layer the tables stay empty";

    // Slices arrive in pieces, out of order; the last piece touches every layer, so that overlaps are current too.
    std::list<int> all;
    for (int piece = 0; piece < 4; ++piece) {
        std::list<int> arrived;
        for (int slice = piece; slice < dims[2] - 4; slice += 4) {
            const int z = slice + 2;
            volume->SetSlice(make_short_slice(dims[0], dims[1], z, 12, true, value), z);
            arrived.push_back(slice);
            all.push_back(slice);
        }
        reference_host::SetNumberOfServers(piece + 1);
        structure.PrepareUpdatedBricksVector(piece == 3 ? &all : &arrived);
        ASSERT_TRUE(structure.RecalculateMinMaxForNewSlices());
    }
    expect_min_max(structure, dims, true,
                   [&](int x, int y, int z) { return z < 2 || z >= dims[2] - 2 ? -2048 : value(x, y, z); });
}

TEST_F(BrickMinMax, ArrivedSlicesMarkTheirLayerInThePaddedVolume) {
    const auto volume = make_volume(8, 8, 100, 12, false, [](int, int, int) { return 20; });
    const auto updated_layers = [&](std::list<int> slices) {
        IP_VOLRC_BrickStructure structure = make_structure(false);
        EXPECT_TRUE(structure.Init(volume.get()));
        structure.PrepareUpdatedBricksVector(&slices);
        EXPECT_TRUE(structure.RecalculateMinMaxForNewSlices());
        int mask = 0;
        for (int z = 0; z < 4; ++z) {
            mask |= (structure.GetBrick(0, 0, z)->GetOD(0)->GetData()[0].maximum == 20) << z;
        }
        structure.PrepareUpdatedBricksVector(nullptr);
        EXPECT_TRUE(structure.RecalculateMinMaxForNewSlices());
        return mask;
    };
    EXPECT_EQ(updated_layers({30, 29}), 0b0011);
    EXPECT_EQ(updated_layers({61, 62}), 0b0110);
    EXPECT_EQ(updated_layers({29}), 0b0001);
    EXPECT_EQ(updated_layers({-7, 100000, 2147483647}), 0b0000);
}

}  // namespace
