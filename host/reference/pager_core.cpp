#include "host/reference/pager_core.h"

#include <algorithm>
#include <exception>

#include "host/log.h"

namespace reference_host {

namespace {

using State = MEM_BlockRecord::State;

// No machine addresses more; larger requests are errors in the making.
constexpr std::uint64_t kLargestBlock = std::uint64_t{1} << 46;

constexpr int kLogError = 3;
constexpr int kLogInformation = 6;

bool announce(int level, const char* function, int line) {
    return Tmr_LogFile::StoreParams("host/MEM_MemPager", function, line, level, 0, 0) != 0;
}

// Counts down to a fault; true when it strikes. -1 always strikes.
bool strikes(std::int64_t& countdown) {
    return countdown < 0 || (countdown > 0 && --countdown == 0);
}

bool is_current(const PagerCore::Request& request) {
    return request.record->block.load(std::memory_order_relaxed) == request.block;
}

// Adds a mapping to a block that has one; false when it has none.
bool pin_mapped(MEM_BlockRecord& record) {
    std::int64_t count = record.mappings.load(std::memory_order_relaxed);
    while (count > 0) {
        if (record.mappings.compare_exchange_weak(count, count + 1, std::memory_order_acq_rel)) {
            return true;
        }
    }
    return false;
}

// Takes a mapping from a block that keeps another; false when it has none to spare.
bool unpin_shared(MEM_BlockRecord& record) {
    std::int64_t count = record.mappings.load(std::memory_order_relaxed);
    while (count > 1) {
        if (record.mappings.compare_exchange_weak(count, count - 1, std::memory_order_acq_rel)) {
            return true;
        }
    }
    return false;
}

}  // namespace

void PagerCore::IdleList::PushNewest(MEM_BlockRecord& record) {
    record.older = newest;
    record.newer = nullptr;
    (newest != nullptr ? newest->newer : oldest) = &record;
    newest = &record;
}

void PagerCore::IdleList::Remove(MEM_BlockRecord& record) {
    (record.older != nullptr ? record.older->newer : oldest) = record.newer;
    (record.newer != nullptr ? record.newer->older : newest) = record.older;
    record.older = nullptr;
    record.newer = nullptr;
}

PagerCore& PagerCore::Instance() {
    static PagerCore* const instance = new PagerCore;
    return *instance;
}

PagerCore::PagerCore() : m_Budget(machine_memory_bytes() / 4 * 3) {}

MEM_BlockRecord* PagerCore::Allocate(std::uint64_t bytes) {
    Lock lock(m_Mutex);
    ++m_Statistics.total_allocations;
    MEM_BlockRecord* const record = RefusesAllocation(bytes) ? nullptr : NewRecord();
    if (record == nullptr) {
        return nullptr;
    }
    const BlockMemory memory = TakeMemory(lock, static_cast<std::int64_t>(bytes));
    if (memory.address == nullptr) {
        record->newer = m_Unused;
        m_Unused = record;
        return nullptr;
    }

    record->memory = memory;
    record->bytes = static_cast<std::int64_t>(bytes);
    record->state = State::Resident;
    m_LastBlock = (m_LastBlock + 1) & 0x7fffffff;
    record->block.store(m_LastBlock, std::memory_order_relaxed);
    ++m_Statistics.blocks;
    m_Statistics.allocated_bytes += record->bytes;
    ++m_Statistics.mapped_blocks;
    m_Statistics.mapped_bytes += record->bytes;
    m_Mappings.fetch_add(1, std::memory_order_relaxed);
    record->mappings.store(1, std::memory_order_release);
    return record;
}

void PagerCore::Free(const Request& request) {
    MEM_BlockRecord& record = *request.record;
    BlockMemory memory;
    std::shared_ptr<SpillFile> file;
    std::int64_t offset = -1;
    std::int64_t bytes = 0;
    {
        Lock lock(m_Mutex);
        if (is_current(request)) {
            WaitUntilSettled(lock, record);
        }
        if (!is_current(request)) {
            return;
        }

        // Take the block out of every count.
        bytes = record.bytes;
        const std::int64_t mappings = record.mappings.exchange(0);
        m_Mappings.fetch_sub(mappings, std::memory_order_relaxed);
        if (mappings > 0) {
            --m_Statistics.mapped_blocks;
            m_Statistics.mapped_bytes -= bytes;
        }
        --m_Statistics.blocks;
        m_Statistics.allocated_bytes -= bytes;
        if (record.state == State::Spilled) {
            m_Statistics.spilled_bytes -= bytes;
        } else {
            m_Statistics.resident_bytes -= bytes;
            if (mappings == 0) {
                m_Idle.Remove(record);
            }
        }

        // Make the record ready for its next block.
        std::swap(memory, record.memory);
        file.swap(record.file);
        std::swap(offset, record.offset);
        record.block.store(-1, std::memory_order_relaxed);
        record.state = State::Unused;
        record.newer = m_Unused;
        m_Unused = &record;
    }
    release_block_memory(memory);
    if (file != nullptr) {
        file->Release(offset, bytes);
    }
}

bool PagerCore::Map(Request* requests, int n) {
    if (n <= 0) {
        return true;
    }
    m_TotalMapCalls.fetch_add(1, std::memory_order_relaxed);
    if (m_RefusesMaps.load(std::memory_order_relaxed) && RefusesMapCall()) {
        return false;
    }
    if (n == 1 && is_current(*requests) && pin_mapped(*requests->record)) {
        m_Mappings.fetch_add(1, std::memory_order_relaxed);
        m_TotalMaps.fetch_add(1, std::memory_order_relaxed);
        return true;
    }

    // Blocks in memory come first, so that making room for the others does not drive them out.
    Lock lock(m_Mutex);
    if (MapResident(requests, n) && MapSpilled(lock, requests, n)) {
        m_TotalMaps.fetch_add(n, std::memory_order_relaxed);
        return true;
    }
    for (Request* request = requests; request != requests + n; ++request) {
        if (request->pinned) {
            Unpin(*request->record);
        }
    }
    MakeRoom(lock, 0);
    return false;
}

int PagerCore::Unmap(Request* requests, int n) {
    if (n == 1 && is_current(*requests) && unpin_shared(*requests->record)) {
        m_Mappings.fetch_sub(1, std::memory_order_relaxed);
        return n;
    }
    int first_unbalanced = n;
    Lock lock(m_Mutex);
    for (int i = 0; i < n; ++i) {
        if (!is_current(requests[i]) || !Unpin(*requests[i].record)) {
            first_unbalanced = std::min(first_unbalanced, i);
        }
    }
    MakeRoom(lock, 0);
    return first_unbalanced;
}

void* PagerCore::Address(const MEM_BlockRecord& record, int block) {
    const bool mapped = record.mappings.load(std::memory_order_acquire) > 0;
    return mapped && record.block.load(std::memory_order_relaxed) == block ? record.memory.address : nullptr;
}

PagerStatistics PagerCore::Statistics() {
    const Lock lock(m_Mutex);
    PagerStatistics statistics = m_Statistics;
    statistics.mappings = m_Mappings.load(std::memory_order_relaxed);
    statistics.total_maps = m_TotalMaps.load(std::memory_order_relaxed);
    statistics.total_map_calls = m_TotalMapCalls.load(std::memory_order_relaxed);
    return statistics;
}

void PagerCore::ResetPeaks() {
    const Lock lock(m_Mutex);
    m_Statistics.peak_resident_bytes = m_Statistics.resident_bytes;
}

void PagerCore::SetBudget(std::int64_t bytes) {
    Lock lock(m_Mutex);
    m_Budget = bytes > 0 ? bytes : machine_memory_bytes() / 4 * 3;
    MakeRoom(lock, 0);
}

std::int64_t PagerCore::Budget() {
    const Lock lock(m_Mutex);
    return m_Budget;
}

void PagerCore::SetSpillFolder(const std::string& folder) {
    const Lock lock(m_FileMutex);
    m_SpillFolder = folder;
    m_File = nullptr;
}

void PagerCore::SetFaults(const PagerFaults& faults) {
    const Lock lock(m_Mutex);
    m_Faults = faults;
    m_RefusesMaps.store(faults.refuse_map != 0, std::memory_order_relaxed);
}

// Under the mutex. Null when even a record does not fit into memory.
MEM_BlockRecord* PagerCore::NewRecord() {
    if (MEM_BlockRecord* const record = m_Unused) {
        m_Unused = record->newer;
        record->newer = nullptr;
        return record;
    }
    try {
        return &m_Records.emplace_back();
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

bool PagerCore::RefusesAllocation(std::uint64_t bytes) {
    const std::int64_t limit = m_Faults.refuse_above_bytes;
    return strikes(m_Faults.refuse_allocation) || bytes > kLargestBlock ||
           (limit > 0 && static_cast<std::int64_t>(bytes) > limit);
}

bool PagerCore::RefusesMapCall() {
    const Lock lock(m_Mutex);
    const bool refuses = strikes(m_Faults.refuse_map);
    m_RefusesMaps.store(m_Faults.refuse_map != 0, std::memory_order_relaxed);
    return refuses;
}

// Under the mutex: adds a mapping to a resident block. False when that maps too much.
bool PagerCore::Pin(Request& request) {
    MEM_BlockRecord& record = *request.record;
    if (!pin_mapped(record)) {
        const std::int64_t limit = m_Faults.refuse_mapped_above;
        if (limit > 0 && m_Statistics.mapped_bytes + record.bytes > limit) {
            return false;
        }
        m_Idle.Remove(record);
        ++m_Statistics.mapped_blocks;
        m_Statistics.mapped_bytes += record.bytes;
        record.mappings.store(1, std::memory_order_release);
    }
    m_Mappings.fetch_add(1, std::memory_order_relaxed);
    request.pinned = true;
    return true;
}

// Under the mutex: takes a mapping from a block. False when it has none.
bool PagerCore::Unpin(MEM_BlockRecord& record) {
    // Others may add mappings, and take all but the last, at the same time.
    while (!unpin_shared(record)) {
        std::int64_t count = 1;
        if (record.mappings.compare_exchange_strong(count, 0, std::memory_order_acq_rel)) {
            --m_Statistics.mapped_blocks;
            m_Statistics.mapped_bytes -= record.bytes;
            m_Idle.PushNewest(record);
            break;
        }
        if (count == 0) {
            return false;
        }
    }
    m_Mappings.fetch_sub(1, std::memory_order_relaxed);
    return true;
}

// Under the mutex: maps those blocks that are in memory. False when one cannot be.
bool PagerCore::MapResident(Request* requests, int n) {
    for (Request* request = requests; request != requests + n; ++request) {
        if (!is_current(*request) || (request->record->state == State::Resident && !Pin(*request))) {
            return false;
        }
    }
    return true;
}

bool PagerCore::MapSpilled(Lock& lock, Request* requests, int n) {
    for (Request* request = requests; request != requests + n; ++request) {
        while (!request->pinned) {
            WaitUntilSettled(lock, *request->record);
            if (!is_current(*request)) {
                return false;
            }
            const bool resident = request->record->state == State::Resident || Load(lock, *request->record);
            if (!resident || !Pin(*request)) {
                return false;
            }
        }
    }
    return true;
}

void PagerCore::WaitUntilSettled(Lock& lock, MEM_BlockRecord& record) {
    ++record.waiters;
    m_Settled.wait(lock, [&record] { return record.state != State::Spilling && record.state != State::Loading; });
    --record.waiters;
}

// Reads a spilled block back; it is idle then. False when there is no memory or the file cannot be read: the block
// stays where it is.
bool PagerCore::Load(Lock& lock, MEM_BlockRecord& record) {
    record.state = State::Loading;
    const std::int64_t bytes = record.bytes;
    const BlockMemory memory = TakeMemory(lock, bytes);
    bool succeeded = memory.address != nullptr;
    if (succeeded) {
        const bool fails = m_Faults.fail_spill_read != 0 && strikes(m_Faults.fail_spill_read);
        lock.unlock();
        succeeded = !fails && record.file->Read(memory.address, bytes, record.offset);
        if (succeeded) {
            record.file->Release(record.offset, bytes);
        } else {
            release_block_memory(memory);
            if (announce(kLogError, "PagerCore::Load", __LINE__)) {
                Tmr_LogFile::Log("Block %d cannot be read from the spill file\n", record.block.load());
            }
        }
        lock.lock();
    }

    if (succeeded) {
        record.memory = memory;
        record.file = nullptr;
        record.offset = -1;
        record.state = State::Resident;
        m_Statistics.spilled_bytes -= bytes;
        m_Idle.PushNewest(record);
    } else {
        record.state = State::Spilled;
        m_Statistics.resident_bytes -= memory.address != nullptr ? bytes : 0;
    }
    m_Settled.notify_all();
    return succeeded;
}

// Writes an idle block to the spill file and gives up its memory. It stays when it cannot be written, or when somebody
// asks for it meanwhile; false in the first case.
bool PagerCore::Evict(Lock& lock, MEM_BlockRecord& record) {
    m_Idle.Remove(record);
    record.state = State::Spilling;
    const std::int64_t bytes = record.bytes;
    m_SpillingBytes += bytes;
    const bool fails = m_Faults.fail_spill_write != 0 && strikes(m_Faults.fail_spill_write);

    lock.unlock();
    std::shared_ptr<SpillFile> file;
    std::int64_t offset = -1;
    const bool written = WriteOut(record, fails, file, offset);
    lock.lock();

    m_SpillingBytes -= bytes;
    m_Statistics.total_spilled_bytes += written ? bytes : 0;
    if (!written || record.waiters > 0) {
        record.state = State::Resident;
        m_Idle.PushNewest(record);
        m_Settled.notify_all();
        if (written) {
            file->Release(offset, bytes);
        }
        return written;
    }
    const BlockMemory memory = record.memory;
    record.memory = BlockMemory();
    record.file = std::move(file);
    record.offset = offset;
    record.state = State::Spilled;
    m_Statistics.resident_bytes -= bytes;
    m_Statistics.spilled_bytes += bytes;
    m_Settled.notify_all();
    lock.unlock();
    release_block_memory(memory);
    lock.lock();
    return true;
}

// The least recently used idle block that nobody is waiting for, or null.
MEM_BlockRecord* PagerCore::FindVictim() const {
    MEM_BlockRecord* victim = m_Idle.oldest;
    while (victim != nullptr && victim->waiters > 0) {
        victim = victim->newer;
    }
    return victim;
}

// Writes out idle blocks, least recently used first, until so many bytes more fit into the budget or nothing idle is
// left.
void PagerCore::MakeRoom(Lock& lock, std::int64_t needed_bytes) {
    while (m_Statistics.resident_bytes + needed_bytes > m_Budget) {
        // What other threads are writing out already counts as gone, but is waited for.
        const bool enough_on_its_way = m_Statistics.resident_bytes - m_SpillingBytes + needed_bytes <= m_Budget;
        MEM_BlockRecord* const victim = enough_on_its_way ? nullptr : FindVictim();
        if (victim != nullptr) {
            if (!Evict(lock, *victim)) {
                return;
            }
        } else if (m_SpillingBytes > 0 && needed_bytes > 0) {
            m_Settled.wait(lock);
        } else {
            return;
        }
    }
}

// Memory for a block, counted as resident from now on. Null, and nothing counted, when the operating system gives none
// even after everything idle was written out.
BlockMemory PagerCore::TakeMemory(Lock& lock, std::int64_t bytes) {
    MakeRoom(lock, bytes);
    m_Statistics.resident_bytes += bytes;
    m_Statistics.peak_resident_bytes = std::max(m_Statistics.peak_resident_bytes, m_Statistics.resident_bytes);
    lock.unlock();
    BlockMemory memory = allocate_block_memory(bytes);
    lock.lock();
    for (MEM_BlockRecord* victim = FindVictim(); memory.address == nullptr && victim != nullptr;
         victim = FindVictim()) {
        if (!Evict(lock, *victim)) {
            break;
        }
        memory = allocate_block_memory(bytes);
    }
    if (memory.address == nullptr) {
        m_Statistics.resident_bytes -= bytes;
    }
    return memory;
}

std::shared_ptr<SpillFile> PagerCore::CurrentFile() {
    const Lock lock(m_FileMutex);
    if (m_File == nullptr) {
        m_File = SpillFile::Open(m_SpillFolder);
    }
    return m_File;
}

// Without the mutex; the block is `spilling`, so nobody changes it. `fails` stands for a full disk. A failure is told
// once, until a write succeeds.
bool PagerCore::WriteOut(MEM_BlockRecord& record, bool fails, std::shared_ptr<SpillFile>& file, std::int64_t& offset) {
    try {
        file = CurrentFile();
        offset = file != nullptr && !fails ? file->Write(record.memory.address, record.bytes) : -1;
    } catch (const std::exception&) {
        offset = -1;
    }
    const bool written = offset >= 0;
    if (m_WritesFail.exchange(!written) == !written) {
        return written;
    }
    if (written && announce(kLogInformation, "PagerCore::WriteOut", __LINE__)) {
        Tmr_LogFile::Log("The spill file can be written again\n");
    } else if (!written && announce(kLogError, "PagerCore::WriteOut", __LINE__)) {
        Tmr_LogFile::Log("The spill file cannot be written: blocks stay in memory beyond the budget\n");
    }
    return written;
}

}  // namespace reference_host
