#include "host/memory_pager.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <mutex>
#include <new>

#include "host/log.h"
#include "host/reference/settings.h"

struct MEM_BlockRecord {
    void* address = nullptr;
    std::int64_t bytes = 0;
    std::int64_t mappings = 0;
};

namespace {

struct State {
    std::mutex mutex;
    reference_host::PagerStatistics statistics;
    reference_host::PagerFaults faults;
    std::int64_t budget = 0;
    int last_block = 0;
};

State& state() {
    static State* const instance = new State;
    return *instance;
}

// Counts down to a fault; true when it strikes.
bool strikes(std::int64_t& countdown) {
    return countdown > 0 && --countdown == 0;
}

bool map_locked(State& s, MEM_BlockRecord& record) {
    const std::int64_t limit = s.faults.refuse_mapped_above;
    if (record.mappings == 0) {
        if (limit > 0 && s.statistics.mapped_bytes + record.bytes > limit) {
            return false;
        }
        ++s.statistics.mapped_blocks;
        s.statistics.mapped_bytes += record.bytes;
    }
    ++record.mappings;
    ++s.statistics.mappings;
    ++s.statistics.total_maps;
    return true;
}

bool unmap_locked(State& s, MEM_BlockRecord& record) {
    if (record.mappings == 0) {
        return false;
    }
    --record.mappings;
    --s.statistics.mappings;
    if (record.mappings == 0) {
        --s.statistics.mapped_blocks;
        s.statistics.mapped_bytes -= record.bytes;
    }
    return true;
}

void report_unbalanced_unmap(int block) {
    if (Tmr_LogFile::StoreParams("host/MEM_MemPager", "MEM_PagerInfo::Unmap", __LINE__, 3, 0, 0) != 0) {
        Tmr_LogFile::Log("Block %d is not mapped\n", block);
    }
}

}  // namespace

MEM_PagerInfo::MEM_PagerInfo(const MEM_PagerInfo& o, bool /*reserved*/) : MEM_PagerInfo(o) {}

int MEM_PagerInfo::Map() {
    MEM_PagerInfo* const self = this;
    return m_Record == nullptr
               ? -1
               : MEM_MemPager::GetHandleForMP()->MapMemPagerInfoVec(const_cast<MEM_PagerInfo**>(&self), 1);
}

int MEM_PagerInfo::Unmap() {
    MEM_PagerInfo* self = this;
    return m_Record == nullptr ? -1 : MEM_MemPager::GetHandleForMP()->UnmapMemPagerInfoVec(&self, 1);
}

void* MEM_PagerInfo::Ptr() const {
    if (m_Record == nullptr) {
        return nullptr;
    }
    const std::lock_guard<std::mutex> lock(state().mutex);
    return m_Record->mappings > 0 ? m_Record->address : nullptr;
}

MEM_MemPager::MEM_MemPager() = default;
MEM_MemPager::~MEM_MemPager() = default;

MEM_MemPager* MEM_MemPager::GetHandleForMP() {
    static MEM_MemPager* const instance = new MEM_MemPager;
    return instance;
}

int MEM_MemPager::Allocate(unsigned bytes, MEM_PagerInfo* info, int flags) {
    return Allocate64(bytes, info, flags);
}

int MEM_MemPager::Allocate64(unsigned long long bytes, MEM_PagerInfo* info, int /*flags*/) {
    if (info == nullptr) {
        return -1;
    }
    info->m_Pager = this;
    info->m_Record = nullptr;
    info->m_Block = -1;
    State& s = state();
    const std::lock_guard<std::mutex> lock(s.mutex);
    ++s.statistics.total_allocations;
    const std::int64_t limit = s.faults.refuse_above_bytes;
    if (strikes(s.faults.refuse_allocation) || bytes > (1ULL << 46) ||
        (limit > 0 && static_cast<std::int64_t>(bytes) > limit)) {
        return -1;
    }
    void* const address = ::operator new (std::max<std::size_t>(bytes, 1), std::align_val_t{64}, std::nothrow);
    MEM_BlockRecord* const record = address != nullptr ? new (std::nothrow) MEM_BlockRecord : nullptr;
    if (record == nullptr) {
        ::operator delete (address, std::align_val_t{64});
        return -1;
    }
    record->address = address;
    record->bytes = static_cast<std::int64_t>(bytes);
    if (!map_locked(s, *record)) {
        ::operator delete (address, std::align_val_t{64});
        delete record;
        return -1;
    }
    ++s.statistics.blocks;
    s.statistics.allocated_bytes += record->bytes;
    s.statistics.resident_bytes += record->bytes;
    s.statistics.peak_resident_bytes = std::max(s.statistics.peak_resident_bytes, s.statistics.resident_bytes);
    info->m_Record = record;
    info->m_Block = s.last_block++;
    return 0;
}

void MEM_MemPager::Free(MEM_PagerInfo& info) {
    MEM_BlockRecord* const record = info.m_Record;
    info.m_Record = nullptr;
    info.m_Block = -1;
    if (record == nullptr) {
        return;
    }
    State& s = state();
    const std::lock_guard<std::mutex> lock(s.mutex);
    while (unmap_locked(s, *record)) {
    }
    --s.statistics.blocks;
    s.statistics.allocated_bytes -= record->bytes;
    s.statistics.resident_bytes -= record->bytes;
    ::operator delete (record->address, std::align_val_t{64});
    delete record;
}

int MEM_MemPager::MapMemPagerInfoVec(MEM_PagerInfo** infos, int n) {
    State& s = state();
    const std::lock_guard<std::mutex> lock(s.mutex);
    if (strikes(s.faults.refuse_map)) {
        return -1;
    }
    for (int i = 0; infos != nullptr && i < n; ++i) {
        if (infos[i] == nullptr || infos[i]->m_Record == nullptr) {
            continue;
        }
        if (!map_locked(s, *infos[i]->m_Record)) {
            while (--i >= 0) {
                if (infos[i] != nullptr && infos[i]->m_Record != nullptr) {
                    unmap_locked(s, *infos[i]->m_Record);
                }
            }
            return -1;
        }
    }
    return 0;
}

int MEM_MemPager::UnmapMemPagerInfoVec(MEM_PagerInfo** infos, int n) {
    int result = 0;
    for (int i = 0; infos != nullptr && i < n; ++i) {
        if (infos[i] == nullptr || infos[i]->m_Record == nullptr) {
            continue;
        }
        bool balanced = false;
        {
            State& s = state();
            const std::lock_guard<std::mutex> lock(s.mutex);
            balanced = unmap_locked(s, *infos[i]->m_Record);
        }
        if (!balanced) {
            report_unbalanced_unmap(infos[i]->m_Block);
            result = -1;
        }
    }
    return result;
}

namespace reference_host {

PagerStatistics GetPagerStatistics() {
    const std::lock_guard<std::mutex> lock(state().mutex);
    return state().statistics;
}

void ResetPagerPeaks() {
    const std::lock_guard<std::mutex> lock(state().mutex);
    state().statistics.peak_resident_bytes = state().statistics.resident_bytes;
}

void SetMemoryBudget(std::int64_t bytes) {
    const std::lock_guard<std::mutex> lock(state().mutex);
    state().budget = bytes;
}

std::int64_t GetMemoryBudget() {
    const std::lock_guard<std::mutex> lock(state().mutex);
    return state().budget;
}

void SetSpillFolder(const std::string& /*folder*/) {}

void SetPagerFaults(const PagerFaults& faults) {
    const std::lock_guard<std::mutex> lock(state().mutex);
    state().faults = faults;
}

}  // namespace reference_host
