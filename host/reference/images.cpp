#include "host/images.h"

#include <algorithm>
#include <atomic>
#include <new>
#include <utility>

namespace {

std::atomic<int> g_LastIdentity{0};

int next_identity() {
    return g_LastIdentity.fetch_add(1, std::memory_order_relaxed) + 1;
}

// The block of a slice, or null when it has none.
MEM_PagerInfo* block_of(const IP_Slice* slice) {
    MEM_PagerInfo* const block = slice != nullptr ? slice->GetData() : nullptr;
    return block != nullptr && block->Block() != -1 ? block : nullptr;
}

}  // namespace

IP_Slice::IP_Slice(MEM_PagerInfo* data, const PixelDataAttributes& attributes, int /*reserved*/)
    : m_Data(data), m_Attributes(attributes) {}

IP_Slice::~IP_Slice() {
    SetData(nullptr, false);
}

int IP_Slice::MapMemory() {
    return m_Data != nullptr ? m_Data->Map() : -1;
}

void IP_Slice::UnmapMemory() {
    if (m_Data != nullptr) {
        m_Data->Unmap();
    }
}

MEM_PagerInfo* IP_Slice::GetMappedData() const {
    return MappedPixels() != nullptr ? m_Data : nullptr;
}

void IP_Slice::SetData(MEM_PagerInfo* data, bool owns) {
    if (m_OwnsData && m_Data != nullptr && m_Data != data) {
        MEM_MemPager::GetHandleForMP()->Free(*m_Data);
        delete m_Data;
    }
    m_Data = data;
    m_OwnsData = owns;
}

void IP_Slice::SetID(const char* id) {
    m_ID = id != nullptr ? id : "";
}

void IP_Slice::SwapPixelDataWithSlice(IP_Slice& other) {
    std::swap(m_Data, other.m_Data);
    std::swap(m_OwnsData, other.m_OwnsData);
}

void* IP_Slice::MappedPixels() const {
    return m_Data != nullptr ? m_Data->Ptr() : nullptr;
}

bool IP_SliceVector::MapIPSliceVec(IP_Slice** slices, int count, MEM_PagerInfo** /*infos*/, bool /*reserved_a*/,
                                   bool /*reserved_b*/) {
    std::vector<MEM_PagerInfo*> blocks;
    try {
        blocks.reserve(static_cast<std::size_t>(std::max(count, 0)));
    } catch (const std::bad_alloc&) {
        return false;
    }
    for (int i = 0; slices != nullptr && i < count; ++i) {
        if (MEM_PagerInfo* const block = block_of(slices[i])) {
            blocks.push_back(block);
        }
    }
    return MEM_MemPager::GetHandleForMP()->MapMemPagerInfoVec(blocks.data(), static_cast<int>(blocks.size())) == 0;
}

void IP_SliceVector::UnMapIPSliceVec(IP_Slice** slices, int count, MEM_PagerInfo** /*infos*/, bool /*reserved*/) {
    // One by one: a release must not fail for lack of memory.
    for (int i = 0; slices != nullptr && i < count; ++i) {
        if (MEM_PagerInfo* const block = block_of(slices[i])) {
            block->Unmap();
        }
    }
}

IP_VolData::IP_VolData() : m_Identity(next_identity()) {}

IP_VolData::IP_VolData(IP_Box* box, int num_slices) : m_Identity(next_identity()) {
    if (box != nullptr) {
        m_Box = *box;
    }
    ResizeSlices(num_slices);
}

IP_VolData::IP_VolData(const IP_VolData& o)
    : m_Box(o.m_Box),
      m_Slices(o.m_Slices),
      m_OwnsSlices(false),
      m_FirstSliceInd(o.m_FirstSliceInd),
      m_Slope(o.m_Slope),
      m_Intercept(o.m_Intercept),
      m_Identity(next_identity()) {}

IP_VolData& IP_VolData::operator=(const IP_VolData& o) {
    if (this == &o) {
        return *this;
    }
    // Slices that both refer to stay with their owner.
    const bool keeps_own = m_OwnsSlices && !m_Slices.empty() && m_Slices == o.m_Slices;
    if (!keeps_own) {
        DeleteOwnedSlices();
        m_Slices = o.m_Slices;
        m_OwnsSlices = false;
    }
    m_Box = o.m_Box;
    m_FirstSliceInd = o.m_FirstSliceInd;
    m_Slope = o.m_Slope;
    m_Intercept = o.m_Intercept;
    m_Identity = next_identity();
    return *this;
}

IP_VolData::~IP_VolData() {
    DeleteOwnedSlices();
}

IP_Slice* IP_VolData::GetSlice(int i) const {
    return i >= 0 && i < GetNumberOfSlicePointers() ? m_Slices[static_cast<std::size_t>(i)] : nullptr;
}

void IP_VolData::SetSlice(IP_Slice* slice, int i) {
    if (i >= 0 && i < GetNumberOfSlicePointers()) {
        m_Slices[static_cast<std::size_t>(i)] = slice;
    }
}

void IP_VolData::DisconnectSlices() {
    std::fill(m_Slices.begin(), m_Slices.end(), nullptr);
}

void IP_VolData::GetRescaleTrans(double& slope, double& intercept) const {
    slope = m_Slope;
    intercept = m_Intercept;
}

void IP_VolData::SetRescaleTrans(double slope, double intercept) {
    m_Slope = slope;
    m_Intercept = intercept;
}

void IP_VolData::ResizeSlices(int n) {
    m_Slices.resize(static_cast<std::size_t>(std::max(n, 0)), nullptr);
}

void IP_VolData::DeleteOwnedSlices() {
    if (m_OwnsSlices) {
        for (IP_Slice* const slice : m_Slices) {
            delete slice;
        }
    }
    m_Slices.clear();
}
