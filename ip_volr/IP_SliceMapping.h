// Mappings of slices that end with a scope.
#pragma once

#include "host/images.h"

namespace ip_volr {

// One slice, mapped for the lifetime of the object. Whatever block the slice then has is unmapped at the end: a slice
// that exchanged its block with another mapped one gives back that one's mapping.
class ScopedSliceMapping {
public:
    explicit ScopedSliceMapping(IP_Slice* slice)
        : m_Slice(slice != nullptr && slice->MapMemory() == 0 ? slice : nullptr) {}
    ~ScopedSliceMapping() {
        if (m_Slice != nullptr) {
            m_Slice->UnmapMemory();
        }
    }
    ScopedSliceMapping(const ScopedSliceMapping&) = delete;
    ScopedSliceMapping& operator=(const ScopedSliceMapping&) = delete;

    bool ok() const { return m_Slice != nullptr; }

private:
    IP_Slice* const m_Slice;
};

// A run of slices, mapped in one pager call.
class ScopedSliceRunMapping {
public:
    ScopedSliceRunMapping(IP_Slice** slices, int count)
        : m_Slices(slices), m_Count(count), m_Ok(IP_SliceVector::MapIPSliceVec(slices, count, nullptr, false, false)) {}
    ~ScopedSliceRunMapping() {
        if (m_Ok) {
            IP_SliceVector::UnMapIPSliceVec(m_Slices, m_Count, nullptr, false);
        }
    }
    ScopedSliceRunMapping(const ScopedSliceRunMapping&) = delete;
    ScopedSliceRunMapping& operator=(const ScopedSliceRunMapping&) = delete;

    bool ok() const { return m_Ok; }

private:
    IP_Slice** const m_Slices;
    const int m_Count;
    const bool m_Ok;
};

}  // namespace ip_volr
