// The pager behind MEM_MemPager: blocks, mapping counts, the memory budget and the way to the spill file and back.
//
//              Allocate                     evict: write done
//   (none) --------------> resident ---> spilling ---------------> spilled
//                             ^   ^__________|                        |
//                             |     write failed, or wanted back      |
//                             |                                       |
//                             +---- read done ---- loading <----------+
//                                                     |  read failed  ^
//                                                     +---------------+
//
// One mutex guards all records, but no file is read or written under it: a block in between is `spilling` or `loading`,
// and whoever needs it waits. Mapping or unmapping a block that is mapped anyway touches only its count. Counts leave
// and reach zero under the mutex.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

#include "host/memory_pager.h"
#include "host/reference/pager_memory.h"
#include "host/reference/settings.h"
#include "host/reference/spill_file.h"

// Records are used again but never given back, so that a handle left over from a freed block is recognised by its
// number instead of reading foreign memory.
struct MEM_BlockRecord {
    enum class State { Unused, Resident, Spilling, Spilled, Loading };

    std::atomic<int> block{-1};
    std::atomic<std::int64_t> mappings{0};
    reference_host::BlockMemory memory;  // while resident or spilling
    std::int64_t bytes = 0;
    State state = State::Unused;
    int waiters = 0;  // threads that want the block while it is on its way
    std::shared_ptr<reference_host::SpillFile> file;
    std::int64_t offset = -1;  // in the file, while spilled or loading

    // Neighbours in the list of resident blocks that nobody maps.
    MEM_BlockRecord* older = nullptr;
    MEM_BlockRecord* newer = nullptr;
};

namespace reference_host {

class PagerCore {
public:
    static PagerCore& Instance();  // never destroyed: blocks may outlive static objects

    // A block that a handle refers to, by its record and its number; handles of freed blocks are recognised.
    struct Request {
        MEM_BlockRecord* record;
        int block;
        bool pinned = false;  // by the call that is running
    };

    // A new block, mapped once; null when refused.
    MEM_BlockRecord* Allocate(std::uint64_t bytes);
    void Free(const Request& request);   // mapped or not; a freed block is ignored
    bool Map(Request* requests, int n);  // all or none; a freed block fails
    // The position of the first request that was not mapped, or n. The others are unmapped all the same.
    int Unmap(Request* requests, int n);
    static void* Address(const MEM_BlockRecord& record, int block);  // null while unmapped or freed

    PagerStatistics Statistics();
    void ResetPeaks();
    void SetBudget(std::int64_t bytes);  // 0: the default
    std::int64_t Budget();
    void SetSpillFolder(const std::string& folder);
    void SetFaults(const PagerFaults& faults);

private:
    using Lock = std::unique_lock<std::mutex>;

    // The resident blocks that nobody maps, from the least to the most recently used.
    struct IdleList {
        MEM_BlockRecord* oldest = nullptr;
        MEM_BlockRecord* newest = nullptr;
        void PushNewest(MEM_BlockRecord& record);
        void Remove(MEM_BlockRecord& record);
    };

    PagerCore();

    MEM_BlockRecord* NewRecord();
    bool RefusesAllocation(std::uint64_t bytes);
    bool RefusesMapCall();

    bool Pin(Request& request);
    bool Unpin(MEM_BlockRecord& record);
    bool MapResident(Request* requests, int n);
    bool MapSpilled(Lock& lock, Request* requests, int n);

    void WaitUntilSettled(Lock& lock, MEM_BlockRecord& record);
    bool Load(Lock& lock, MEM_BlockRecord& record);
    bool Evict(Lock& lock, MEM_BlockRecord& record);
    MEM_BlockRecord* FindVictim() const;
    void MakeRoom(Lock& lock, std::int64_t needed_bytes);
    BlockMemory TakeMemory(Lock& lock, std::int64_t bytes);

    std::shared_ptr<SpillFile> CurrentFile();
    bool WriteOut(MEM_BlockRecord& record, bool fails, std::shared_ptr<SpillFile>& file, std::int64_t& offset);

    std::mutex m_Mutex;
    std::condition_variable m_Settled;  // some block is no longer on its way
    std::deque<MEM_BlockRecord> m_Records;
    MEM_BlockRecord* m_Unused = nullptr;  // linked by `newer`
    IdleList m_Idle;
    int m_LastBlock = -1;
    std::int64_t m_Budget = 0;
    std::int64_t m_SpillingBytes = 0;  // resident still, but being written
    PagerStatistics m_Statistics;      // the counts below are kept apart
    PagerFaults m_Faults;

    std::atomic<std::int64_t> m_Mappings{0};
    std::atomic<std::int64_t> m_TotalMaps{0};
    std::atomic<std::int64_t> m_TotalMapCalls{0};
    std::atomic<bool> m_RefusesMaps{false};

    std::mutex m_FileMutex;  // guards the two below
    std::string m_SpillFolder;
    std::shared_ptr<SpillFile> m_File;
    std::atomic<bool> m_WritesFail{false};  // told once, until a write succeeds
};

}  // namespace reference_host
