// Memory pager: every large buffer of the library is a pageable block, used only between Map and Unmap.
#pragma once

#include "host/host_export.h"

#include <cstddef>

class MEM_MemPager;

// The pager's record of a block (its layout is the pager's own business).
struct MEM_BlockRecord;

// A handle to one block. Copies refer to the same block; destroying a handle frees nothing.
class IP_HOST_API MEM_PagerInfo {
public:
    MEM_PagerInfo() = default;
    explicit MEM_PagerInfo(MEM_MemPager* pager) : m_Pager(pager) {}
    // The flag is reserved by the host; a copy always refers to the same block.
    MEM_PagerInfo(const MEM_PagerInfo& o, bool reserved);
    MEM_PagerInfo(const MEM_PagerInfo&) = default;
    MEM_PagerInfo& operator=(const MEM_PagerInfo&) = default;

    // Maps the block: 0 on success, non-zero when there is no block or the pager refuses. Mappings are counted.
    int Map();
    // Releases one mapping; 0 on success. One release too many is refused and logged.
    int Unmap();
    // Address of the mapped block, the same as long as it stays mapped; null while unmapped.
    void* Ptr() const;
    // Block number, or -1 when there is none (never allocated, refused, or freed through this handle).
    int Block() const { return m_Block; }
    // The pager's record, or null when there is no block.
    MEM_BlockRecord* GetMemInfoPtr() const { return m_Record; }

private:
    friend class MEM_MemPager;
    MEM_MemPager* m_Pager = nullptr;
    MEM_BlockRecord* m_Record = nullptr;
    int m_Block = -1;
};

// The process-wide pager. All operations may be called from any thread.
class IP_HOST_API MEM_MemPager {
public:
    static MEM_MemPager* GetHandleForMP();

    // Allocates a block and leaves it mapped once. Returns -1 when refused (info->Block() is then -1), else 0.
    // Flag 16 marks working memory of a frame (rasters, ray pages, brick layers); 0 is everything else.
    // The contents of a new block are not set.
    int Allocate(unsigned bytes, MEM_PagerInfo* info, int flags);
    int Allocate64(unsigned long long bytes, MEM_PagerInfo* info, int flags);  // the same beyond 4 GiB
    // Frees a block, mapped or not, and empties the handle. An empty handle is ignored.
    void Free(MEM_PagerInfo& info);

    // Maps n blocks, all or none: 0 on success. Null entries and empty handles are skipped.
    int MapMemPagerInfoVec(MEM_PagerInfo** infos, int n);
    // Releases one mapping of each of n blocks: 0 when all were mapped. The others are released all the same.
    int UnmapMemPagerInfoVec(MEM_PagerInfo** infos, int n);

private:
    MEM_MemPager();
    ~MEM_MemPager();
    MEM_MemPager(const MEM_MemPager&) = delete;
    MEM_MemPager& operator=(const MEM_MemPager&) = delete;
};
