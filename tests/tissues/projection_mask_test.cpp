// Projections of data from which a tissue is masked out: the fast path draws prepared data, the linear path gets masked
// data of full size as its volumes.
#include "ip_volr/IP_MIPProjector.h"
#include "ip_volr/IP_MultiVolDataIncMIP.h"
#include "tests/prepared/prepared_scene.h"

namespace {

constexpr int kWidth = 70;
constexpr int kHeight = 60;

// One request with pictures of its own.
struct Request {
    explicit Request(std::shared_ptr<IP_MultiVolData> volumes) {
        params.m_VolData = std::move(volumes);
        params.m_Width = kWidth;
        params.m_Height = kHeight;
        box_b.m_MaxIntoOutput = 1;
    }
    ~Request() { IP_MIPProjector::FreePictures(&params, &box_a, &box_b); }

    Pixels draw(bool linear) {
        Pixels picture(kWidth * kHeight, kBackground);
        params.m_OutputImage = picture.data();
        const float c = 0.8F;
        const float s = 0.6F;
        const float turned[4][4] = {
            {c, 0, -s, 0}, {-s * 0.6F, 0.8F, -c * 0.6F, 0}, {s * 0.8F, 0.6F, c * 0.8F, 0}, {0, 0, 0, 1}};
        std::copy(&turned[0][0], &turned[0][0] + 16, &params.m_ViewMatrix[0][0]);
        projector.Reset(&params, 1);
        projector.Project(&params, &box_a, &box_b, linear ? 1 : 0, 0, kBackground);
        EXPECT_TRUE(projector.IsComplete());
        projector.Shear(&params, &box_a, kBackground);
        projector.Shear(&params, &box_b, kBackground);
        params.m_OutputImage = nullptr;
        return picture;
    }

    IP_VolRParamsMIP params;
    IP_VolRBoxParamsMIP box_a;
    IP_VolRBoxParamsMIP box_b;
    IP_MIPProjector projector;
};

class ProjectionMasks : public PreparedTest {
protected:
    // A set of one volume; with a mask its voxels hold the background.
    static std::shared_ptr<IP_MultiVolData> Set(const SourceVolume& source, const IP_RealListVol* mask) {
        for (int z = 0; z < source.size[2] && mask != nullptr; z++) {
            auto* const slice = static_cast<IP_ShortSlice*>(source.volume->GetSlice(z));
            EXPECT_EQ(slice->MapMemory(), 0);
            for (int y = 0; y < source.size[1]; y++) {
                for (int x = 0; x < source.size[0]; x++) {
                    if (mask->GetPixel(x, y, z) != 0) {
                        slice->GetMappedSlice()[y * source.size[0] + x] = kBackground;
                    }
                }
            }
            slice->UnmapMemory();
        }
        auto set = std::make_shared<IP_MultiVolData>();
        set->AddVolData(source.volume);
        return set;
    }
};

TEST_F(ProjectionMasks, AreSwitchedOnAndOffInBothPaths) {
    // A size without padding, so that prepared data lie where the source lies.
    const SourceVolume source(64, 32, 13, 5);
    const SourceVolume other(64, 32, 13, 5);
    IP_RealListVol mask = scattered_tissue(*source.volume->GetBox());
    IP_RealListVol empty(*source.volume->GetBox());
    IP_MultiRealListVol masks;
    masks.AddRealListVol(&mask);
    IP_MultiRealListVol none;
    none.AddRealListVol(&empty);
    const auto whole = Set(source, nullptr);
    const auto cut = Set(other, &mask);

    for (const bool linear : {true, false}) {
        SCOPED_TRACE(linear ? "linear" : "fast");
        const int factor = linear ? 1 : 2;
        const int quality = linear ? 1 : 0;
        const auto prepare = [&](IP_MultiVolData* set) {
            auto prepared = std::make_shared<IP_MultiVolDataIncMIP>();
            EXPECT_TRUE(prepared->Rebuild(set, nullptr, false, factor, 1, 1, quality, false, kBackground));
            return prepared;
        };
        // The linear path draws its volumes, the fast path what was prepared of them.
        const auto prepared = prepare(whole.get());
        Request masked(linear ? std::static_pointer_cast<IP_MultiVolData>(prepared) : whole);
        Request truth(cut);
        Request unmasked(whole);
        if (!linear) {
            masked.params.m_AltVolData = prepared;
            truth.params.m_AltVolData = prepare(cut.get());
            unmasked.params.m_AltVolData = prepare(whole.get());
        }
        const Pixels with_mask = truth.draw(linear);
        const Pixels without_mask = unmasked.draw(linear);
        ASSERT_NE(with_mask, without_mask);

        const auto refill = [&](IP_MultiRealListVol* list, int counter) {
            return linear ? prepared->CopyWithTissue(whole.get(), list, false, 1, counter, kBackground, true)
                          : prepared->CopyFastFromSlow(whole.get(), list, false, 1, counter, kBackground);
        };
        EXPECT_EQ(masked.draw(linear), without_mask);
        ASSERT_TRUE(refill(&masks, 2));
        EXPECT_EQ(masked.draw(linear), with_mask);
        ASSERT_TRUE(refill(&none, 3));
        EXPECT_EQ(masked.draw(linear), without_mask);
        ASSERT_TRUE(refill(&masks, 4));
        EXPECT_EQ(masked.draw(linear), with_mask);
    }
}

}  // namespace
