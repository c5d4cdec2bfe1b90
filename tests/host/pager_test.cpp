// The memory pager: contents come back from the spill file, counts stay balanced, and refusals do no harm.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <random>
#include <thread>
#include <vector>

#include "host/memory_pager.h"
#include "host/reference/settings.h"
#include "tests/host/log_recorder.h"

#if !defined(_WIN32)
#include <sys/resource.h>
#endif

namespace {

using reference_host::GetPagerStatistics;
using reference_host::PagerFaults;
using reference_host::PagerStatistics;

constexpr std::int64_t kMiB = 1 << 20;

MEM_MemPager& pager() {
    return *MEM_MemPager::GetHandleForMP();
}

// Fills a mapped block with a pattern that belongs to `seed`, and tells whether it still holds it.
void fill(const MEM_PagerInfo& info, std::size_t bytes, unsigned seed) {
    std::minstd_rand random(seed + 1);
    auto* const words = static_cast<std::uint32_t*>(info.Ptr());
    for (std::size_t i = 0; i < bytes / 4; ++i) {
        words[i] = static_cast<std::uint32_t>(random());
    }
}

bool holds(const MEM_PagerInfo& info, std::size_t bytes, unsigned seed) {
    std::minstd_rand random(seed + 1);
    const auto* const words = static_cast<const std::uint32_t*>(info.Ptr());
    for (std::size_t i = 0; i < bytes / 4; ++i) {
        if (words[i] != static_cast<std::uint32_t>(random())) {
            return false;
        }
    }
    return true;
}

class PagerTest : public testing::Test {
protected:
    void SetUp() override { m_Before = GetPagerStatistics(); }
    void TearDown() override {
        reference_host::SetPagerFaults({});
        reference_host::SetSpillFolder("");
        reference_host::SetMemoryBudget(0);
        const PagerStatistics after = GetPagerStatistics();
        EXPECT_EQ(after.blocks, m_Before.blocks);
        EXPECT_EQ(after.allocated_bytes, m_Before.allocated_bytes);
        EXPECT_EQ(after.resident_bytes, m_Before.resident_bytes);
        EXPECT_EQ(after.spilled_bytes, m_Before.spilled_bytes);
        EXPECT_EQ(after.mapped_blocks, m_Before.mapped_blocks);
        EXPECT_EQ(after.mapped_bytes, m_Before.mapped_bytes);
        EXPECT_EQ(after.mappings, m_Before.mappings);
    }

    // n filled blocks that nobody maps; block i holds the pattern i.
    std::vector<MEM_PagerInfo> MakeBlocks(int n, std::int64_t bytes) {
        std::vector<MEM_PagerInfo> blocks(static_cast<std::size_t>(n));
        for (unsigned i = 0; i < blocks.size(); ++i) {
            EXPECT_EQ(pager().Allocate64(static_cast<unsigned long long>(bytes), &blocks[i], 0), 0);
            fill(blocks[i], static_cast<std::size_t>(bytes), i);
            EXPECT_EQ(blocks[i].Unmap(), 0);
        }
        return blocks;
    }

    void ExpectContentsAndFree(std::vector<MEM_PagerInfo>& blocks, std::int64_t bytes) {
        for (unsigned i = 0; i < blocks.size(); ++i) {
            ASSERT_EQ(blocks[i].Map(), 0);
            EXPECT_TRUE(holds(blocks[i], static_cast<std::size_t>(bytes), i)) << "block " << i;
            EXPECT_EQ(blocks[i].Unmap(), 0);
            pager().Free(blocks[i]);
        }
    }

    LogRecorder m_Log;

private:
    PagerStatistics m_Before;
};

TEST_F(PagerTest, BlocksComeMappedAlignedAndKeepTheirAddressWhileMapped) {
    for (const unsigned bytes : {0U, 1U, 4096U, 32768U, 32769U, 5U << 20}) {
        MEM_PagerInfo info(&pager());
        ASSERT_EQ(pager().Allocate(bytes, &info, 16), 0);
        void* const address = info.Ptr();
        ASSERT_NE(address, nullptr);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(address) % 64, 0U);
        std::memset(address, 0x5a, bytes);
        reference_host::SetMemoryBudget(1);
        EXPECT_EQ(info.Map(), 0);
        EXPECT_EQ(info.Unmap(), 0);
        EXPECT_EQ(info.Ptr(), address);
        EXPECT_EQ(info.Unmap(), 0);
        EXPECT_EQ(info.Ptr(), nullptr);
        pager().Free(info);
        EXPECT_EQ(info.Block(), -1);
        EXPECT_EQ(info.GetMemInfoPtr(), nullptr);
    }
}

