// Settings of the reference host: what an executable, a test or a benchmark decides and observes. The library itself
// never sees this header.
#pragma once

#include "host/host_export.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace reference_host {

// ---- Tasks

// Number of servers (worker threads, the caller among them), 1 to 256; 0 restores the number of processors. Not while a
// compound task runs.
IP_HOST_API void SetNumberOfServers(int servers);

// A run can be cancelled from any thread. A host thread binds a token with CancellationScope; every cancellation point
// of the work it starts then throws once the token is cancelled. Cancelling stays in force until Reset.
class IP_HOST_API CancellationToken {
public:
    void Cancel() { m_Cancelled.store(true, std::memory_order_relaxed); }
    void Reset() { m_Cancelled.store(false, std::memory_order_relaxed); }
    bool IsCancelled() const { return m_Cancelled.load(std::memory_order_relaxed); }
    // For tests: cancels at the k-th cancellation point from now (1 is the next); 0 switches it off.
    void CancelAtPoint(long long k) { m_Countdown.store(k, std::memory_order_relaxed); }
    // Cancellation points passed since construction.
    long long PointsPassed() const { return m_Passed.load(std::memory_order_relaxed); }
    // The thread that the token is bound to calls this first at each cancellation point, and before each of its
    // subtasks: what is more urgent than the work can be done there. Of compound tasks begun there the workers draw
    // subtasks as soon as they come to a cancellation point or a subtask of the work. What it throws the cancellation
    // point or the compound task throws. Set before the work begins.
    void SetInterlude(std::function<void()> interlude) { m_Interlude = std::move(interlude); }
    bool HasInterlude() const { return m_Interlude != nullptr; }
    void RunInterlude() const { m_Interlude(); }
    // Called by each cancellation point; true when it must throw.
    bool Poll();

private:
    std::function<void()> m_Interlude;
    std::atomic<bool> m_Cancelled{false};
    std::atomic<long long> m_Countdown{0};
    std::atomic<long long> m_Passed{0};
};

// Binds a token to the calling thread for the scope's lifetime.
class IP_HOST_API CancellationScope {
public:
    explicit CancellationScope(CancellationToken& token);
    ~CancellationScope();
    CancellationScope(const CancellationScope&) = delete;
    CancellationScope& operator=(const CancellationScope&) = delete;

private:
    CancellationToken* m_Previous;
};

// ---- Memory pager

struct PagerStatistics {
    std::int64_t blocks = 0;           // allocated now
    std::int64_t allocated_bytes = 0;  // in all blocks, resident or spilled
    std::int64_t resident_bytes = 0;   // in memory now
    std::int64_t spilled_bytes = 0;    // in the spill file now
    std::int64_t mapped_blocks = 0;    // with at least one mapping
    std::int64_t mapped_bytes = 0;
    std::int64_t mappings = 0;             // sum of all mapping counts
    std::int64_t peak_resident_bytes = 0;  // since the start or ResetPeaks
    std::int64_t total_spilled_bytes = 0;  // written to the spill file, ever
    std::int64_t total_allocations = 0;    // Allocate calls, ever
    std::int64_t total_maps = 0;           // blocks mapped, ever
    std::int64_t total_map_calls = 0;      // Map and MapMemPagerInfoVec calls on blocks, ever: what refuse_map counts
};

IP_HOST_API PagerStatistics GetPagerStatistics();
IP_HOST_API void ResetPagerPeaks();

// Memory budget in bytes; 0 restores the default (three quarters of the memory of the machine, or of the container that
// the process is confined to). What is beyond a lower budget is written out before the call returns.
IP_HOST_API void SetMemoryBudget(std::int64_t bytes);
IP_HOST_API std::int64_t GetMemoryBudget();
// Folder of the spill file (unlinked as soon as it is open); empty restores the system's folder for temporary files.
// Blocks that are spilled already stay where they are.
IP_HOST_API void SetSpillFolder(const std::string& folder);

// For tests. Counts restart with each call.
struct PagerFaults {
    std::int64_t refuse_allocation = 0;    // refuse the k-th allocation from now (1 is the next); 0 none
    std::int64_t refuse_map = 0;           // refuse the k-th mapping call from now; 0 none
    std::int64_t refuse_above_bytes = 0;   // refuse every allocation above this size; 0 none
    std::int64_t refuse_mapped_above = 0;  // refuse calls after which more bytes than this would be mapped; 0 none
    std::int64_t fail_spill_write = 0;     // fail the k-th write of a block to the spill file; 0 none, -1 all
    std::int64_t fail_spill_read = 0;      // fail the k-th read of a block from the spill file; 0 none, -1 all
};
IP_HOST_API void SetPagerFaults(const PagerFaults& faults);

// ---- Instruction sets

enum class InstructionSet { Scalar, Sse41, Avx2 };

// For tests and benchmarks: the host's kernels (those of the zoom) use nothing above `highest` from now on. Returns
// what they do use, which depends on the processor too.
IP_HOST_API InstructionSet LimitInstructionSet(InstructionSet highest);

// ---- Log

struct LogLine {
    int level = 0;
    const char* source = "";
    const char* function = "";
    int line = 0;
    const char* text = "";
    bool headline = true;
};

// Lines above this level are not formatted (3 error ... 7 trace; 0 silences all). Default 0.
IP_HOST_API void SetLogLevel(int level);
IP_HOST_API int GetLogLevel();
IP_HOST_API void LogToStandardError(bool on);
IP_HOST_API bool LogToFile(const std::string& path);  // appends; an empty path closes; false when it cannot be opened
// A callback for tests and tools, called under the log's lock; an empty function removes it.
IP_HOST_API void LogToCallback(std::function<void(const LogLine&)> sink);

}  // namespace reference_host
