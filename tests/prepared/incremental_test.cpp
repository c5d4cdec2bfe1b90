// Incremental rebuilds of a growing set of volumes.
#include <gtest/gtest.h>

#include <thread>

#include "ip_volr/IP_MultiVolDataIncMIP.h"
#include "tests/host/log_recorder.h"
#include "tests/prepared/prepared_scene.h"

namespace {

using IncrementalTest = PreparedTest;

IP_MultiVolData multi_volume(std::initializer_list<const SourceVolume*> sources) {
    IP_MultiVolData result;
    for (const SourceVolume* source : sources) {
        result.AddVolData(source->volume);
    }
    result.Reset();
    return result;
}

bool rebuild(IP_MultiVolDataIncMIP& data, IP_MultiVolData& source, int quality = 0, bool lean = false) {
    return data.Rebuild(&source, nullptr, false, quality == 0 ? 2 : 1, 1, 1, quality, lean, -32768);
}

IP_VolDataProj& prepared(IP_MultiVolDataIncMIP& data, int i) {
    return *dynamic_cast<IP_VolDataProj*>(data.GetVolData(i));
}

TEST_F(IncrementalTest, ASecondRebuildOnlyPointsAtTheNewSource) {
    const SourceVolume a(40, 30, 4, 1);
    const SourceVolume b(20, 36, 3, 2);
    IP_MultiVolData source = multi_volume({&a, &b});
    IP_MultiVolDataIncMIP data;
    ASSERT_TRUE(rebuild(data, source));
    ASSERT_EQ(data.GetNVolData(), 2);
    for (int i = 0; i < 2; i++) {
        ASSERT_NE(data.GetNTransVolRData(i), nullptr);
        EXPECT_FALSE(data.GetNTransVolRData(i)->GetCurrentDir());
        EXPECT_TRUE(data.GetTransVolRData(i)->GetCurrentDir());
    }
    expect_slices(prepared(data, 0), a, kBackground);
    expect_slices(prepared(data, 1), b, kBackground);

    const SourceVolume same_a(40, 30, 4, 1);
    const SourceVolume same_b(20, 36, 3, 2);
    IP_MultiVolData same = multi_volume({&same_a, &same_b});
    const IP_VolData* const before = data.GetVolData(0);
    const LogRecorder log;
    ASSERT_TRUE(rebuild(data, same));
    EXPECT_EQ(log.Texts(), std::vector<std::string>{"number of slices was not changed, no rebuild action\n"});
    EXPECT_EQ(data.GetVolData(0), before);
    EXPECT_EQ(prepared(data, 0).GetCurrVolData(), same_a.volume.get());

    // Another series of the same shape is another source, and so is one in another place.
    const SourceVolume other(40, 30, 4, 7);
    IP_MultiVolData others = multi_volume({&other, &b});
    EXPECT_FALSE(data.compareNSlices(&others));
    same_a.volume->GetBox()->Translate(1.0F, 0.0F, 0.0F);
    EXPECT_FALSE(data.compareNSlices(&same));
}

TEST_F(IncrementalTest, AGrowingSeriesCopiesOnlyWhatIsNew) {
    IP_MultiVolDataIncMIP data;
    for (int quality = 0; quality < 2; quality++) {
        IP_MultiVolDataIncMIP growing;
        std::int64_t blocks = 0;
        for (int z = 3; z < 7; z++) {
            const SourceVolume source(40, 30, z, 5);
            IP_MultiVolData set = multi_volume({&source});
            const LogRecorder log;
            ASSERT_TRUE(rebuild(growing, set, quality));
            EXPECT_EQ(log.Count("find " + std::to_string(z == 3 ? 3 : 1) + " new slices\n"), 1);
            EXPECT_EQ(log.Count("insert slice info for slice 0 "), 1);
            EXPECT_EQ(log.Count("insert slice info"), z == 3 ? 3 : 1);
            EXPECT_EQ(log.Count("remove VolRData structures\n"), 1);
            EXPECT_EQ(log.Count("add 2 chunks to m_Chunks vector\n"), 1);
            expect_slices(prepared(growing, 0), source, kBackground);
            // One block for a new slice of the source, one for its copy.
            const std::int64_t now = reference_host::GetPagerStatistics().blocks;
            EXPECT_EQ(z == 3 ? 2 : now - blocks, 2);
            blocks = now;
            // The next rebuild meets turned slices.
            prepared(growing, 0).CheckAndTransposed(0, z / 2, true);
        }
        growing.remove_slices();
        EXPECT_EQ(growing.GetNTransVolRData(0), nullptr);
    }
}

TEST_F(IncrementalTest, VolumesWithTheSameSlicesFollowEachOther) {
    const SourceVolume a(40, 30, 5, 1);
    const SourceVolume longer(40, 30, 7, 1);
    IP_MultiVolData source = multi_volume({&a, &longer});
    IP_MultiVolDataIncMIP data;
    ASSERT_TRUE(rebuild(data, source));
    IP_RealListVol nothing(*a.volume->GetBox());
    for (const bool wanted : {true, false}) {
        prepared(data, 0).CheckAndTransposed(0, 5, wanted);
        prepared(data, 1).CheckAndTransposed(0, 7, wanted);
        expect_slices(prepared(data, 0), a, kBackground);
        expect_slices(prepared(data, 1), longer, kBackground);
        prepared(data, 1).Transpose(2, 6);
        auto& first = dynamic_cast<IP_VolDataMIP&>(prepared(data, 0));
        ASSERT_TRUE(first.CopyFastFromSlow(a.volume.get(), &nothing, false, 1, 1, -32768));
        expect_slices(first, a, kBackground);
    }
}

TEST_F(IncrementalTest, EmptyAndOddSourcesAreNoTrouble) {
    const SourceVolume one(16, 16, 1, 1);
    const SourceVolume none(16, 16, 0, 2);
    IP_MultiVolData source = multi_volume({&one, &none});
    IP_MultiVolData empty;
    IP_MultiVolDataIncMIP data;
    EXPECT_TRUE(rebuild(data, empty));
    EXPECT_TRUE(rebuild(data, source));
    EXPECT_TRUE(rebuild(data, empty));
    EXPECT_EQ(data.GetNVolData(), 0);
    EXPECT_TRUE(data.Rebuild(nullptr, nullptr, false, 2, 1, 1, 0, false, 0));
    EXPECT_EQ(data.GetNTransVolRData(-1), nullptr);
    EXPECT_EQ(data.GetTransVolRData(5), nullptr);
    EXPECT_TRUE(rebuild(data, source, 0, true));
    EXPECT_EQ(data.GetVolData(0)->GetSlice(0)->GetData(), nullptr);
    const LogRecorder log;
    IP_MultiVolData alone = multi_volume({&one});
    EXPECT_FALSE(data.Rebuild(&alone, nullptr, false, 7, 1, 1, 0, false, 0));
    EXPECT_EQ(log.Count("Failed in IP_VolRData creation\n"), 1);
    EXPECT_EQ(data.GetNVolData(), 0);
}

TEST_F(IncrementalTest, MasksOfTheSetReachEveryVolume) {
    const SourceVolume a(40, 30, 4, 1);
    const SourceVolume b(20, 36, 3, 2);
    IP_RealListVol tissue_a = scattered_tissue(*a.volume->GetBox());
    IP_RealListVol tissue_b = scattered_tissue(*b.volume->GetBox());
    IP_MultiRealListVol tissues;
    tissues.AddRealListVol(&tissue_a);
    tissues.AddRealListVol(&tissue_b);
    IP_MultiVolData source = multi_volume({&a, &b});
    for (int quality = 0; quality < 2; quality++) {
        IP_MultiVolDataIncMIP data;
        ASSERT_TRUE(rebuild(data, source, quality));
        EXPECT_FALSE(data.CopyFastFromSlow(&source, nullptr, false, 1, 2, -32768));
        ASSERT_TRUE(quality == 0 ? data.CopyFastFromSlow(&source, &tissues, false, 1, 2, -32768)
                                 : data.CopyWithTissue(&source, &tissues, false, 1, 2, -32768, true));
        expect_slices(prepared(data, 0), a, kBackground, &tissue_a);
        expect_slices(prepared(data, 1), b, kBackground, &tissue_b);
    }
}

TEST_F(IncrementalTest, TheProtectionSectionKeepsOtherThreadsOut) {
    IP_MultiVolDataIncMIP data;
    data.EnterDataProtectCriticalSection();
    EXPECT_TRUE(data.TryEnterDataProtectCriticalSection());
    data.LeaveDataProtectCriticalSection();
    bool entered = true;
    std::thread([&] { entered = data.TryEnterDataProtectCriticalSection(); }).join();
    EXPECT_FALSE(entered);
    data.LeaveDataProtectCriticalSection();
    std::thread([&] {
        entered = data.TryEnterDataProtectCriticalSection();
        data.LeaveDataProtectCriticalSection();
    }).join();
    EXPECT_TRUE(entered);
}

}  // namespace