TEST_F(PagerTest, BlocksBeyondTheBudgetAreWrittenOutOldestFirstAndComeBack) {
    reference_host::SetMemoryBudget(4 * kMiB);
    std::vector<MEM_PagerInfo> blocks = MakeBlocks(10, kMiB);
    EXPECT_LE(GetPagerStatistics().resident_bytes, 4 * kMiB);
    EXPECT_EQ(GetPagerStatistics().spilled_bytes, 6 * kMiB);

    // The four youngest are in memory: mapping them reads nothing back.
    for (std::size_t i = 6; i < 10; ++i) {
        EXPECT_EQ(blocks[i].Map(), 0);
        EXPECT_EQ(blocks[i].Unmap(), 0);
    }
    EXPECT_EQ(GetPagerStatistics().spilled_bytes, 6 * kMiB);
    ExpectContentsAndFree(blocks, kMiB);
}

TEST_F(PagerTest, WhatIsMappedAlwaysFitsAndLeavesNothingElseResident) {
    std::vector<MEM_PagerInfo> blocks = MakeBlocks(6, kMiB);
    reference_host::SetMemoryBudget(2 * kMiB);
    std::vector<MEM_PagerInfo*> some{&blocks[0], nullptr, &blocks[5], &blocks[2], &blocks[0]};
    ASSERT_EQ(pager().MapMemPagerInfoVec(some.data(), 5), 0);
    EXPECT_EQ(GetPagerStatistics().mapped_bytes, 3 * kMiB);
    EXPECT_EQ(GetPagerStatistics().resident_bytes, 3 * kMiB);
    EXPECT_TRUE(holds(blocks[2], kMiB, 2));
    EXPECT_EQ(pager().UnmapMemPagerInfoVec(some.data(), 5), 0);
    EXPECT_LE(GetPagerStatistics().resident_bytes, 2 * kMiB);
    ExpectContentsAndFree(blocks, kMiB);
}

