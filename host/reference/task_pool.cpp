#include "host/reference/task_pool.h"

#include <algorithm>

#include "host/reference/settings.h"
#include "host/tasks.h"

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

namespace reference_host {

namespace {

constexpr int kMostServers = 256;
// Length of one round of the spin policy, 2 to 6 microseconds on processors of the last ten years. A worker that spins
// for the usual 100 rounds outlasts the gaps between the stages of a frame: waking it would take 50 microseconds.
constexpr int kPausesPerRound = 128;

void pause_once() {
#if defined(__x86_64__) || defined(__i386__)
    _mm_pause();
#else
    std::this_thread::yield();
#endif
}

// Spins until `done` holds or the rounds are over; true in the first case. With more servers than processors a waiting
// thread gives way instead: it may hold up the one it waits for.
template <class Condition>
bool spin(int rounds, bool gives_way, Condition done) {
    for (int round = 0; round < rounds; ++round) {
        for (int i = 0; i < kPausesPerRound; ++i) {
            if (done()) {
                return true;
            }
            if (gives_way) {
                std::this_thread::yield();
                break;
            }
            pause_once();
        }
    }
    return done();
}

int number_of_processors() {
    return std::max(static_cast<int>(std::thread::hardware_concurrency()), 1);
}

// Makes a subtask the running one of this thread for the scope's lifetime.
class RunningScope {
public:
    explicit RunningScope(const RunningSubtask& running) : m_Previous(running_subtask()) {
        running_subtask() = running;
    }
    ~RunningScope() { running_subtask() = m_Previous; }
    RunningScope(const RunningScope&) = delete;
    RunningScope& operator=(const RunningScope&) = delete;

private:
    const RunningSubtask m_Previous;
};

}  // namespace

RunningSubtask& running_subtask() {
    thread_local RunningSubtask running;
    return running;
}

TaskPool& TaskPool::Instance() {
    static TaskPool* const instance = new TaskPool;
    return *instance;
}

int TaskPool::NumberOfServers() {
    const int servers = m_Servers.load(std::memory_order_relaxed);
    if (servers > 0) {
        return servers;
    }
    int undecided = 0;
    m_Servers.compare_exchange_strong(undecided, std::min(number_of_processors(), kMostServers));
    return m_Servers.load(std::memory_order_relaxed);
}

void TaskPool::SetNumberOfServers(int servers) {
    StopWorkers();
    m_Servers.store(std::clamp(servers > 0 ? servers : number_of_processors(), 1, kMostServers));
}

void TaskPool::SetSpinRounds(int caller, int worker) {
    m_CallerRounds.store(std::clamp(caller, 0, 100000), std::memory_order_relaxed);
    m_WorkerRounds.store(std::clamp(worker, 0, 100000), std::memory_order_relaxed);
}

void TaskPool::Execute(TCO_CompoundRunnableBase& runnable, int num_subtasks) {
    Job job;
    job.runnable = &runnable;
    job.num_subtasks = num_subtasks;
    job.token = running_subtask().token;
    job.gives_way = job.token != nullptr && job.token->HasInterlude();
    const bool alone = NumberOfServers() == 1 || num_subtasks == 1 || running_subtask().in_compound_task;
    if (alone) {
        DrawSubtasks(job, running_subtask().server);
    } else {
        // Publish the job, help with it, and wait for those who joined.
        StartWorkers();
        Publish(job);
        m_Generation.fetch_add(1);
        WakeWorkers(num_subtasks - 1);
        DrawSubtasks(job, 0);
        Withdraw(job);
        WaitForWorkers(job);
    }
    if (job.failure) {
        std::rethrow_exception(job.failure);
    }
}

void TaskPool::Publish(Job& job) {
    const std::lock_guard<std::mutex> lock(m_Mutex);
    Job** end = &m_OldestJob;
    while (*end != nullptr) {
        end = &(*end)->newer;
    }
    *end = &job;
    m_UrgentJobs.fetch_add(job.gives_way ? 0 : 1);
}

void TaskPool::Withdraw(const Job& job) {
    const std::lock_guard<std::mutex> lock(m_Mutex);
    Job** link = &m_OldestJob;
    while (*link != &job) {
        link = &(*link)->newer;
    }
    *link = job.newer;
    m_UrgentJobs.fetch_sub(job.gives_way ? 0 : 1);
}

void TaskPool::StartWorkers() {
    if (m_Started.load(std::memory_order_acquire)) {
        return;
    }
    const std::lock_guard<std::mutex> lock(m_Mutex);
    if (m_Started.load(std::memory_order_relaxed)) {
        return;
    }
    m_Oversubscribed = m_Servers.load() > number_of_processors();
    try {
        for (int server = 1; server < m_Servers.load(); ++server) {
            m_Threads.emplace_back(&TaskPool::RunWorker, this, server);
        }
    } catch (const std::exception&) {
        // Fewer workers than wished for do the same work, the caller alone if need be.
    }
    m_Started.store(true, std::memory_order_release);
}

void TaskPool::StopWorkers() {
    std::vector<std::thread> threads;
    {
        const std::lock_guard<std::mutex> lock(m_Mutex);
        threads.swap(m_Threads);
        m_Started.store(false);
        m_Stopping.store(true);
        m_Generation.fetch_add(1);
        m_WorkersWake.notify_all();
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    m_Stopping.store(false);
}

void TaskPool::RunWorker(int server) {
    running_subtask().server = server;
    running_subtask().on_worker = true;
    while (true) {
        const std::uint32_t seen_generation = m_Generation.load();
        if (m_Stopping.load()) {
            return;
        }
        if (Job* const job = JoinJob(true)) {
            DrawSubtasks(*job, server);
            LeaveJob(*job);
        } else {
            WaitForJobs(seen_generation);
        }
    }
}

// The oldest that does not give way and has subtasks to draw, or else the oldest that does.
TaskPool::Job* TaskPool::JoinJob(bool also_giving_way) {
    const std::lock_guard<std::mutex> lock(m_Mutex);
    Job* found = nullptr;
    for (Job* job = m_OldestJob; job != nullptr && (found == nullptr || found->gives_way); job = job->newer) {
        if (!job->IsExhausted() && (!job->gives_way || (found == nullptr && also_giving_way))) {
            found = job;
        }
    }
    if (found != nullptr) {
        found->workers.fetch_add(1);
    }
    return found;
}

void TaskPool::GiveWay(const CancellationToken& token) {
    if (!running_subtask().on_worker) {
        const RunningScope scope({});
        token.RunInterlude();
    } else if (m_UrgentJobs.load(std::memory_order_relaxed) > 0) {
        while (Job* const job = JoinJob(false)) {
            DrawSubtasks(*job, running_subtask().server);
            LeaveJob(*job);
        }
    }
}

// The job may be gone as soon as the count is down: only the pool is touched after that.
void TaskPool::LeaveJob(Job& job) {
    if (job.workers.fetch_sub(1) == 1 && m_SleepingCallers.load() > 0) {
        { const std::lock_guard<std::mutex> lock(m_Mutex); }
        m_CallersWake.notify_all();
    }
}

void TaskPool::DrawSubtasks(Job& job, int server) {
    while (true) {
        const int subtask = job.next.fetch_add(1, std::memory_order_relaxed);
        if (subtask >= job.num_subtasks) {
            return;
        }
        try {
            if (job.gives_way) {
                GiveWay(*job.token);
            }
            const RunningScope scope({subtask, server, job.num_subtasks, true, job.token, running_subtask().on_worker});
            job.runnable->Run();
        } catch (...) {
            const std::lock_guard<std::mutex> lock(job.failure_mutex);
            if (!job.failure || subtask < job.failed_subtask) {
                job.failure = std::current_exception();
                job.failed_subtask = subtask;
            }
        }
    }
}

void TaskPool::WaitForJobs(std::uint32_t seen_generation) {
    const int rounds = m_WorkerRounds.load(std::memory_order_relaxed);
    if (spin(rounds, m_Oversubscribed,
             [&] { return m_Generation.load(std::memory_order_acquire) != seen_generation; })) {
        return;
    }
    std::unique_lock<std::mutex> lock(m_Mutex);
    m_SleepingWorkers.fetch_add(1);
    m_WorkersWake.wait(lock, [&] { return m_Generation.load() != seen_generation; });
    m_SleepingWorkers.fetch_sub(1);
}

void TaskPool::WaitForWorkers(const Job& job) {
    const int rounds = m_CallerRounds.load(std::memory_order_relaxed);
    if (spin(rounds, m_Oversubscribed, [&job] { return job.workers.load(std::memory_order_acquire) == 0; })) {
        return;
    }
    std::unique_lock<std::mutex> lock(m_Mutex);
    m_SleepingCallers.fetch_add(1);
    m_CallersWake.wait(lock, [&] { return job.workers.load() == 0; });
    m_SleepingCallers.fetch_sub(1);
}

void TaskPool::WakeWorkers(int wanted) {
    // A worker that is about to sleep counts itself first and then looks at the generation, so it is seen here or sees
    // the new job.
    const int sleeping = m_SleepingWorkers.load();
    if (sleeping == 0) {
        return;
    }
    // One that is between looking and sleeping holds the mutex. After that it hears, and finds the mutex free.
    { const std::lock_guard<std::mutex> lock(m_Mutex); }
    if (wanted >= sleeping) {
        m_WorkersWake.notify_all();
        return;
    }
    for (int i = 0; i < wanted; ++i) {
        m_WorkersWake.notify_one();
    }
}

}  // namespace reference_host
