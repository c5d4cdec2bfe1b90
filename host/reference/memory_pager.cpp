#include "host/memory_pager.h"

#include <new>
#include <vector>

#include "host/log.h"
#include "host/reference/pager_core.h"
#include "host/reference/settings.h"

namespace {

using reference_host::PagerCore;

void report_unbalanced_unmap(int block) {
    if (Tmr_LogFile::StoreParams("host/MEM_MemPager", "MEM_MemPager::UnmapMemPagerInfoVec", __LINE__, 3, 0, 0) != 0) {
        Tmr_LogFile::Log("Unmap of block %d, which is not mapped, is refused\n", block);
    }
}

// The blocks that an array of handles refers to, without empty ones.
std::vector<PagerCore::Request> collect_requests(MEM_PagerInfo** infos, int n) {
    std::vector<PagerCore::Request> requests;
    requests.reserve(infos != nullptr && n > 0 ? static_cast<std::size_t>(n) : 0);
    for (int i = 0; infos != nullptr && i < n; ++i) {
        if (infos[i] != nullptr && infos[i]->GetMemInfoPtr() != nullptr) {
            requests.push_back({infos[i]->GetMemInfoPtr(), infos[i]->Block()});
        }
    }
    return requests;
}

int unmap_requests(PagerCore::Request* requests, int n) {
    const int unbalanced = PagerCore::Instance().Unmap(requests, n);
    if (unbalanced == n) {
        return 0;
    }
    report_unbalanced_unmap(requests[unbalanced].block);
    return -1;
}

}  // namespace

MEM_PagerInfo::MEM_PagerInfo(const MEM_PagerInfo& o, bool /*reserved*/) : MEM_PagerInfo(o) {}

int MEM_PagerInfo::Map() {
    PagerCore::Request request{m_Record, m_Block};
    return m_Record != nullptr && PagerCore::Instance().Map(&request, 1) ? 0 : -1;
}

int MEM_PagerInfo::Unmap() {
    PagerCore::Request request{m_Record, m_Block};
    return m_Record != nullptr ? unmap_requests(&request, 1) : -1;
}

void* MEM_PagerInfo::Ptr() const {
    return m_Record != nullptr ? PagerCore::Address(*m_Record, m_Block) : nullptr;
}

MEM_MemPager::MEM_MemPager() = default;
MEM_MemPager::~MEM_MemPager() = default;

MEM_MemPager* MEM_MemPager::GetHandleForMP() {
    static MEM_MemPager instance;
    return &instance;
}

int MEM_MemPager::Allocate(unsigned bytes, MEM_PagerInfo* info, int flags) {
    return Allocate64(bytes, info, flags);
}

int MEM_MemPager::Allocate64(unsigned long long bytes, MEM_PagerInfo* info, int /*flags*/) {
    if (info == nullptr) {
        return -1;
    }
    *info = MEM_PagerInfo(this);
    try {
        info->m_Record = PagerCore::Instance().Allocate(bytes);
    } catch (const std::bad_alloc&) {
        return -1;  // the first use makes the pager
    }
    if (info->m_Record == nullptr) {
        return -1;
    }
    info->m_Block = info->m_Record->block.load();
    return 0;
}

void MEM_MemPager::Free(MEM_PagerInfo& info) {
    if (info.m_Record != nullptr) {
        PagerCore::Instance().Free({info.m_Record, info.m_Block});
    }
    info.m_Record = nullptr;
    info.m_Block = -1;
}

int MEM_MemPager::MapMemPagerInfoVec(MEM_PagerInfo** infos, int n) {
    try {
        std::vector<PagerCore::Request> requests = collect_requests(infos, n);
        return PagerCore::Instance().Map(requests.data(), static_cast<int>(requests.size())) ? 0 : -1;
    } catch (const std::bad_alloc&) {
        return -1;
    }
}

int MEM_MemPager::UnmapMemPagerInfoVec(MEM_PagerInfo** infos, int n) {
    // One by one: a release must not fail for lack of memory.
    int result = 0;
    for (int i = 0; infos != nullptr && i < n; ++i) {
        if (infos[i] != nullptr && infos[i]->m_Record != nullptr && infos[i]->Unmap() != 0) {
            result = -1;
        }
    }
    return result;
}

namespace reference_host {

PagerStatistics GetPagerStatistics() {
    return PagerCore::Instance().Statistics();
}

void ResetPagerPeaks() {
    PagerCore::Instance().ResetPeaks();
}

void SetMemoryBudget(std::int64_t bytes) {
    PagerCore::Instance().SetBudget(bytes);
}

std::int64_t GetMemoryBudget() {
    return PagerCore::Instance().Budget();
}

void SetSpillFolder(const std::string& folder) {
    PagerCore::Instance().SetSpillFolder(folder);
}

void SetPagerFaults(const PagerFaults& faults) {
    PagerCore::Instance().SetFaults(faults);
}

}  // namespace reference_host
