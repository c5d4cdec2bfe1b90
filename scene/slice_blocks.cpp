#include "scene/slice_blocks.h"

#include "scene/error.h"

#include <sys/mman.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <cstring>

namespace scene {

int AsSigned(ImportedVolume& info) {
    constexpr int kOffset = -32768;
    if (info.is_signed || info.bits_stored < 16) {
        return 0;
    }
    info.is_signed = true;
    info.min_value += kOffset;
    info.max_value += kOffset;
    info.rescale_intercept -= kOffset * info.rescale_slope;
    if (info.padding_value) {
        *info.padding_value += kOffset;
    }
    return kOffset;
}

std::string UniqueSeriesName() {
    static std::atomic<unsigned> counter{0};
    return "volr-" + std::to_string(counter.fetch_add(1)) + "-";
}

void GiveBack(void* first, std::size_t bytes) {
    const auto page = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
    const std::uintptr_t from = (reinterpret_cast<std::uintptr_t>(first) + page - 1) / page * page;
    const std::uintptr_t to = (reinterpret_cast<std::uintptr_t>(first) + bytes) / page * page;
    if (from >= to) {
        return;
    }
    void* const address = reinterpret_cast<void*>(from);
    // Shared memory is freed by the first, private memory by the second; the other one refuses.
    if (::madvise(address, to - from, MADV_REMOVE) != 0) {
        ::madvise(address, to - from, MADV_DONTNEED);
    }
}

void AddTo(std::int16_t* values, std::size_t count, int offset) {
    if (offset != 0) {
        std::for_each(values, values + count, [offset](std::int16_t& v) { v = static_cast<std::int16_t>(v + offset); });
    }
}

void FreeBlock::operator()(MEM_PagerInfo* block) const {
    MEM_MemPager::GetHandleForMP()->Free(*block);
    delete block;
}

OwnedBlock NewBlock(unsigned long long bytes, const char* subject, const char* why) {
    OwnedBlock block(new MEM_PagerInfo);
    if (MEM_MemPager::GetHandleForMP()->Allocate64(bytes, block.get(), 0) == -1) {
        throw Error(ErrorKind::kFailed, subject, why, "raise --memory-budget or free disk space");
    }
    return block;
}

OwnedBlock BlockOf(const std::int16_t* values, std::size_t count, int offset) {
    OwnedBlock block = NewBlock(count * 2, "volume", "no memory for its slices");
    // A new block comes mapped; the copy ends that mapping.
    auto* const to = static_cast<std::int16_t*>(block->Ptr());
    std::memcpy(to, values, count * 2);
    AddTo(to, count, offset);
    block->Unmap();
    return block;
}

std::unique_ptr<IP_ShortSlice> SliceOf(OwnedBlock block, const PixelDataAttributes& attributes, const std::string& id) {
    auto slice = std::make_unique<IP_ShortSlice>(nullptr, attributes, 0);
    slice->SetID(id.c_str());
    slice->SetData(block.release(), true);
    return slice;
}

}  // namespace scene
