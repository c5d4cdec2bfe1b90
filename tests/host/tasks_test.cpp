// Compound tasks: every subtask runs once, shares cover, failures and cancellation reach the caller.
#include "host/tasks.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include "host/reference/settings.h"

namespace {

using reference_host::CancellationScope;
using reference_host::CancellationToken;

// Runs a function as the subtasks of a compound task.
class Stage {
public:
    explicit Stage(std::function<void(const TCO_RunnableSelf&)> body) : m_Body(std::move(body)) {}

    void Execute(int subtasks) {
        TCO_CompoundRunnable<Stage> runnable(this, &Stage::subtask_run);
        TCO_CompoundTaskManager::GetHandle()->ExecuteCompoundTask(&runnable, false, subtasks, false);
    }

private:
    void subtask_run() {
        const TCO_RunnableSelf self;
        m_Body(self);
    }

    const std::function<void(const TCO_RunnableSelf&)> m_Body;
};

// The suite runs for several numbers of servers.
class TasksTest : public testing::TestWithParam<int> {
protected:
    void SetUp() override { reference_host::SetNumberOfServers(GetParam()); }
    void TearDown() override { reference_host::SetNumberOfServers(0); }
};

INSTANTIATE_TEST_SUITE_P(Servers, TasksTest, testing::Values(1, 2, 3, 8));

TEST_P(TasksTest, EverySubtaskRunsOnceAndNoTwoAtOnceShareAServer) {
    ASSERT_EQ(TCO_CompoundTaskManager::GetNumberOfServers(), GetParam());
    for (const int subtasks : {0, 1, 2, 7, 1000}) {
        const int expected = subtasks == 0 ? GetParam() : subtasks;
        std::vector<int> runs(static_cast<std::size_t>(expected));
        std::vector<std::atomic<int>> busy(static_cast<std::size_t>(GetParam()));
        std::atomic<int> wrong{0};
        Stage stage([&](const TCO_RunnableSelf& self) {
            std::atomic<int>& server = busy.at(static_cast<std::size_t>(self.GetServerIndex()));
            wrong += server.fetch_add(1) != 0 || self.GetNumberOfSubtasks() != expected;
            ++runs.at(static_cast<std::size_t>(self.GetSubtaskIndex()));
            server.fetch_sub(1);
        });
        stage.Execute(subtasks);
        EXPECT_EQ(wrong, 0);
        EXPECT_EQ(runs, std::vector<int>(runs.size(), 1));
    }
}

TEST_P(TasksTest, SharesCoverTheRangeInOrder) {
    const int ranges[][2] = {{0, 0}, {0, 99}, {-5, 6}, {3, 2}, {10, -10}, {0, 2147483646}};
    for (const auto& range : ranges) {
        for (const int subtasks : {1, 2, 3, 16, 150}) {
            std::vector<int> starts(static_cast<std::size_t>(subtasks));
            std::vector<int> ends(starts.size());
            Stage stage([&](const TCO_RunnableSelf& self) {
                const auto i = static_cast<std::size_t>(self.GetSubtaskIndex());
                starts[i] = self.StartRange(range[1], range[0]);
                ends[i] = self.EndRange(range[1], range[0]);
            });
            stage.Execute(subtasks);
            long long next = range[0];
            const long long total = std::max(range[1] - static_cast<long long>(range[0]) + 1, 0LL);
            for (std::size_t i = 0; i < starts.size(); ++i) {
                EXPECT_EQ(starts[i], next);
                next = ends[i] + 1LL;
                const long long share = next - starts[i];
                EXPECT_TRUE(share == total / subtasks || share == total / subtasks + 1) << share;
            }
            EXPECT_EQ(next, range[0] + total);
        }
    }
}

TEST_P(TasksTest, TheFirstFailureInSubtaskOrderArrivesAfterAllHaveEnded) {
    for (int round = 0; round < 50; ++round) {
        std::atomic<int> ended{0};
        Stage stage([&](const TCO_RunnableSelf& self) {
            const int subtask = self.GetSubtaskIndex();
            ++ended;
            if (subtask % 3 == 2) {
                throw std::runtime_error(std::to_string(subtask));
            }
        });
        try {
            stage.Execute(20);
            FAIL() << "nothing thrown";
        } catch (const std::runtime_error& error) {
            EXPECT_STREQ(error.what(), "2");
        }
        EXPECT_EQ(ended, 20);
    }
}

TEST_P(TasksTest, CancellationFromAnotherThreadEndsTheRun) {
    CancellationToken token;
    const CancellationScope scope(token);
    std::atomic<bool> running{false};
    std::thread canceller([&] {
        while (!running) {
            std::this_thread::yield();
        }
        token.Cancel();
    });
    Stage endless([&](const TCO_RunnableSelf& self) {
        running = true;
        while (true) {
            self.Service();
            std::this_thread::yield();
        }
    });
    EXPECT_THROW(endless.Execute(0), TCO_CANCEL_EXCEPTION);
    canceller.join();
    EXPECT_THROW(TCO_RunnableSelf().Service(), TCO_CANCEL_EXCEPTION);

    // Threads and stages without the token go on; so does this one after a reset, up to the point that a test names.
    std::thread([] { TCO_RunnableSelf().Service(); }).join();
    token.Reset();
    Stage polite([](const TCO_RunnableSelf& self) { self.Service(); });
    const long long passed = token.PointsPassed();
    polite.Execute(5);
    EXPECT_EQ(token.PointsPassed() - passed, 5);
    token.CancelAtPoint(3);
    EXPECT_THROW(polite.Execute(5), TCO_CANCEL_EXCEPTION);
    token.Reset();
    polite.Execute(5);
}

TEST_P(TasksTest, StagesWithinStagesRunOnTheSameThreadAndServer) {
    std::atomic<int> runs{0};
    std::atomic<int> wrong{0};
    Stage outer([&](const TCO_RunnableSelf& self) {
        const std::thread::id thread = std::this_thread::get_id();
        Stage inner([&](const TCO_RunnableSelf& inner_self) {
            ++runs;
            wrong += std::this_thread::get_id() != thread || inner_self.GetServerIndex() != self.GetServerIndex();
        });
        inner.Execute(0);
        const TCO_RunnableSelf after;
        wrong += after.GetSubtaskIndex() != self.GetSubtaskIndex();
    });
    outer.Execute(6);
    EXPECT_EQ(runs, 6 * GetParam());
    EXPECT_EQ(wrong, 0);
}

TEST_P(TasksTest, WorkThatGivesWayLetsAllServersHelpWithWhatIsMoreUrgent) {
    const std::thread::id caller = std::this_thread::get_id();
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    for (const int subtasks : {0, 40}) {
        int interludes = 0;
        std::atomic<int> wrong{0};
        std::atomic<int> arrived{0};
        std::atomic<bool> done{false};
        // Its subtasks wait for each other, so that each needs a server of its own.
        Stage urgent([&](const TCO_RunnableSelf& self) {
            wrong += self.GetNumberOfSubtasks() != GetParam();
            ++arrived;
            while (arrived < GetParam() && std::chrono::steady_clock::now() < end) {
                std::this_thread::yield();
            }
        });
        CancellationToken token;
        token.SetInterlude([&] {
            const TCO_RunnableSelf self;
            wrong += std::this_thread::get_id() != caller || self.GetNumberOfSubtasks() != 1;
            // The first comes before the stage, the second is in it.
            if (++interludes == 2) {
                urgent.Execute(0);
                done = true;
            }
        });
        const CancellationScope scope(token);
        TCO_RunnableSelf().Service();
        std::vector<int> runs(static_cast<std::size_t>(subtasks == 0 ? GetParam() : subtasks));
        Stage patient([&](const TCO_RunnableSelf& self) {
            ++runs.at(static_cast<std::size_t>(self.GetSubtaskIndex()));
            do {
                self.Service();
            } while (!done && std::chrono::steady_clock::now() < end);
            const TCO_RunnableSelf after;
            wrong +=
                after.GetSubtaskIndex() != self.GetSubtaskIndex() || after.GetServerIndex() != self.GetServerIndex();
        });
        patient.Execute(subtasks);
        EXPECT_TRUE(done);
        EXPECT_EQ(arrived, GetParam());
        EXPECT_EQ(wrong, 0);
        EXPECT_EQ(runs, std::vector<int>(runs.size(), 1));
    }
}

TEST_P(TasksTest, SeveralHostThreadsRunStagesAtOnce) {
    std::atomic<int> wrong{0};
    std::vector<std::thread> hosts;
    for (int host = 0; host < 4; ++host) {
        hosts.emplace_back([&wrong, host] {
            for (int round = 0; round < 300; ++round) {
                // Rounds of one host are cancelled and fail without touching the others.
                CancellationToken token;
                const CancellationScope scope(token);
                std::atomic<int> runs{0};
                Stage stage([&](const TCO_RunnableSelf& self) {
                    ++runs;
                    self.Service();
                });
                if (host == 0) {
                    token.Cancel();
                }
                bool cancelled = false;
                try {
                    stage.Execute(1 + round % 9);
                } catch (const TCO_CANCEL_EXCEPTION&) {
                    cancelled = true;
                }
                wrong += runs != 1 + round % 9 || cancelled != (host == 0);
            }
        });
    }
    for (std::thread& host : hosts) {
        host.join();
    }
    EXPECT_EQ(wrong, 0);
}

TEST(TasksPolicyTest, SleepingServersWakeUp) {
    reference_host::SetNumberOfServers(3);
    TCO_CompoundTaskManager::SetSpinWaitPolicy(0, 0);
    for (int round = 0; round < 200; ++round) {
        // Every subtask waits for the others: only woken servers get them all running.
        std::atomic<int> running{0};
        Stage stage([&running](const TCO_RunnableSelf&) {
            ++running;
            while (running < 3) {
                std::this_thread::yield();
            }
        });
        stage.Execute(3);
    }
    TCO_CompoundTaskManager::SetSpinWaitPolicy(10, 100);
    reference_host::SetNumberOfServers(0);
}

}  // namespace
