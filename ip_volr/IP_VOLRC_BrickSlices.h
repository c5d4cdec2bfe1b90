// Access of the brick structure to a volume's slices.
#pragma once

#include "host/images.h"

#include <utility>
#include <vector>

namespace ip_volr {

// A set of slices, mapped in one call of the host and unmapped with the object. Null slices are allowed.
class MappedSlices {
public:
    explicit MappedSlices(std::vector<IP_Slice*> slices)
        : m_Slices(std::move(slices)),
          m_IsMapped(IP_SliceVector::MapIPSliceVec(m_Slices.data(), Count(), nullptr, false, false)) {}
    ~MappedSlices() {
        if (m_IsMapped) {
            IP_SliceVector::UnMapIPSliceVec(m_Slices.data(), Count(), nullptr, false);
        }
    }
    MappedSlices(const MappedSlices&) = delete;
    MappedSlices& operator=(const MappedSlices&) = delete;

    bool IsMapped() const { return m_IsMapped; }

private:
    int Count() const { return static_cast<int>(m_Slices.size()); }

    std::vector<IP_Slice*> m_Slices;
    bool m_IsMapped;
};

// Appends the volume's slices first to last; null where it has none.
inline void append_slices(const IP_VolData& volume, int first, int last, std::vector<IP_Slice*>& slices) {
    for (int z = first; z <= last; ++z) {
        slices.push_back(volume.GetSlice(z));
    }
}

// Mapped pixels of a slice of the given kind with rows of `width` voxels; null when there are none. A slice that states
// no size is taken at its volume's word.
template <typename SliceKind>
auto mapped_pixels(const IP_Slice* slice, int width, int height) {
    const auto* const typed = dynamic_cast<const SliceKind*>(slice);
    const PixelDataAttributes attributes = typed == nullptr ? PixelDataAttributes{} : typed->GetAttributes();
    const bool has_size = attributes.width > 0 && attributes.height > 0;
    const bool fits = !has_size || (attributes.width == width && attributes.height >= height);
    return typed != nullptr && fits ? typed->GetMappedSlice() : nullptr;
}

}  // namespace ip_volr
