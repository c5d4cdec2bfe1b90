// Tissues as the engines take them: index slices and masks.
#include "scene/error.h"
#include "scene/parallel.h"
#include "scene/slice_blocks.h"
#include "scene/tissues.h"
#include "scene/volume_source.h"

#include <algorithm>
#include <atomic>
#include <cstring>

namespace scene {

namespace {

// A slice over a new block of the pager, which it owns. The block is mapped; whoever filled it ends that.
template <class Slice>
std::unique_ptr<Slice> NewSlice(const PixelDataAttributes& attributes, unsigned long long bytes) {
    OwnedBlock block = NewBlock(bytes, "labels", "no memory for the tissues");
    auto slice = std::make_unique<Slice>(nullptr, attributes, 0);
    slice->SetData(block.release(), true);
    return slice;
}

std::string UniqueName(const char* what) {
    static std::atomic<unsigned> counter{0};
    return what + std::to_string(counter.fetch_add(1)) + "-";
}

// Two voxels a byte, low nibble first, rows without gaps.
void PackIndices(const std::uint16_t* labels, std::size_t count, const std::uint8_t* index_of_label,
                 unsigned char* bytes) {
    // Labels come in runs: a pair like the one before needs no look-up.
    std::uint32_t last_pair = 0;
    auto last_byte = static_cast<unsigned char>(index_of_label[0] | index_of_label[0] << 4);
    for (std::size_t i = 0; i + 1 < count; i += 2) {
        std::uint32_t pair;
        std::memcpy(&pair, labels + i, sizeof pair);
        if (pair != last_pair) {
            last_pair = pair;
            last_byte = static_cast<unsigned char>(index_of_label[labels[i]] | index_of_label[labels[i + 1]] << 4);
        }
        bytes[i / 2] = last_byte;
    }
    if (count % 2 != 0) {
        bytes[count / 2] = static_cast<unsigned char>(index_of_label[labels[count - 1]] | TissuePlan::kRest << 4);
    }
}

std::size_t SliceVoxels(const std::array<int, 3>& dims) {
    return static_cast<std::size_t>(dims[0]) * static_cast<std::size_t>(dims[1]);
}

struct RowRun {
    int row;
    IP_ListVol::Run run;
};

// The runs of hidden voxels of a slice.
void FindRuns(const std::uint16_t* labels, int width, int height, const std::vector<std::uint8_t>& hidden,
              std::vector<RowRun>& runs) {
    for (int row = 0; row < height; ++row, labels += width) {
        for (int x = 0; x < width;) {
            const std::uint16_t label = labels[x];
            const int first = x;
            const bool is_hidden = hidden[label] != 0;
            while (x < width && (labels[x] == label || (hidden[labels[x]] != 0) == is_hidden)) {
                ++x;
            }
            if (is_hidden) {
                runs.push_back({row, {first, x}});
            }
        }
    }
}

}  // namespace

std::shared_ptr<IP_MultiVolData> MakeTissueVolume(const LabelVolume& labels, const TissuePlan& plan,
                                                  VolumeSource& source) {
    const std::array<int, 3>& dims = labels.Dims();
    IP_Box box = *source.Volume()->GetBox();
    const auto volume = std::make_shared<IP_VolData>(&box, dims[2]);
    const PixelDataAttributes attributes{dims[0], dims[1], 4, false};
    const std::string series = UniqueName("volr-tissues-");
    const std::size_t num_voxels = SliceVoxels(dims);
    ForEachIndex(dims[2], [&](int iz) {
        std::unique_ptr<IP_TisIndSlice> slice = NewSlice<IP_TisIndSlice>(attributes, (num_voxels + 1) / 2);
        slice->SetID((series + std::to_string(iz)).c_str());
        PackIndices(labels.Slice(iz), num_voxels, plan.index_of_label.data(),
                    static_cast<unsigned char*>(slice->GetData()->Ptr()));
        slice->GetData()->Unmap();
        volume->SetSlice(slice.release(), iz);
    });
    auto set = std::make_shared<IP_MultiVolData>();
    set->AddVolData(volume);
    return set;
}

std::shared_ptr<IP_RealListVol> MakeHiddenMask(const LabelVolume& labels, const TissuePlan& plan,
                                               VolumeSource& source) {
    std::vector<std::uint8_t> hidden(TissuePlan::kNumLabels);
    hidden[0] = plan.IsHidden(0) ? 1 : 0;
    for (const int label : labels.Present()) {
        hidden[static_cast<std::size_t>(label)] = plan.IsHidden(label) ? 1 : 0;
    }
    if (std::find(hidden.begin(), hidden.end(), 1) == hidden.end()) {
        return nullptr;
    }

    // Slices are searched at once and their runs added one after the other.
    const std::array<int, 3>& dims = labels.Dims();
    std::vector<std::vector<RowRun>> runs(static_cast<std::size_t>(dims[2]));
    ForEachIndex(dims[2], [&](int iz) {
        FindRuns(labels.Slice(iz), dims[0], dims[1], hidden, runs[static_cast<std::size_t>(iz)]);
    });
    auto mask = std::make_shared<IP_RealListVol>(*source.Volume()->GetBox());
    for (int iz = 0; iz < dims[2]; ++iz) {
        for (const RowRun& r : runs[static_cast<std::size_t>(iz)]) {
            mask->AddRun(r.row, iz, r.run.first, r.run.last);
        }
    }
    return mask;
}

MaskedVolume::MaskedVolume(VolumeSource& source, const IP_RealListVol& mask, int value)
    : m_Changed(static_cast<std::size_t>(source.Info().dims[2])),
      m_Volume(std::make_shared<IP_VolData>(*source.Volume())) {
    const std::array<int, 3>& dims = source.Info().dims;
    const std::string series = UniqueName("volr-masked-");
    ForEachIndex(dims[2], [&](int iz) {
        bool meets = false;
        for (int row = 0; row < dims[1] && !meets; ++row) {
            meets = !mask.GetRuns(row, iz).empty();
        }
        if (!meets) {
            return;
        }
        auto* const from = static_cast<IP_ShortSlice*>(source.Volume()->GetSlice(iz));
        if (from->MapMemory() != 0) {
            throw Error(ErrorKind::kFailed, "volume", "a slice cannot be brought back to memory",
                        "free memory and try again");
        }
        const std::unique_ptr<IP_Slice, void (*)(IP_Slice*)> unmap(from, [](IP_Slice* s) { s->UnmapMemory(); });
        const std::size_t num_voxels = SliceVoxels(dims);
        std::unique_ptr<IP_ShortSlice> slice = NewSlice<IP_ShortSlice>(from->GetAttributes(), num_voxels * 2);
        slice->SetID((series + std::to_string(iz)).c_str());
        auto* const pixels = static_cast<short*>(slice->GetData()->Ptr());
        std::memcpy(pixels, from->GetMappedSlice(), num_voxels * 2);
        for (int row = 0; row < dims[1]; ++row) {
            mask.WriteLine(row, iz, pixels + static_cast<std::ptrdiff_t>(row) * dims[0],
                           static_cast<unsigned short>(value));
        }
        slice->GetData()->Unmap();
        m_Volume->SetSlice(slice.get(), iz);
        m_Changed[static_cast<std::size_t>(iz)] = std::move(slice);
    });
}

}  // namespace scene
