// Bits of opacity: every voxel has the bit that its tissue's table gives it, however the slices are stored and turned.
#include "host/multi_volume.h"
#include "ip_volr/IP_MultiVolDataIncVolR.h"
#include "ip_volr/IP_MultiVolRTisIndInc.h"
#include "ip_volr/IP_VolRTissueList.h"
#include "tests/prepared/prepared_scene.h"
#include "tests/support/fault_sweep.h"

namespace {

constexpr int kNoTissue = 15;
constexpr int kBits = 12;

// Tables that differ by tissue: opaque from a value of the tissue's own, faint or empty below.
struct Tables {
    explicit Tables(int shift) {
        for (int t = 0; t < 16; t++) {
            first_opaque[t] = -500 + 100 * t + shift;
            values[t].resize(1 << kBits);
            for (int v = -2048; v < 2048; v++) {
                const unsigned faint = v > first_opaque[t] - 300 ? 0x3F123456U : 0x00FFFFFFU;
                values[t][static_cast<std::size_t>(v + 2048)] = v >= first_opaque[t] ? 0x80123456U : faint;
            }
            pointers[t] = values[t].data() + 2048;
        }
        std::fill(values[3].begin(), values[3].end(), 0x00FFFFFFU);  // hidden
        first_opaque[3] = 5000;
    }
    int first_opaque[16];
    std::vector<unsigned> values[16];
    const unsigned* pointers[16];
};

// Two tissues, the first of which lies over the second, as an index volume.
struct Index {
    explicit Index(SourceVolume& source) : first(*source.volume->GetBox()), second(*source.volume->GetBox()) {
        for (int z = 0; z < source.size[2]; z++) {
            for (int y = 0; y < source.size[1]; y++) {
                first.AddRun(y, z, y % 5, y % 5 + 7);
                second.AddRun(y, z, 4, source.size[0] - z);
            }
        }
        lists[0].AddRealListVol(&first);
        lists[1].AddRealListVol(&second);
        tissues.SetNumbTissues(2);
        for (unsigned t = 0; t < 2; t++) {
            tissues.SetTissue(t, &lists[t]);
            tissues.SetColorTableIndex(t, t == 0 ? 2 : 3);
        }
        volumes.AddVolData(source.volume);
        EXPECT_TRUE(index.Rebuild(&volumes, 1, 1, 1, false, tissues));
    }
    int tissue(int x, int y, int z) const {
        return first.GetPixel(x, y, z) != 0 ? 2 : second.GetPixel(x, y, z) != 0 ? 3 : kNoTissue;
    }
    IP_RealListVol first;
    IP_RealListVol second;
    IP_MultiRealListVol lists[2];
    IP_VolRTissueList tissues;
    IP_MultiVolData volumes;
    IP_MultiVolRTisIndInc index;
};

void expect_bits(IP_MultiVolDataIncVolR& prepared, const SourceVolume& source, const Index* index,
                 const Tables& tables) {
    auto* const data = dynamic_cast<IP_VolDataVolR*>(prepared.GetVolData(0));
    ASSERT_NE(data, nullptr);
    IP_VolDataVolR::Reader reader(*data);
    const int f = data->GetFactor();
    int num_wrong = 0;
    int num_opaque = 0;
    for (int z = 0; z < source.size[2]; z++) {
        for (int y = 0; y < source.size[1] / f; y++) {
            for (int x = 0; x < source.size[0] / f; x++) {
                bool expected = false;
                for (int k = 0; k < f * f; k++) {
                    const int sx = f * x + k % f;
                    const int sy = f * y + k / f;
                    const int t = index != nullptr ? index->tissue(sx, sy, z) : kNoTissue;
                    expected = expected || scrambled(sx, sy, z, source.seed) >= tables.first_opaque[t];
                }
                num_wrong += reader.IsOpaque(x, y, z) != expected ? 1 : 0;
                num_opaque += expected ? 1 : 0;
            }
        }
    }
    EXPECT_EQ(num_wrong, 0);
    EXPECT_GT(num_opaque, 0);
    EXPECT_FALSE(reader.IsOpaque(-1, 0, 0) || reader.IsOpaque(source.size[0], 0, 0) || reader.IsOpaque(0, 0, 99));
    EXPECT_FALSE(reader.HasFailed());
}

class OpacityBits : public PreparedTest {};

TEST_F(OpacityBits, FollowTablesAndTissuesInEveryOrientation) {
    for (const int factor : {1, 2}) {
        SCOPED_TRACE(factor);
        SourceVolume source(53, 37, 9, 4);
        Index index(source);
        Tables tables(0);
        IP_MultiVolDataIncVolR prepared;
        const int quality = factor == 1 ? 1 : 0;
        ASSERT_TRUE(prepared.Rebuild(&index.volumes, tables.pointers, &index.index, factor, 1, 1, quality, false));
        expect_bits(prepared, source, &index, tables);

        // Some slices turned, then all.
        auto* const data = dynamic_cast<IP_VolDataVolR*>(prepared.GetVolData(0));
        data->CheckAndTransposed(2, 7, true);
        EXPECT_TRUE(data->IsSliceTransposed(3));
        expect_bits(prepared, source, &index, tables);
        data->CheckAndTransposed(0, 9, true);
        expect_bits(prepared, source, &index, tables);

        // Other tables, then no tissues.
        Tables others(150);
        ASSERT_TRUE(factor == 1
                        ? prepared.CopyWithTissue(&index.volumes, others.pointers, &index.index, false, 1, 2, true)
                        : prepared.CopyFastFromSlow(&index.volumes, others.pointers, &index.index, false, 1, 2));
        expect_bits(prepared, source, &index, others);
        ASSERT_TRUE(prepared.CopyFastFromSlow(&index.volumes, tables.pointers, nullptr, false, 1, 3));
        expect_bits(prepared, source, nullptr, tables);
        prepared.ResetCManager();
    }
}

TEST_F(OpacityBits, OfLeanDataAreLookedUpInTheSource) {
    SourceVolume source(31, 30, 6, 7, 4);
    Tables tables(0);
    IP_MultiVolData volumes;
    volumes.AddVolData(source.volume);
    IP_MultiVolDataIncVolR prepared;
    ASSERT_TRUE(prepared.Rebuild(&volumes, tables.pointers, nullptr, 1, 1, 1, 1, true));
    auto* const data = dynamic_cast<IP_VolDataVolR*>(prepared.GetVolData(0));
    EXPECT_EQ(data->GetSlice(0)->GetData(), nullptr);
    Tables others(-100);
    prepared.SetSlowMultiTisInd(nullptr, others.pointers);
    IP_VolDataVolR::Reader reader(*data);
    for (int x = 0; x < 31; x++) {
        EXPECT_EQ(reader.IsOpaque(x, 3, 2), scrambled(x, 3, 2, 7) >= others.first_opaque[kNoTissue]) << x;
        EXPECT_FALSE(reader.IsOpaque(x, 3, 4)) << "slice without memory";
    }

    // Nothing in, nothing out.
    IP_MultiVolData none;
    EXPECT_TRUE(prepared.Rebuild(&none, tables.pointers, nullptr, 1, 1, 1, 1, false));
    EXPECT_EQ(prepared.GetNVolData(), 0);
    EXPECT_FALSE(prepared.Rebuild(&volumes, nullptr, nullptr, 1, 1, 1, 1, false));
    EXPECT_FALSE(prepared.CopyWithTissue(&volumes, tables.pointers, nullptr, false, 1, 1, true));
}

TEST_F(OpacityBits, SurviveFaults) {
    SourceVolume source(40, 33, 5, 3);
    Index index(source);
    Tables tables(0);
    FaultSweep sweep;
    sweep.run([&](FaultPoint& point) {
        IP_MultiVolDataIncVolR prepared;
        bool done = false;
        const auto rebuild = [&] {
            done = prepared.Rebuild(&index.volumes, tables.pointers, &index.index, 1, 1, 1, 1, false);
        };
        point.run(rebuild);
        EXPECT_TRUE(done || point.came());
        rebuild();
        ASSERT_TRUE(done);
        expect_bits(prepared, source, &index, tables);
    });

    // Slices that a refill left half done do not pass for those of before.
    Tables others(150);
    sweep.run([&](FaultPoint& point) {
        IP_MultiVolDataIncVolR prepared;
        ASSERT_TRUE(prepared.Rebuild(&index.volumes, tables.pointers, &index.index, 1, 1, 1, 1, false));
        bool done = false;
        point.run(
            [&] { done = prepared.CopyWithTissue(&index.volumes, others.pointers, &index.index, false, 1, 2, true); });
        EXPECT_TRUE(done || point.came());
        prepared.remove_slices();
        ASSERT_TRUE(prepared.Rebuild(&index.volumes, tables.pointers, &index.index, 1, 1, 1, 1, false));
        expect_bits(prepared, source, &index, tables);
    });
}

}  // namespace
