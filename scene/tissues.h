// How the labels of a volume are drawn: a look for each, and what the engines take for it.
#pragma once

#include "host/multi_volume.h"
#include "scene/labels.h"
#include "scene/transfer_function.h"

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace scene {

class VolumeSource;

// How a label looks. Labels whose looks have the same name are drawn alike.
struct TissueLook {
    enum class Kind {
        kAsVolume,  // with the volume's own transfer function
        kHidden,    // not at all
        kOwn,       // with a transfer function of its own (not relative)
    };

    static TissueLook AsVolume() { return {}; }
    static TissueLook Hidden() { return {Kind::kHidden, "", {}}; }
    // One colour for all its voxels.
    static TissueLook Colour(std::uint32_t rgb, double opacity_per_mm);

    bool operator==(const TissueLook& o) const { return kind == o.kind && name == o.name; }

    Kind kind = Kind::kAsVolume;
    std::string name;
    TransferFunction function;
};

// What is wanted of one label; label 0 stands for the voxels without one. Parts that are not given are left open.
struct TissueWish {
    int label = 0;
    std::optional<TissueLook> look;
    bool only = false;  // everything that is not `only` is hidden
};

// The look of each label, and the index under which the engines know it.
struct TissuePlan {
    static constexpr int kNumLabels = 65536;
    static constexpr int kRest = 15;  // index of the voxels without label and of those that look alike

    std::array<std::uint8_t, kNumLabels> index_of_label{};  // 0 to 15
    std::vector<TissueLook> looks;                          // of indices 0, 1, ...; at most 15
    TissueLook rest;                                        // of index 15
    // Set when there are more labels or looks than room: labels that nobody wished anything for look like the volume.
    bool shares_rest = false;

    const TissueLook& LookOf(int index) const { return index == kRest ? rest : looks[static_cast<std::size_t>(index)]; }
    bool IsHidden(int label) const {
        return LookOf(index_of_label[static_cast<std::size_t>(label)]).kind == TissueLook::Kind::kHidden;
    }
};

// Several wishes for one label add up, later ones before earlier ones. Labels without a wish look as the table says
// (which never counts for label 0); without table and wishes up to 15 labels get a colour each from a fixed palette;
// all others look like the volume. Throws Error of the input kind when a wish is for a label that is not `present`, or
// when the wishes alone have more than 15 looks.
TissuePlan PlanTissues(const std::vector<int>& present, const std::vector<TissueWish>& wishes,
                       const std::vector<LabelTableEntry>& table);

// Tissue indices of the volume's voxels as the ray caster takes them: one volume in the box of `source`. Throws Error
// when the pager refuses memory, and the host's cancellation.
std::shared_ptr<IP_MultiVolData> MakeTissueVolume(const LabelVolume& labels, const TissuePlan& plan,
                                                  VolumeSource& source);

// The voxels that a projection leaves out, in the box of `source`; null when it leaves out nothing. Throws the host's
// cancellation.
std::shared_ptr<IP_RealListVol> MakeHiddenMask(const LabelVolume& labels, const TissuePlan& plan, VolumeSource& source);

// The volume without the voxels of a mask: they hold `value`. Slices that the mask does not meet are the source's own,
// so the source must outlive the volume. Throws Error when the pager refuses memory, and the host's cancellation.
class MaskedVolume {
public:
    MaskedVolume(VolumeSource& source, const IP_RealListVol& mask, int value);

    const std::shared_ptr<IP_VolData>& Volume() const { return m_Volume; }

private:
    std::vector<std::unique_ptr<IP_Slice>> m_Changed;
    std::shared_ptr<IP_VolData> m_Volume;
};

}  // namespace scene
