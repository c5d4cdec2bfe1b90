#include "scene/tissues.h"

#include "scene/error.h"

#include <algorithm>
#include <cstdio>
#include <limits>
#include <map>

namespace scene {

namespace {

using Kind = TissueLook::Kind;

// Colours far apart, for labels that nobody gave one.
constexpr std::array<std::uint32_t, 15> kPalette = {0xD94040, 0x4F9D4F, 0x4A78C8, 0xE0B040, 0x9A5FB8,
                                                    0x45B0B0, 0xE07A3C, 0xC85A8C, 0x8FB84A, 0x7A6BD0,
                                                    0xB0794A, 0x5FC08A, 0xD0D060, 0x60A0E0, 0xC0A0C8};
constexpr double kPaletteOpacity = 1.0;

// Inside a tissue of one colour the values' gradient is noise: light that does not depend on it keeps surfaces smooth.
constexpr Lighting kColourLighting = {0.45, 0.60, 0.15};

// What is known of a label before looks are numbered.
struct Wanted {
    TissueLook look;
    bool only = false;
    bool wished = false;
};

using WantedByLabel = std::map<int, Wanted>;

// Table and palette, under the wishes.
WantedByLabel DefaultLooks(const std::vector<int>& present, const std::vector<LabelTableEntry>& table,
                           bool has_wishes) {
    WantedByLabel wanted;
    wanted[0] = {};
    const bool by_palette = table.empty() && !has_wishes && present.size() <= kPalette.size();
    std::size_t number = 0;
    for (const int label : present) {
        wanted[label].look =
            by_palette ? TissueLook::Colour(kPalette[number++], kPaletteOpacity) : TissueLook::AsVolume();
    }
    for (const LabelTableEntry& entry : table) {
        const auto found = wanted.find(entry.label);
        if (found != wanted.end() && entry.label != 0) {
            const bool seen = entry.visible && entry.opacity > 0.0;
            found->second.look = seen ? TissueLook::Colour(entry.rgb, entry.opacity) : TissueLook::Hidden();
        }
    }
    return wanted;
}

// "1, 2, 3 and 12 more".
std::string Listed(const std::vector<int>& labels) {
    constexpr std::size_t kMost = 20;
    std::string text;
    for (std::size_t i = 0; i < std::min(labels.size(), kMost); ++i) {
        text += (i == 0 ? "" : ", ") + std::to_string(labels[i]);
    }
    return labels.size() > kMost ? text + " and " + std::to_string(labels.size() - kMost) + " more" : text;
}

void Apply(const std::vector<TissueWish>& wishes, const std::vector<int>& present, WantedByLabel& wanted) {
    bool any_only = false;
    for (const TissueWish& wish : wishes) {
        const auto found = wanted.find(wish.label);
        if (found == wanted.end()) {
            throw Error(ErrorKind::kInput, "--tissue", "there is no label " + std::to_string(wish.label),
                        present.empty() ? "the label maps are empty" : "there are 0, " + Listed(present));
        }
        Wanted& w = found->second;
        w.wished = true;
        w.only = w.only || wish.only;
        if (wish.look) {
            w.look = *wish.look;
        }
        any_only = any_only || wish.only;
    }
    if (any_only) {
        for (auto& [label, w] : wanted) {
            w.look = w.only ? w.look : TissueLook::Hidden();
        }
    }
}

// The index of a look, which is added when it is new; empty when there is no room for it.
std::optional<std::uint8_t> IndexOf(const TissueLook& look, TissuePlan& plan) {
    if (look == plan.rest) {
        return static_cast<std::uint8_t>(TissuePlan::kRest);
    }
    const auto found = std::find(plan.looks.begin(), plan.looks.end(), look);
    const auto index = static_cast<std::uint8_t>(found - plan.looks.begin());
    if (found == plan.looks.end()) {
        if (plan.looks.size() == TissuePlan::kRest) {
            return std::nullopt;
        }
        plan.looks.push_back(look);
    }
    return index;
}

// Numbers the looks of the labels that are wished, or of those that are not. False when they do not fit.
bool NumberLooks(const WantedByLabel& wanted, bool wished, TissuePlan& plan) {
    for (const auto& [label, w] : wanted) {
        if (w.wished == wished) {
            const std::optional<std::uint8_t> index = IndexOf(w.look, plan);
            if (!index) {
                return false;
            }
            plan.index_of_label[static_cast<std::size_t>(label)] = *index;
        }
    }
    return true;
}

}  // namespace

TissueLook TissueLook::Colour(std::uint32_t rgb, double opacity_per_mm) {
    char name[48];
    std::snprintf(name, sizeof name, "#%06X:%.6g", static_cast<unsigned>(rgb), opacity_per_mm);
    TissueLook look{Kind::kOwn, name, UniformColour(rgb, opacity_per_mm, std::numeric_limits<float>::lowest())};
    look.function.lighting = kColourLighting;
    return look;
}

TissuePlan PlanTissues(const std::vector<int>& present, const std::vector<TissueWish>& wishes,
                       const std::vector<LabelTableEntry>& table) {
    WantedByLabel wanted = DefaultLooks(present, table, !wishes.empty());
    Apply(wishes, present, wanted);

    TissuePlan plan;
    plan.rest = wanted[0].look;
    plan.index_of_label.fill(TissuePlan::kRest);
    if (!NumberLooks(wanted, true, plan)) {
        throw Error(ErrorKind::kInput, "--tissue", "more than 15 different looks are asked for",
                    "give some labels the same look");
    }
    const TissuePlan of_wishes = plan;
    if (NumberLooks(wanted, false, plan)) {
        plan.shares_rest = wishes.empty() && table.empty() && present.size() > kPalette.size();
        return plan;
    }

    // Too many: labels without a wish share one look.
    plan = of_wishes;
    plan.shares_rest = true;
    for (auto& [label, w] : wanted) {
        if (!w.wished && w.look.kind != Kind::kHidden) {
            w.look = TissueLook::AsVolume();
        }
    }
    if (!NumberLooks(wanted, false, plan)) {
        throw Error(ErrorKind::kInput, "--tissue", "more than 15 different looks are asked for",
                    "give some labels the same look");
    }
    return plan;
}

}  // namespace scene
