#include "host/reference/pager_memory.h"

#include "host/reference/block_slabs.h"

#include <algorithm>
#include <atomic>
#include <deque>
#include <fstream>
#include <iterator>
#include <mutex>
#include <new>
#include <string>

#if defined(_WIN32)
#include <windows.h>
#else
#include <sys/mman.h>
#include <unistd.h>
#endif

namespace reference_host {

namespace {

constexpr std::size_t kCacheLine = 64;
constexpr std::size_t kLinesPerPage = 64;
constexpr std::size_t kPage = kCacheLine * kLinesPerPage;
constexpr std::size_t kHugePage = std::size_t{2} << 20;
constexpr std::int64_t kSmallBlock = std::int64_t{32} * 1024;  // up to this size the heap is cheaper and packs better

// Blocks below this length are carved from slabs. Address sanitizers see late use only of memory that is given back.
#if defined(_WIN32) || defined(__SANITIZE_ADDRESS__)
constexpr std::size_t kLongestSlabBlock = 0;
#else
constexpr std::size_t kLongestSlabBlock = kHugePage;
#endif

// Working memory that each frame asks for and gives back would cost a page fault for every 4 KiB of it.
#if defined(__has_feature)
#define HAS_FEATURE(feature) __has_feature(feature)
#else
#define HAS_FEATURE(feature) 0
#endif
#if defined(__SANITIZE_ADDRESS__) || HAS_FEATURE(address_sanitizer)
constexpr std::size_t kMostKept = 0;  // memory that is given back is gone, so that late use is noticed
#else
constexpr std::size_t kMostKept = std::size_t{32} << 20;  // all together
#endif
constexpr std::size_t kMostKeptEach = std::size_t{8} << 20;

// Cache line of the page at which the next block begins. Neighbours in time lie 17 lines apart, and 64 blocks use every
// line once.
std::size_t next_line() {
    static std::atomic<unsigned> count{0};
    return (std::size_t{count.fetch_add(1, std::memory_order_relaxed)} * 17) % kLinesPerPage;
}

#if defined(_WIN32)

void* map_pages(std::size_t length) {
    return VirtualAlloc(nullptr, length, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
}

void unmap_pages(void* base, std::size_t /*length*/) {
    VirtualFree(base, 0, MEM_RELEASE);
}

void drop_pages(void* /*base*/, std::size_t /*length*/) {}

bool has_small_pages() {
    return false;
}

void populate_pages(void* /*base*/, std::size_t /*length*/) {}

#else

void* map_anonymous(std::size_t length, int more_flags) {
    void* const base = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | more_flags, -1, 0);
    return base == MAP_FAILED ? nullptr : base;
}

// Pages aligned so that huge ones fit; what sticks out at both ends is given back.
void* map_huge_pages(std::size_t length) {
    char* const base = static_cast<char*>(map_anonymous(length + kHugePage, 0));
    if (base == nullptr) {
        return nullptr;
    }
    const std::size_t misaligned = reinterpret_cast<std::uintptr_t>(base) % kHugePage;
    const std::size_t before = misaligned == 0 ? 0 : kHugePage - misaligned;
    if (before > 0) {
        munmap(base, before);
    }
    munmap(base + before + length, kHugePage - before);
#if defined(MADV_HUGEPAGE)
    madvise(base + before, length, MADV_HUGEPAGE);
#endif
    return base + before;
}

void* map_pages(std::size_t length) {
    if (length >= kHugePage) {
        void* const base = map_huge_pages(length);
        return base != nullptr ? base : map_anonymous(length, 0);
    }
    // All pages at once: whoever asks for a block fills it, and a fault for each page would cost several times as much.
#if defined(MAP_POPULATE)
    return map_anonymous(length, MAP_POPULATE);
#else
    return map_anonymous(length, 0);
#endif
}

void unmap_pages(void* base, std::size_t length) {
    munmap(base, length);
}

void drop_pages(void* base, std::size_t length) {
    madvise(base, length, MADV_DONTNEED);
}

bool has_huge_pages() {
    std::ifstream file("/sys/kernel/mm/transparent_hugepage/enabled");
    std::string text;
    return std::getline(file, text) && text.find("[never]") == std::string::npos;
}

bool has_small_pages() {
    static const bool small = !has_huge_pages();
    return small;
}

// Where there are only small pages, brings in all of a block at once: a fault for each would cost several times as
// much. Huge pages come when they are written.
void populate_pages([[maybe_unused]] void* base, [[maybe_unused]] std::size_t length) {
#if defined(MADV_POPULATE_WRITE)
    madvise(base, length, MADV_POPULATE_WRITE);
#endif
}

// The number at the start of a file, or `otherwise` when there is none ("max" means no limit).
std::int64_t read_number(const char* path, std::int64_t otherwise) {
    std::ifstream file(path);
    std::int64_t number = 0;
    return file >> number && number > 0 ? number : otherwise;
}

#endif

// Mappings that were given back and wait for a block of the same length.
class KeptMappings {
public:
    static KeptMappings& Instance() {
        static KeptMappings* const instance = new KeptMappings;
        return *instance;
    }

