// Tissue masks in prepared volumes against brute force.
#include <gtest/gtest.h>

#include "tests/prepared/prepared_scene.h"

namespace {

using TissueTest = PreparedTest;

bool refill(Prepared& prepared, const SourceVolume& source, IP_ListVol* tissue, int tissue_counter) {
    return prepared.data.GetFactor() == 1
               ? prepared.data.CopyWithTissue(source.volume.get(), tissue, false, 1, tissue_counter, -32768, true)
               : prepared.data.CopyFastFromSlow(source.volume.get(), tissue, false, 1, tissue_counter, -32768);
}

TEST_F(TissueTest, MaskedVoxelsAreBackgroundFromTheFirstCreationOn) {
    const int sizes[][2] = {{64, 64}, {37, 50}, {511, 33}};
    for (const auto& size : sizes) {
        const SourceVolume source(size[0], size[1], 4, 2);
        const IP_RealListVol tissue = scattered_tissue(*source.volume->GetBox());
        for (const int factor : {1, 2}) {
            SCOPED_TRACE(testing::Message() << size[0] << " x " << size[1] << " factor " << factor);
            Prepared prepared;
            ASSERT_TRUE(prepared.create(source, factor, 1, 1, &tissue, true));
            expect_slices(prepared.data, source, kBackground, &tissue);

            // New pixel data keeps the mask.
            Prepared later;
            ASSERT_TRUE(later.create(source, factor, 1, 1, &tissue));
            ASSERT_TRUE(later.create(source, factor, 2, 1, &tissue));
            expect_slices(later.data, source, kBackground, &tissue);
        }
    }
}

TEST_F(TissueTest, MasksAreSwitchedOnChangedAndTakenOff) {
    const SourceVolume source(37, 50, 6, 2, 3);
    IP_RealListVol tissue = scattered_tissue(*source.volume->GetBox());
    IP_RealListVol nothing(*source.volume->GetBox());
    IP_ListVol without_size;
    for (const int factor : {1, 2}) {
        Prepared prepared;
        ASSERT_TRUE(prepared.create(source, factor));
        const Pixels plain = prepared_pixels(prepared.data, 1);
        const Pixels masked = expected_pixels(source, prepared.data, 1, kBackground, &tissue);
        ASSERT_NE(plain, masked);
        ASSERT_TRUE(refill(prepared, source, &tissue, 2));
        EXPECT_EQ(prepared_pixels(prepared.data, 1), masked);
        ASSERT_TRUE(refill(prepared, source, &nothing, 3));
        EXPECT_EQ(prepared_pixels(prepared.data, 1), plain);
        ASSERT_TRUE(refill(prepared, source, &tissue, 4));
        ASSERT_TRUE(refill(prepared, source, &without_size, 5));
        EXPECT_EQ(prepared_pixels(prepared.data, 1), plain);

        // Without a list volume nothing happens; nor without a source, or with one of another size.
        EXPECT_FALSE(refill(prepared, source, nullptr, 6));
        const SourceVolume other(38, 50, 6, 2);
        EXPECT_FALSE(refill(prepared, other, &tissue, 6));
        EXPECT_FALSE(prepared.data.CopyWithTissue(nullptr, &tissue, false, 1, 6, -32768, true));
        EXPECT_TRUE(prepared.data.CopyWithTissue(source.volume.get(), &tissue, false, 1, 6, -32768, false));
        EXPECT_EQ(prepared_pixels(prepared.data, 1), plain);
    }
}

// A tissue drawn on a frame that is larger or smaller than the slices lies centred on them.
TEST_F(TissueTest, TissuesOfAnotherSizeNeverWriteBeyondALine) {
    const SourceVolume source(40, 40, 2, 2);
    for (const int size : {48, 20}) {
        IP_ListVol tissue(IP_Dims(size, size, 2));
        tissue.AddRun(size / 2, 0, 0, size);
        for (const int factor : {1, 2}) {
            Prepared prepared;
            ASSERT_TRUE(prepared.create(source, factor, 1, 1, &tissue, true));
            IP_RealListVol centred(*source.volume->GetBox());
            centred.AddRun(20, 0, std::max(0, 20 - size / 2), std::min(40, 20 + size / 2));
            expect_slices(prepared.data, source, kBackground, &centred);
        }
    }
}

}  // namespace
