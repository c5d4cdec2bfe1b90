#include "ip_volr/IP_VolDataAccess.h"

#include <algorithm>

namespace {

// Slices kept mapped on either side of the one that made the range move.
constexpr int kHalfRange = 50;
constexpr int kWidestRange = 2 * kHalfRange + 1;

}  // namespace

slice_mapper_stage::~slice_mapper_stage() {
    release();
}

void slice_mapper_stage::attach(IP_VolData* volume) {
    int dims[3] = {0, 0, 0};
    if (volume != nullptr) {
        volume->GetBox()->GetDims(dims);
        // A volume may hold fewer slices than its box promises: the missing ones do not exist for the range.
        dims[2] = std::min(dims[2], volume->GetNumberOfSlicePointers());
    }
    attach(nullptr, dims[0], dims[1], dims[2]);
    m_Volume = volume;
}

void slice_mapper_stage::attach(IP_Slice** slices, int width, int height, int depth) {
    release();
    m_Volume = nullptr;
    m_Slices = slices;
    m_Width = width;
    m_Height = height;
    m_Depth = depth;
}

IP_Slice* slice_mapper_stage::slice(int k) const {
    if (k < 0 || k >= m_Depth) {
        return nullptr;
    }
    if (m_Volume != nullptr) {
        return m_Volume->GetSlice(k);
    }
    return m_Slices != nullptr ? m_Slices[k] : nullptr;
}

void slice_mapper_stage::_map_slices(int first, int last) {
    if (last < first) {
        return;
    }
    IP_Slice** const slices = m_Volume != nullptr ? m_Volume->GetSlices() : m_Slices;
    if (slices == nullptr || !IP_SliceVector::MapIPSliceVec(slices + first, last - first + 1, nullptr, false, false)) {
        throw map_failure_exception("Mapping failed in slice_mapper_stage::_map_slices()");
    }
}

void slice_mapper_stage::_unmap_slices(int first, int last) {
    if (last < first) {
        return;
    }
    // In one call for the ranges of typed access. The list lies on the stack: a release must not fail for lack of
    // memory.
    MEM_PagerInfo* blocks[kWidestRange];
    int num_blocks = 0;
    for (int k = first; k <= last; ++k) {
        if (const IP_Slice* const s = slice(k)) {
            blocks[num_blocks++] = s->GetData();
        }
        if (num_blocks == kWidestRange || k == last) {
            MEM_MemPager::GetHandleForMP()->UnmapMemPagerInfoVec(blocks, num_blocks);
            num_blocks = 0;
        }
    }
}

void slice_mapper_stage::move_mapped_range(int first, int last) {
    const bool overlap = last >= m_FirstMapped && m_LastMapped >= first;
    if (last < first || !overlap) {
        release();
        _map_slices(first, last);
        if (last >= first) {
            m_FirstMapped = first;
            m_LastMapped = last;
        }
        return;
    }

    // Drop what the new range does not hold.
    if (m_FirstMapped < first) {
        _unmap_slices(m_FirstMapped, std::min(first - 1, m_LastMapped));
        m_FirstMapped = first;
    }
    if (m_LastMapped > last) {
        _unmap_slices(last + 1, m_LastMapped);
        m_LastMapped = last;
    }

    // Add what is new, keeping the range true after each step in case the next one throws.
    _map_slices(first, m_FirstMapped - 1);
    m_FirstMapped = first;
    _map_slices(m_LastMapped + 1, last);
    m_LastMapped = last;
}

void slice_mapper_stage::release() {
    _unmap_slices(m_FirstMapped, m_LastMapped);
    m_FirstMapped = 0;
    m_LastMapped = -1;
}

namespace {

// A slice of another size would be read beyond its end.
void require_size(const IP_Slice& slice, int width, int height) {
    if (slice.GetAttributes().width != width || slice.GetAttributes().height != height) {
        throw invalid_argument_exception("Error: slice of another size than its volume in voldata_manager!");
    }
}

}  // namespace

IP_Slice* voldata_manager::slice_in_range(int k, const char* missing) {
    if (k < first_mapped() || k > last_mapped()) {
        move_mapped_range(std::max(k - kHalfRange, 0), std::min(depth() - 1, k + kHalfRange));
    }
    IP_Slice* const s = slice(k);
    if (s == nullptr) {
        throw invalid_argument_exception(missing);
    }
    return s;
}

const short* voldata_manager::get_short_ptr(int k) {
    IP_Slice* const s = slice_in_range(k, "Error: slice is NULL in voldata_manager::get_short_ptr()!");
    const auto* const typed = dynamic_cast<const IP_ShortSlice*>(s);
    if (typed == nullptr) {
        throw invalid_type_exception(
            "Error while converting slice to IP_ShortSlice in voldata_manager::get_short_ptr()!");
    }
    const short* const pixels = typed->GetMappedSlice();
    if (pixels == nullptr) {
        throw invalid_argument_exception("Slice is not mapped in voldata_manager::get_short_ptr()!");
    }
    require_size(*s, width(), height());
    return pixels;
}

const unsigned char* voldata_manager::get_tisind_ptr(int k) {
    IP_Slice* const s = slice_in_range(k, "Error: slice is NULL in voldata_manager::get_tisind_ptr()!");
    const auto* const typed = dynamic_cast<const IP_TisIndSlice*>(s);
    if (typed == nullptr) {
        throw invalid_type_exception(
            "Error while converting slice to IP_TisIndSlice in voldata_manager::get_tisind_ptr()!");
    }
    const unsigned char* const indices = typed->GetMappedSlice();
    if (indices == nullptr) {
        throw invalid_argument_exception("Slice is not mapped in voldata_manager::get_tisind_ptr()!");
    }
    require_size(*s, width(), height());
    return indices;
}
