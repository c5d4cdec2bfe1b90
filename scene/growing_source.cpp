#include "scene/growing_source.h"

#include "scene/error.h"
#include "scene/parallel.h"
#include "scene/slice_blocks.h"

#include <algorithm>

namespace scene {

namespace {

ImportedVolume WithoutVoxels(const ImportedVolume& layout) {
    ImportedVolume info = layout;
    info.voxels = VoxelBuffer();
    return info;
}

}  // namespace

// The finished volume: takes the blocks of a growing source over where they hold what the import says.
class GrowingSource::Whole : public VolumeSource {
public:
    Whole(ImportedVolume&& imported, GrowingSource& early) : VolumeSource(std::move(imported), WithoutSlices()) {
        const VoxelBuffer voxels = m_Info.voxels;
        m_Info.voxels = VoxelBuffer();
        const bool are_blocks_right = !m_Info.do_announced_slices_change && m_Info.dims == early.Info().dims;
        m_Info.do_announced_slices_change = false;  // nobody needs to know any more
        const std::string series = UniqueSeriesName();
        ForEachIndex(m_Info.dims[2], [&](int iz) {
            const std::string id = series + std::to_string(iz);
            if (are_blocks_right && early.HasSlice(iz)) {
                Volume()->SetSlice(Adopted(static_cast<IP_ShortSlice&>(*early.Volume()->GetSlice(iz)), id,
                                           m_StoredOffset - early.m_StoredOffset)
                                       .release(),
                                   iz);
                return;
            }
            StoreSlice(voxels, iz, id);
        });
    }

private:
    // A slice of this volume with the block of another one, whose values change by the offset.
    std::unique_ptr<IP_ShortSlice> Adopted(IP_ShortSlice& from, const std::string& id, int offset) const {
        auto slice = std::make_unique<IP_ShortSlice>(nullptr, SliceAttributes(), 0);
        slice->SetID(id.c_str());
        if (offset != 0) {
            if (from.MapMemory() != 0) {
                throw Error(ErrorKind::kFailed, "volume", "a slice cannot be brought back to memory",
                            "free memory and try again");
            }
            AddTo(from.GetMappedSlice(), SliceVoxels(), offset);
            from.UnmapMemory();
        }
        slice->SwapPixelDataWithSlice(from);
        return slice;
    }
};

GrowingSource::GrowingSource(const ImportedVolume& layout)
    : VolumeSource(WithoutVoxels(layout), WithoutSlices()), m_Voxels(layout.voxels), m_Series(UniqueSeriesName()) {
    // One block stands for all slices.
    const std::vector<std::int16_t> backdrop(SliceVoxels(), static_cast<std::int16_t>(m_Info.min_value));
    m_Backdrop = BlockOf(backdrop.data(), backdrop.size(), 0);
    m_IsMissing.assign(static_cast<std::size_t>(m_Info.dims[2]), 1);
    for (int iz = 0; iz < m_Info.dims[2]; ++iz) {
        auto slice = std::make_unique<IP_ShortSlice>(m_Backdrop.get(), SliceAttributes(), 0);
        slice->SetID((m_Series + "missing-" + std::to_string(iz)).c_str());
        Volume()->SetSlice(slice.release(), iz);
    }
}

void GrowingSource::Take(const std::vector<int>& slices) {
    // Make their blocks.
    std::vector<int> wanted;
    for (const int iz : slices) {
        if (iz >= 0 && iz < m_Info.dims[2] && !HasSlice(iz) &&
            std::find(wanted.begin(), wanted.end(), iz) == wanted.end()) {
            wanted.push_back(iz);
        }
    }
    m_Arrived.reserve(m_Arrived.size() + wanted.size());
    const auto take = [&](int i) {
        const int iz = wanted[static_cast<std::size_t>(i)];
        std::int16_t* const from = m_Voxels.data() + SliceVoxels() * static_cast<std::size_t>(iz);
        OwnedBlock block = BlockOf(from, SliceVoxels(), m_StoredOffset);
        IP_Slice* const slice = Volume()->GetSlice(iz);
        slice->SetID((m_Series + std::to_string(iz)).c_str());
        slice->SetData(block.release(), true);  // from here on nothing can fail
        m_IsMissing[static_cast<std::size_t>(iz)] = 0;
        if (!m_Info.do_announced_slices_change) {
            GiveBack(from, SliceVoxels() * 2);
        }
    };

    // What has come counts, also when memory for the rest is refused.
    const auto note = [&] {
        std::copy_if(wanted.begin(), wanted.end(), std::back_inserter(m_Arrived),
                     [this](int iz) { return HasSlice(iz); });
        m_HistogramKnown = false;
    };
    try {
        ForEachIndex(static_cast<int>(wanted.size()), take);
    } catch (...) {
        note();
        throw;
    }
    note();
}

std::unique_ptr<VolumeSource> GrowingSource::Finish(ImportedVolume&& imported) {
    m_Voxels = VoxelBuffer();
    return std::make_unique<Whole>(std::move(imported), *this);
}

}  // namespace scene