    void* Take(std::size_t length) {
        const std::lock_guard<std::mutex> lock(m_Mutex);
        const auto found = std::find_if(m_Mappings.rbegin(), m_Mappings.rend(),
                                        [length](const Mapping& mapping) { return mapping.length == length; });
        if (found == m_Mappings.rend()) {
            return nullptr;
        }
        void* const base = found->base;
        m_Mappings.erase(std::next(found).base());
        m_Bytes -= length;
        return base;
    }

    // Keeps a mapping, in the place of the oldest ones if need be.
    void Put(void* base, std::size_t length) {
        if (length > kMostKeptEach || kMostKept == 0) {
            unmap_pages(base, length);
            return;
        }
        const std::lock_guard<std::mutex> lock(m_Mutex);
        while (m_Bytes + length > kMostKept) {
            DropOldest();
        }
        try {
            m_Mappings.push_back({base, length});
            m_Bytes += length;
        } catch (const std::bad_alloc&) {
            unmap_pages(base, length);
        }
    }

    // Gives everything back; false when there was nothing.
    bool Clear() {
        const std::lock_guard<std::mutex> lock(m_Mutex);
        const bool had_some = !m_Mappings.empty();
        while (!m_Mappings.empty()) {
            DropOldest();
        }
        return had_some;
    }

private:
    struct Mapping {
        void* base;
        std::size_t length;
    };

    void DropOldest() {
        unmap_pages(m_Mappings.front().base, m_Mappings.front().length);
        m_Bytes -= m_Mappings.front().length;
        m_Mappings.pop_front();
    }

    std::mutex m_Mutex;
    std::deque<Mapping> m_Mappings;  // oldest first
    std::size_t m_Bytes = 0;
};

BlockSlabs& slabs() {
    static BlockSlabs* const instance = new BlockSlabs({map_pages, unmap_pages, drop_pages}, kMostKept);
    return *instance;
}

// Everything that waits for another use goes back to the system; false when there was nothing.
bool give_back_kept() {
    const bool had_mappings = KeptMappings::Instance().Clear();
    return slabs().Clear() || had_mappings;
}

void* find_pages(std::size_t length) {
    KeptMappings& kept = KeptMappings::Instance();
    void* base = length <= kMostKeptEach ? kept.Take(length) : nullptr;
    if (base == nullptr) {
        base = map_pages(length);
    }
    if (base == nullptr && give_back_kept()) {
        base = map_pages(length);
    }
    return base;
}

void* find_in_slab(std::size_t length, BlockSlabs::Slab** slab) {
    const bool populate = has_small_pages();  // reads a file the first time, which takes memory
    void* base = slabs().Take(length, slab);
    if (base == nullptr && give_back_kept()) {
        base = slabs().Take(length, slab);
    }
    if (base != nullptr && populate) {
        populate_pages(base, length);
    }
    return base;
}

}  // namespace

BlockMemory allocate_block_memory(std::int64_t bytes) try {
    BlockMemory memory;
    if (bytes <= kSmallBlock) {
        const std::size_t size = static_cast<std::size_t>(std::max<std::int64_t>(bytes, 1));
        memory.base = ::operator new (size, std::align_val_t{kCacheLine}, std::nothrow);
        memory.address = memory.base;
        return memory;
    }
    // Room for any first line, so that equal blocks have equal lengths.
    const std::size_t first = next_line() * kCacheLine;
    memory.length = (static_cast<std::size_t>(bytes) + (kPage - kCacheLine) + kPage - 1) / kPage * kPage;
    memory.base =
        memory.length < kLongestSlabBlock ? find_in_slab(memory.length, &memory.slab) : find_pages(memory.length);
    memory.address = memory.base != nullptr ? static_cast<char*>(memory.base) + first : nullptr;
    return memory;
} catch (const std::bad_alloc&) {
    return BlockMemory();  // the records that blocks need beside their pages
}

void release_block_memory(const BlockMemory& memory) {
    if (memory.length == 0) {
        ::operator delete (memory.base, std::align_val_t{kCacheLine});
    } else if (memory.slab != nullptr) {
        slabs().Put(memory.slab, memory.base);
    } else if (memory.base != nullptr) {
        KeptMappings::Instance().Put(memory.base, memory.length);
    }
}

std::int64_t machine_memory_bytes() {
#if defined(_WIN32)
    MEMORYSTATUSEX status{};
    status.dwLength = sizeof status;
    return GlobalMemoryStatusEx(&status) != 0 ? static_cast<std::int64_t>(status.ullTotalPhys) : std::int64_t{4} << 30;
#else
    const std::int64_t machine = static_cast<std::int64_t>(sysconf(_SC_PHYS_PAGES)) * sysconf(_SC_PAGESIZE);
    const std::int64_t container = std::min(read_number("/sys/fs/cgroup/memory.max", machine),
                                            read_number("/sys/fs/cgroup/memory/memory.limit_in_bytes", machine));
    return std::min(machine, container);
#endif
}

}  // namespace reference_host
