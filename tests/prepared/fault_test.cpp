// Every allocation and every mapping refused in turn, every cancellation point cancelled in turn: nothing stays mapped
// or allocated, no slice lies, and the same operation done again gives the right slices.
#include <gtest/gtest.h>

#include <set>

#include "ip_volr/IP_MultiVolDataIncMIP.h"
#include "tests/prepared/prepared_scene.h"
#include "tests/support/fault_sweep.h"

namespace {

using FaultTest = PreparedTest;

// The prepared slices rest in blocks of their own, and none of them in a work block.
void expect_own_blocks(const IP_VolDataProj& data) {
    std::set<const MEM_PagerInfo*> seen;
    const int num_slices = data.GetNumberSlices();
    for (int i = 0; i < num_slices + data.GetNumberWorkSlices(); i++) {
        EXPECT_TRUE(seen.insert(data.GetSlice(i)->GetData()).second);
    }
    const IP_SliceChunk& work = *data.GetChunks().front();
    for (int w = 0; w < data.GetNumberWorkSlices(); w++) {
        EXPECT_EQ(data.GetSlice(num_slices + w)->GetData(), work.GetMemInfo(static_cast<unsigned>(w)));
        EXPECT_EQ(work.GetInfoMem()[w].GetData(), work.GetMemInfo(static_cast<unsigned>(w)));
    }
}

TEST_F(FaultTest, Creation) {
    const SourceVolume source(34, 20, 5, 3);
    const IP_RealListVol tissue = scattered_tissue(*source.volume->GetBox());
    FaultSweep sweep;
    for (const int factor : {1, 2}) {
        sweep.run([&](FaultPoint& point) {
            Prepared prepared;
            bool created = false;
            const auto create = [&] { created = prepared.create(source, factor, 1, 1, &tissue, true, factor == 1); };
            point.run(create);
            EXPECT_TRUE(created || point.came());
            if (created) {
                expect_slices(prepared.data, source, kBackground, &tissue);
            }
            ASSERT_TRUE(prepared.create(source, factor, 1, 1, &tissue, false, factor == 1));
            expect_slices(prepared.data, source, kBackground, &tissue);
            expect_own_blocks(prepared.data);
        });
    }
}

TEST_F(FaultTest, SlicesThatArriveLater) {
    const SourceVolume partial(34, 20, 5, 3, 2);
    const SourceVolume whole(34, 20, 5, 3);
    FaultSweep sweep;
    for (const int factor : {1, 2}) {
        sweep.run([&](FaultPoint& point) {
            Prepared prepared;
            ASSERT_TRUE(prepared.create(partial, factor));
            prepared.data.Transpose(1, 3);
            bool done = false;
            point.run([&] { done = prepared.create(whole, factor, 2); });
            EXPECT_TRUE(done || point.came());
            ASSERT_TRUE(prepared.create(whole, factor, 2));
            expect_slices(prepared.data, whole, kBackground);
            expect_own_blocks(prepared.data);
        });
    }
}

TEST_F(FaultTest, Transposition) {
    const SourceVolume source(34, 20, 7, 3);
    FaultSweep sweep;
    for (const bool mixed : {false, true}) {
        sweep.run([&](FaultPoint& point) {
            Prepared prepared;
            ASSERT_TRUE(prepared.create(source, 2));
            if (mixed) {
                prepared.data.Transpose(2, 4);
            }
            point.run([&] {
                if (mixed) {
                    prepared.data.CheckAndTransposed(0, 7, true);
                } else {
                    prepared.data.Transpose(0, 7);
                }
            });
            expect_own_blocks(prepared.data);
            expect_slices(prepared.data, source, kBackground);
            prepared.data.CheckAndTransposed(0, 7, true);
            for (int z = 0; z < 7; z++) {
                EXPECT_TRUE(prepared.data.IsSliceTransposed(z));
            }
            expect_slices(prepared.data, source, kBackground);
        });
    }
}

TEST_F(FaultTest, Refill) {
    const SourceVolume source(34, 20, 5, 3);
    IP_RealListVol tissue = scattered_tissue(*source.volume->GetBox());
    FaultSweep sweep;
    for (const int factor : {1, 2}) {
        sweep.run([&](FaultPoint& point) {
            Prepared prepared;
            ASSERT_TRUE(prepared.create(source, factor));
            prepared.data.Transpose(1, 3);
            bool done = false;
            const auto refill = [&] {
                done = factor == 1
                           ? prepared.data.CopyWithTissue(source.volume.get(), &tissue, true, 2, 2, -32768, true)
                           : prepared.data.CopyFastFromSlow(source.volume.get(), &tissue, true, 2, 2, -32768);
            };
            point.run(refill);
            EXPECT_TRUE(done || point.came());
            expect_own_blocks(prepared.data);
            refill();
            ASSERT_TRUE(done);
            expect_slices(prepared.data, source, kBackground, &tissue);
        });
    }
}

// A series grows and another one comes; lean ones have records without memory.
TEST_F(FaultTest, Rebuild) {
    const SourceVolume a(34, 20, 3, 3);
    const SourceVolume longer(34, 20, 5, 3);
    const SourceVolume b(18, 22, 2, 4);
    IP_MultiVolData first;
    first.AddVolData(a.volume);
    IP_MultiVolData second;
    second.AddVolData(longer.volume);
    second.AddVolData(b.volume);
    FaultSweep sweep;
    for (const bool lean : {false, true}) {
        sweep.run([&](FaultPoint& point) {
            IP_MultiVolDataIncMIP data;
            const auto rebuild = [&](IP_MultiVolData& source) {
                return data.Rebuild(&source, nullptr, false, 2, 1, 1, 0, lean, -32768);
            };
            ASSERT_TRUE(rebuild(first));
            bool done = false;
            point.run([&] { done = rebuild(second); });
            EXPECT_TRUE(done || point.came());
            EXPECT_EQ(data.GetNVolData(), done ? 2 : 0);
            ASSERT_TRUE(rebuild(second));
            if (lean) {
                EXPECT_EQ(data.GetVolData(0)->GetSlice(4)->GetData(), nullptr);
            } else {
                expect_slices(*dynamic_cast<IP_VolDataProj*>(data.GetVolData(0)), longer, kBackground);
                expect_slices(*dynamic_cast<IP_VolDataProj*>(data.GetVolData(1)), b, kBackground);
            }
        });
    }
}

}  // namespace
