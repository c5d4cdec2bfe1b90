// Sweeps the faults of an operation: one run counts its allocations, mappings and cancellation points; then it runs
// once for each of them with exactly that one refused or cancelled.
#pragma once

#include "host/reference/settings.h"
#include "host/tasks.h"

#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <string>

enum class Fault { Allocation, Mapping, Cancellation };

// One run of an operation, with at most one fault.
class FaultPoint {
public:
    FaultPoint() = default;
    FaultPoint(Fault fault, std::int64_t k) : m_Fault(fault), m_K(k) {}

    // Runs the operation, once for each point, and checks that it unmaps what it maps unless mappings may stay. False
    // when its cancellation reached the caller.
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
            operation();
        } catch (const TCO_CANCEL_EXCEPTION&) {
            EXPECT_TRUE(m_Token.IsCancelled());
            ended = false;
        }
        reference_host::SetPagerFaults({});
        const auto after = reference_host::GetPagerStatistics();
        m_Counts = {after.total_allocations - before.total_allocations, after.total_map_calls - before.total_map_calls,
                    m_Token.PointsPassed()};
        EXPECT_TRUE(mappings_may_stay || after.mappings == before.mappings) << after.mappings - before.mappings;
        return ended;
    }

    bool is(Fault fault) const { return m_K > 0 && m_Fault == fault; }
    // Whether the operation came as far as the fault; never in the counting run.
    bool came() const { return m_K > 0 && count(m_Fault) >= m_K; }
    // What the operation did.
    std::int64_t count(Fault fault) const { return m_Counts.at(static_cast<std::size_t>(fault)); }
    // For cancellation points that are not the host's: counts one and says whether it is the cancelled one.
    bool poll() { return m_Token.Poll(); }

private:
    Fault m_Fault = Fault::Allocation;
    std::int64_t m_K = 0;
    reference_host::CancellationToken m_Token;
    std::array<std::int64_t, 3> m_Counts{};
};

// The sweeps of one test. The points swept become properties of its XML output.
class FaultSweep {
public:
    FaultSweep() = default;
    FaultSweep(const FaultSweep&) = delete;
    FaultSweep& operator=(const FaultSweep&) = delete;
    ~FaultSweep() {
        for (std::size_t i = 0; i < m_Swept.size(); i++) {
            testing::Test::RecordProperty(kNames.at(i), std::to_string(m_Swept.at(i)));
        }
        EXPECT_GT(m_Swept[0] + m_Swept[1] + m_Swept[2], 0);
        reference_host::SetNumberOfServers(0);
    }

    // `scenario` makes what the operation needs, runs it through its argument, and checks and repeats it; in the end no
    // block and no mapping is left of it. With several servers the number of points may differ from run to run.
    void run(const std::function<void(FaultPoint&)>& scenario) {
        for (const int servers : {1, 3}) {
            reference_host::SetNumberOfServers(servers);
            FaultPoint counting;
            run_point(counting, scenario);
            for (std::size_t i = 0; i < kNames.size(); i++) {
                const auto fault = static_cast<Fault>(i);
                for (std::int64_t k = 1; k <= counting.count(fault) && !testing::Test::HasFailure(); k++) {
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
    static constexpr std::array<const char*, 3> kNames = {"allocations", "mappings", "cancellations"};

    static void run_point(FaultPoint& point, const std::function<void(FaultPoint&)>& scenario) {
        const auto before = reference_host::GetPagerStatistics();
        scenario(point);
        const auto after = reference_host::GetPagerStatistics();
        EXPECT_EQ(after.blocks, before.blocks);
        EXPECT_EQ(after.mappings, before.mappings);
    }

    std::array<std::int64_t, 3> m_Swept{};
};
