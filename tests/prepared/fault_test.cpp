// Every allocation and every mapping refused in turn, every cancellation point cancelled in turn: nothing stays mapped
// or allocated, no slice lies, and the same operation done again gives the right slices.
#include <gtest/gtest.h>

#include <functional>
#include <set>

#include "ip_volr/IP_MultiVolDataIncMIP.h"
#include "tests/prepared/prepared_scene.h"

namespace {

using FaultTest = PreparedTest;

enum class Fault { Allocation, Mapping, Cancellation };

// Runs an operation with the k-th fault of a kind. Returns whether the fault came.
bool run_with_fault(Fault fault, std::int64_t k, const std::function<void()>& operation) {
    using reference_host::GetPagerStatistics;
    const std::int64_t mappings = GetPagerStatistics().mappings;
    const std::int64_t allocations = GetPagerStatistics().total_allocations;
    const std::int64_t map_calls = GetPagerStatistics().total_map_calls;
    reference_host::PagerFaults faults;
    faults.refuse_allocation = fault == Fault::Allocation ? k : 0;
    faults.refuse_map = fault == Fault::Mapping ? k : 0;
    reference_host::SetPagerFaults(faults);
    reference_host::CancellationToken token;
    if (fault == Fault::Cancellation) {
        token.CancelAtPoint(k);
    }
    try {
        const reference_host::CancellationScope scope(token);
        operation();
    } catch (const TCO_CANCEL_EXCEPTION&) {
        EXPECT_EQ(fault, Fault::Cancellation);
    }
    reference_host::SetPagerFaults({});
    EXPECT_EQ(GetPagerStatistics().mappings, mappings);
    return fault == Fault::Allocation ? GetPagerStatistics().total_allocations - allocations >= k
           : fault == Fault::Mapping  ? GetPagerStatistics().total_map_calls - map_calls >= k
                                      : token.PointsPassed() >= k;
}

// Sweeps all faults; `scenario` makes fresh data, runs the operation through its argument, repeats and checks it.
using Runner = std::function<bool(const std::function<void()>&)>;
void sweep(const std::function<void(const Runner&)>& scenario) {
    static std::int64_t num_swept = 0;
    const std::int64_t num_before = num_swept;
    for (const int servers : {1, 3}) {
        reference_host::SetNumberOfServers(servers);
        for (const Fault fault : {Fault::Allocation, Fault::Mapping, Fault::Cancellation}) {
            bool came = true;
            for (std::int64_t k = 1; came && k < 500 && !testing::Test::HasFailure(); k++) {
                SCOPED_TRACE(testing::Message()
                             << servers << " servers, fault kind " << static_cast<int>(fault) << " number " << k);
                scenario([&](const std::function<void()>& operation) {
                    came = run_with_fault(fault, k, operation);
                    return came;
                });
                num_swept += came ? 1 : 0;
            }
            EXPECT_FALSE(came);
        }
    }
    testing::Test::RecordProperty("faults_up_to_here", std::to_string(num_swept));
    EXPECT_GT(num_swept, num_before);
}

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
    for (const int factor : {1, 2}) {
        sweep([&](const Runner& run) {
            Prepared prepared;
            bool created = false;
            const auto create = [&] { created = prepared.create(source, factor, 1, 1, &tissue, true, factor == 1); };
            const bool came = run(create);
            if (created) {
                expect_slices(prepared.data, source, kBackground, &tissue);
            } else {
                EXPECT_TRUE(came);
            }
            ASSERT_TRUE(prepared.create(source, factor, 1, 1, &tissue, false, factor == 1));
            expect_slices(prepared.data, source, kBackground, &tissue);
            expect_own_blocks(prepared.data);
        });
    }
}

TEST_F(FaultTest, Transposition) {
    const SourceVolume source(34, 20, 7, 3);
    for (const bool mixed : {false, true}) {
        sweep([&](const Runner& run) {
            Prepared prepared;
            ASSERT_TRUE(prepared.create(source, 2));
            if (mixed) {
                prepared.data.Transpose(2, 4);
            }
            run([&] {
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
    for (const int factor : {1, 2}) {
        sweep([&](const Runner& run) {
            Prepared prepared;
            ASSERT_TRUE(prepared.create(source, factor));
            prepared.data.Transpose(1, 3);
            bool done = false;
            const auto refill = [&] {
                done = factor == 1
                           ? prepared.data.CopyWithTissue(source.volume.get(), &tissue, true, 2, 2, -32768, true)
                           : prepared.data.CopyFastFromSlow(source.volume.get(), &tissue, true, 2, 2, -32768);
            };
            const bool came = run(refill);
            EXPECT_TRUE(done || came);
            expect_own_blocks(prepared.data);
            refill();
            ASSERT_TRUE(done);
            expect_slices(prepared.data, source, kBackground, &tissue);
        });
    }
}

TEST_F(FaultTest, Rebuild) {
    const SourceVolume a(34, 20, 3, 3);
    const SourceVolume longer(34, 20, 5, 3);
    const SourceVolume b(18, 22, 2, 4);
    IP_MultiVolData first;
    first.AddVolData(a.volume);
    IP_MultiVolData second;
    second.AddVolData(longer.volume);
    second.AddVolData(b.volume);
    sweep([&](const Runner& run) {
        IP_MultiVolDataIncMIP data;
        ASSERT_TRUE(data.Rebuild(&first, nullptr, false, 2, 1, 1, 0, false, -32768));
        bool done = false;
        const bool came = run([&] { done = data.Rebuild(&second, nullptr, false, 2, 1, 1, 0, false, -32768); });
        EXPECT_TRUE(done || came);
        EXPECT_EQ(data.GetNVolData(), done ? 2 : 0);
        ASSERT_TRUE(data.Rebuild(&second, nullptr, false, 2, 1, 1, 0, false, -32768));
        expect_slices(*dynamic_cast<IP_VolDataProj*>(data.GetVolData(0)), longer, kBackground);
        expect_slices(*dynamic_cast<IP_VolDataProj*>(data.GetVolData(1)), b, kBackground);
    });
}

}  // namespace
