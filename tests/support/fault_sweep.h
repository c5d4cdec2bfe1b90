// Sweeps the faults of an operation: one run counts its allocations, mappings, cancellation points and requests for
// memory; then it runs once for each of them with exactly that one refused or cancelled.
#pragma once

#include "host/reference/settings.h"
#include "host/tasks.h"
#include "tests/support/refused_memory.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <functional>
#include <new>
#include <numeric>
#include <string>

// Memory: what the standard library asks for with operator new, in whatever thread.
enum class Fault { Allocation, Mapping, Cancellation, Memory };
constexpr std::size_t kNumFaults = 4;

// One run of an operation, with at most one fault.
class FaultPoint {
public:
    FaultPoint() = default;
    FaultPoint(Fault fault, std::int64_t k) : m_Fault(fault), m_K(k) {}

    // Runs the operation, once for each point, and checks that it unmaps what it maps unless mappings may stay. False
    // when its cancellation or std::bad_alloc reached the caller.
    bool run(const std::function<void()>& operation, bool mappings_may_stay = false) {
        reference_host::PagerFaults faults;
        faults.refuse_allocation = is(Fault::Allocation) ? m_K : 0;
        faults.refuse_map = is(Fault::Mapping) ? m_K : 0;
        const auto before = reference_host::GetPagerStatistics();
        m_Token.CancelAtPoint(is(Fault::Cancellation) ? m_K : 0);
        reference_host::SetPagerFaults(faults);
        bool ended = true;
        try {
            const reference_host::CancellationScope scope(m_Token);
            watch_memory(is(Fault::Memory) ? m_K : 0);
            operation();
        } catch (const std::bad_alloc&) {
            m_HasThrownBadAlloc = true;
            ended = false;
        } catch (const TCO_CANCEL_EXCEPTION&) {
            EXPECT_TRUE(m_Token.IsCancelled());
            ended = false;
        }
        const std::int64_t memory_requests = unwatch_memory();
        reference_host::SetPagerFaults({});
        const auto after = reference_host::GetPagerStatistics();
        m_Counts = {after.total_allocations - before.total_allocations, after.total_map_calls - before.total_map_calls,
                    m_Token.PointsPassed(), memory_requests};
        EXPECT_TRUE(mappings_may_stay || after.mappings == before.mappings) << after.mappings - before.mappings;
        return ended;
    }

    bool is(Fault fault) const { return m_K > 0 && m_Fault == fault; }
    // Whether the operation came as far as the fault; never in the counting run.
    bool came() const { return m_K > 0 && count(m_Fault) >= m_K; }
    // For operations that every fault ends: checks that they failed, or did not, as they should. Memory that the pager
    // is refused for a block it may find by writing out another.
    void expect_ended_by_fault(bool done) const {
        EXPECT_TRUE(done || came());
        EXPECT_FALSE(done && came() && !is(Fault::Memory));
    }
    bool has_thrown_bad_alloc() const { return m_HasThrownBadAlloc; }
    // What the operation did.
    std::int64_t count(Fault fault) const { return m_Counts.at(static_cast<std::size_t>(fault)); }
    // For cancellation points that are not the host's: counts one and says whether it is the cancelled one.
    bool poll() { return m_Token.Poll(); }

private:
    Fault m_Fault = Fault::Allocation;
    std::int64_t m_K = 0;
    reference_host::CancellationToken m_Token;
    bool m_HasThrownBadAlloc = false;
    std::array<std::int64_t, kNumFaults> m_Counts{};
};

// How an operation tells that the standard library had no memory.
enum class BadAlloc { Never, Allowed, NotSwept };

// The sweeps of one test. The points swept become properties of its XML output.
class FaultSweep {
public:
    explicit FaultSweep(BadAlloc bad_alloc = BadAlloc::Never) : m_BadAlloc(bad_alloc) {}
    FaultSweep(const FaultSweep&) = delete;
    FaultSweep& operator=(const FaultSweep&) = delete;
    ~FaultSweep() {
        for (std::size_t i = 0; i < m_Swept.size(); i++) {
            testing::Test::RecordProperty(kNames.at(i), std::to_string(m_Swept.at(i)));
        }
        EXPECT_GT(std::accumulate(m_Swept.begin(), m_Swept.end(), std::int64_t{0}), 0);
        reference_host::SetNumberOfServers(0);
    }

    // `scenario` makes what the operation needs, runs it through its argument, and checks and repeats it; in the end no
    // block and no mapping is left of it. With several servers the number of points may differ from run to run.
    void run(const std::function<void(FaultPoint&)>& scenario) {
        for (const int servers : {1, 3}) {
            reference_host::SetNumberOfServers(servers);
            // The first run brings what stays for later ones.
            FaultPoint first;
            run_point(first, scenario);
            FaultPoint counting;
            run_point(counting, scenario);
            for (std::size_t i = 0; i < kNames.size(); i++) {
                const auto fault = static_cast<Fault>(i);
                if (fault == Fault::Memory && m_BadAlloc == BadAlloc::NotSwept) {
                    continue;
                }
                for (std::int64_t k = 1; k <= counting.count(fault) && !testing::Test::HasFailure();
                     k += step(fault, k)) {
                    SCOPED_TRACE(testing::Message() << servers << " servers, " << kNames.at(i) << " number " << k);
                    FaultPoint point(fault, k);
                    run_point(point, scenario);
                    EXPECT_TRUE(point.came() || servers > 1);
                    m_Swept.at(i) += point.came() ? 1 : 0;
                }
            }
        }
    }

private:
    static constexpr std::array<const char*, kNumFaults> kNames = {"allocations", "mappings", "cancellations",
                                                                   "memory"};

    // Memory is asked for so often that its later points are swept in growing steps, unless the environment asks for
    // every one.
    static std::int64_t step(Fault fault, std::int64_t k) {
        static const bool every_point = std::getenv("IP_VOLR_TEST_EVERY_POINT") != nullptr;
        return fault == Fault::Memory && !every_point ? 1 + k / 32 : 1;
    }

    void run_point(FaultPoint& point, const std::function<void(FaultPoint&)>& scenario) const {
        const auto before = reference_host::GetPagerStatistics();
        scenario(point);
        EXPECT_FALSE(point.has_thrown_bad_alloc() && !(m_BadAlloc == BadAlloc::Allowed && point.is(Fault::Memory)));
        const auto after = reference_host::GetPagerStatistics();
        EXPECT_EQ(after.blocks, before.blocks);
        EXPECT_EQ(after.mappings, before.mappings);
    }

    const BadAlloc m_BadAlloc;
    std::array<std::int64_t, kNumFaults> m_Swept{};
};