TEST_F(PagerTest, ManyThreadsGetTheirContentsBackUnderATinyBudgetAndFailures) {
    constexpr int kBlocks = 24;
    constexpr std::int64_t kBytes = 64 * 1024;
    reference_host::SetMemoryBudget(5 * kBytes);
    std::vector<MEM_PagerInfo> blocks = MakeBlocks(kBlocks, kBytes);
    std::atomic<int> wrong{0};
    std::atomic<int> refused{0};
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < 4; ++t) {
        threads.emplace_back([&blocks, &wrong, &refused, t] {
            std::minstd_rand random(t + 7);
            for (int round = 0; round < 200; ++round) {
                // Shared blocks are only read, singly or in pairs; every thread also has blocks that come and go.
                const unsigned first = static_cast<unsigned>(random() % kBlocks);
                const unsigned second = static_cast<unsigned>(random() % kBlocks);
                // Now and then the file fails; what was refused succeeds when asked again.
                if (round % 10 == 0) {
                    reference_host::SetPagerFaults({.fail_spill_write = 2, .fail_spill_read = 3});
                }
                MEM_PagerInfo* pair[2] = {&blocks[first], &blocks[second]};
                while (pager().MapMemPagerInfoVec(pair, 2) != 0) {
                    ++refused;
                }
                wrong += !holds(blocks[first], kBytes, first) || !holds(blocks[second], kBytes, second);
                MEM_PagerInfo own;
                wrong += pager().Allocate(kBytes, &own, 16) != 0;
                fill(own, kBytes, t);
                own.Unmap();
                wrong += pager().UnmapMemPagerInfoVec(pair, 2) != 0;
                while (own.Map() != 0) {
                    ++refused;
                }
                wrong += !holds(own, kBytes, t);
                pager().Free(own);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(m_Log.Count("cannot be read"), refused);
    EXPECT_GT(GetPagerStatistics().total_spilled_bytes, 0);
    reference_host::SetPagerFaults({});
    ExpectContentsAndFree(blocks, kBytes);
}

TEST_F(PagerTest, UnbalancedUnmapsAndHandlesOfFreedBlocksAreRefused) {
    MEM_PagerInfo info;
    EXPECT_NE(info.Map(), 0);
    EXPECT_NE(info.Unmap(), 0);
    ASSERT_EQ(pager().Allocate(100, &info, 0), 0);
    EXPECT_EQ(info.Unmap(), 0);
    EXPECT_NE(info.Unmap(), 0);
    EXPECT_EQ(m_Log.Count("is not mapped"), 1);

    // The record of a freed block serves the next one, which the old handle must not touch.
    MEM_PagerInfo stale(info, false);
    pager().Free(info);
    MEM_PagerInfo next;
    ASSERT_EQ(pager().Allocate(100, &next, 0), 0);
    EXPECT_NE(stale.Map(), 0);
    EXPECT_NE(stale.Unmap(), 0);
    EXPECT_EQ(stale.Ptr(), nullptr);
    pager().Free(stale);
    EXPECT_NE(next.Ptr(), nullptr);
    pager().Free(next);
    pager().Free(next);
}

TEST_F(PagerTest, FaultsRefuseExactlyWhatTheyName) {
    MEM_PagerInfo info;
    reference_host::SetPagerFaults({.refuse_allocation = 2, .refuse_above_bytes = 1000});
    EXPECT_EQ(pager().Allocate(1000, &info, 0), 0);
    pager().Free(info);
    EXPECT_EQ(pager().Allocate(10, &info, 0), -1);
    EXPECT_EQ(info.Block(), -1);
    EXPECT_EQ(pager().Allocate(1001, &info, 0), -1);
    EXPECT_EQ(pager().Allocate64(~0ULL, &info, 0), -1);

    std::vector<MEM_PagerInfo> blocks = MakeBlocks(3, 1000);
    MEM_PagerInfo* all[3] = {&blocks[0], &blocks[1], &blocks[2]};
    const std::int64_t mapped = GetPagerStatistics().mapped_bytes;
    reference_host::SetPagerFaults({.refuse_map = 2, .refuse_mapped_above = mapped + 2999});
    EXPECT_NE(pager().MapMemPagerInfoVec(all, 3), 0);  // too much at once: none of it is mapped
    EXPECT_EQ(GetPagerStatistics().mapped_bytes, mapped);
    EXPECT_NE(pager().MapMemPagerInfoVec(all, 2), 0);  // the second call
    EXPECT_EQ(pager().MapMemPagerInfoVec(all, 2), 0);
    EXPECT_EQ(pager().UnmapMemPagerInfoVec(all, 2), 0);
    ExpectContentsAndFree(blocks, 1000);
}

TEST_F(PagerTest, AFailingSpillFileLosesNothing) {
    // A folder that is not there: everything stays in memory, told once.
    reference_host::SetSpillFolder("/nonexistent/folder");
    reference_host::SetMemoryBudget(kMiB);
    std::vector<MEM_PagerInfo> blocks = MakeBlocks(4, kMiB);
    EXPECT_EQ(GetPagerStatistics().resident_bytes, 4 * kMiB);
    EXPECT_EQ(m_Log.Count("cannot be written"), 1);

    // Works again as soon as it can; an unreadable block is refused but not lost.
    reference_host::SetSpillFolder("");
    reference_host::SetMemoryBudget(kMiB);
    EXPECT_EQ(GetPagerStatistics().resident_bytes, kMiB);
    reference_host::SetPagerFaults({.fail_spill_read = 2});
    MEM_PagerInfo* two[2] = {&blocks[0], &blocks[1]};
    EXPECT_NE(pager().MapMemPagerInfoVec(two, 2), 0);
    EXPECT_EQ(m_Log.Count("cannot be read"), 1);
    EXPECT_EQ(GetPagerStatistics().mapped_blocks, 0);
    reference_host::SetPagerFaults({.fail_spill_write = -1});
    ExpectContentsAndFree(blocks, kMiB);
}

// Blocks that share pages: what happens to one must not touch its neighbours, nor keep the memory of those that are
// gone.
TEST_F(PagerTest, BlocksOfOneSizeKeepTheirContentsWhileNeighboursComeAndGo) {
    constexpr std::int64_t bytes = 512 * 1024 + 2;
    constexpr std::size_t n = 200;  // more than may wait for another use
    std::vector<MEM_PagerInfo> blocks = MakeBlocks(n, bytes);
    for (int round = 0; round < 2; ++round) {
        for (std::size_t i = 0; i < n; i += 2 + static_cast<std::size_t>(round)) {
            pager().Free(blocks[i]);
        }
        for (std::size_t i = 0; i < n; i += 2 + static_cast<std::size_t>(round)) {
            ASSERT_EQ(pager().Allocate64(bytes, &blocks[i], 0), 0);
            fill(blocks[i], bytes, static_cast<unsigned>(i));
            EXPECT_EQ(blocks[i].Unmap(), 0);
        }
    }
    // The same over the spill file, where pages go and come back.
    reference_host::SetMemoryBudget(10 * bytes);
    reference_host::SetMemoryBudget(0);
    ExpectContentsAndFree(blocks, bytes);
}

#if !defined(_WIN32)
TEST_F(PagerTest, AFullDiskKeepsBlocksInMemory) {
    // The limit on file sizes stands for a full disk; it would end the process by a signal.
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    const rlimit limit{3 * kMiB / 2, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    reference_host::SetSpillFolder("");  // a fresh file
    reference_host::SetMemoryBudget(kMiB);
    std::vector<MEM_PagerInfo> blocks = MakeBlocks(5, kMiB);
    EXPECT_EQ(GetPagerStatistics().spilled_bytes, kMiB);
    EXPECT_EQ(GetPagerStatistics().resident_bytes, 4 * kMiB);
    EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
    ExpectContentsAndFree(blocks, kMiB);
}
#endif

}  // namespace
