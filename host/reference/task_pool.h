// The worker threads behind the compound tasks.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

class TCO_CompoundRunnableBase;

namespace reference_host {

class CancellationToken;

// What the calling thread is running now.
struct RunningSubtask {
    int subtask = 0;
    int server = 0;
    int num_subtasks = 1;
    bool in_compound_task = false;
    CancellationToken* token = nullptr;
    bool on_worker = false;
};

RunningSubtask& running_subtask();  // of the calling thread

// Workers 1 to n - 1 and the calling thread (server 0 of its own compound task) draw subtasks in order. Workers serve
// one compound task at a time, the oldest that still has subtasks to draw; one whose token has an interlude gives way
// to the others. A compound task begun inside a subtask runs on that thread alone and keeps its server index, so that
// buffers kept by server stay apart.
class TaskPool {
public:
    static TaskPool& Instance();  // never destroyed: workers may outlive static objects

    int NumberOfServers();
    void SetNumberOfServers(int servers);  // 0: the number of processors
    void SetSpinRounds(int caller, int worker);

    // Runs all subtasks; rethrows the exception of the first in subtask order that threw.
    void Execute(TCO_CompoundRunnableBase& runnable, int num_subtasks);

    // Between two pieces of work whose token has an interlude: the thread that began it runs the interlude, as if it
    // were not in the work; a worker draws subtasks of what does not give way.
    void GiveWay(const CancellationToken& token);

private:
    // One compound task. Lives on its caller's stack; workers touch it only between joining and leaving.
    struct Job {
        TCO_CompoundRunnableBase* runnable = nullptr;
        int num_subtasks = 0;
        CancellationToken* token = nullptr;
        bool gives_way = false;
        std::atomic<int> next{0};     // the next subtask to draw
        std::atomic<int> workers{0};  // that have joined and not left
        std::mutex failure_mutex;
        int failed_subtask = -1;
        std::exception_ptr failure;
        Job* newer = nullptr;  // in the list of jobs, which takes no memory

        bool IsExhausted() const { return next.load(std::memory_order_relaxed) >= num_subtasks; }
    };

    TaskPool() = default;
    void StartWorkers();
    void StopWorkers();
    void RunWorker(int server);
    Job* JoinJob(bool also_giving_way);
    void LeaveJob(Job& job);
    void DrawSubtasks(Job& job, int server);
    void Publish(Job& job);
    void Withdraw(const Job& job);
    void WaitForJobs(std::uint32_t seen_generation);
    void WaitForWorkers(const Job& job);
    void WakeWorkers(int wanted);

    std::mutex m_Mutex;  // guards the list of jobs, the threads and the sleeping
    Job* m_OldestJob = nullptr;
    std::atomic<int> m_UrgentJobs{0};  // in the list, that do not give way
    std::vector<std::thread> m_Threads;
    std::atomic<int> m_Servers{0};  // 0: not decided yet
    bool m_Oversubscribed = false;  // more servers than processors: spinning yields
    std::atomic<bool> m_Stopping{false};
    std::atomic<bool> m_Started{false};
    std::atomic<int> m_CallerRounds{10};
    std::atomic<int> m_WorkerRounds{100};

    std::atomic<std::uint32_t> m_Generation{0};  // counts the jobs begun, so that spinning workers see a new one
    std::atomic<int> m_SleepingWorkers{0};
    std::condition_variable m_WorkersWake;
    std::atomic<int> m_SleepingCallers{0};
    std::condition_variable m_CallersWake;
};

}  // namespace reference_host
