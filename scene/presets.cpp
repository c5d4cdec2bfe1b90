#include "scene/presets.h"

#include <algorithm>

namespace scene {

namespace {

// Opacities are per mm; values are HU, or shares of the data's window for MR.
std::vector<TransferFunction> MakePresets() {
    return {
        {"ct-bone",
         "bone, opaque from 250 HU",
         false,
         {{150, 0.0}, {260, 0.25}, {450, 0.75}, {900, 1.0}},
         {{150, 0.60, 0.36, 0.25}, {350, 0.86, 0.72, 0.55}, {700, 0.95, 0.91, 0.82}, {1500, 1.0, 0.99, 0.96}},
         {0.24, 0.80, 0.22}},
        {"ct-angio",
         "vessels with contrast medium, red to gold, before bone",
         false,
         {{140, 0.0}, {200, 0.10}, {280, 0.55}, {450, 0.75}, {1000, 1.0}},
         {{130, 0.50, 0.06, 0.04},
          {220, 0.78, 0.14, 0.08},
          {380, 0.92, 0.40, 0.22},
          {520, 0.96, 0.80, 0.58},
          {900, 0.99, 0.96, 0.90}},
         {0.30, 0.80, 0.28}},
        {"ct-soft-tissue",
         "muscle and organs, half transparent, over bone",
         false,
         {{-40, 0.0}, {20, 0.03}, {70, 0.16}, {140, 0.20}, {200, 0.40}, {400, 0.85}},
         {{-40, 0.55, 0.22, 0.16},
          {60, 0.80, 0.38, 0.28},
          {140, 0.90, 0.60, 0.45},
          {300, 0.96, 0.88, 0.76},
          {1000, 1.0, 0.98, 0.94}},
         {0.40, 0.70, 0.20}},
        {"ct-lung",
         "airways, vessels and tissue of the lungs, bone faint",
         false,
         {{-960, 0.0},
          {-880, 0.003},
          {-700, 0.03},
          {-500, 0.18},
          {-300, 0.12},
          {-180, 0.0},
          {180, 0.0},
          {320, 0.05},
          {900, 0.25}},
         {{-950, 0.35, 0.48, 0.70},
          {-700, 0.60, 0.75, 0.90},
          {-450, 0.92, 0.72, 0.66},
          {-200, 0.88, 0.48, 0.42},
          {300, 0.98, 0.94, 0.86}},
         {0.60, 0.55, 0.20}},
        {"ct-skin",
         "the surface of the body",
         false,
         {{-500, 0.0}, {-350, 0.35}, {-100, 0.9}, {0, 1.0}},
         {{-500, 0.76, 0.54, 0.44}, {-150, 0.90, 0.69, 0.57}, {100, 0.93, 0.74, 0.62}, {600, 0.95, 0.85, 0.78}},
         {0.34, 0.74, 0.18}},
        {"ct-vessels-only",
         "vessels with contrast medium, bone left out",
         false,
         {{150, 0.0}, {200, 0.20}, {300, 0.65}, {430, 0.65}, {520, 0.02}, {600, 0.0}},
         {{150, 0.55, 0.05, 0.04}, {300, 0.88, 0.22, 0.14}, {520, 0.96, 0.62, 0.40}},
         {0.28, 0.80, 0.30}},
        {"ct-metal",
         "implants and other dense things over faint bone",
         false,
         {{200, 0.0}, {500, 0.02}, {1500, 0.06}, {2200, 0.8}, {2800, 1.0}},
         {{200, 0.75, 0.70, 0.62}, {1500, 0.92, 0.90, 0.85}, {2200, 0.60, 0.75, 0.95}, {3000, 0.85, 0.92, 1.0}},
         {0.40, 0.70, 0.40}},
        {"mr-brain",
         "the brain under a haze of darker tissues",
         true,
         {{0.30, 0.0}, {0.45, 0.04}, {0.55, 0.30}, {0.80, 0.85}},
         {{0.30, 0.70, 0.46, 0.40}, {0.55, 0.92, 0.72, 0.64}, {0.80, 0.98, 0.90, 0.84}, {1.1, 1.0, 0.98, 0.95}},
         {0.40, 0.75, 0.18}},
        {"mr-angio",
         "bright vessels of angiograms without bone",
         true,
         {{0.92, 0.0}, {1.02, 0.10}, {1.20, 0.60}, {1.6, 0.95}},
         {{0.90, 0.55, 0.06, 0.04}, {1.10, 0.85, 0.24, 0.14}, {1.35, 0.96, 0.52, 0.30}, {2.0, 1.0, 0.90, 0.74}},
         {0.34, 0.80, 0.30}},
        {"mr-soft",
         "all tissues as a haze",
         true,
         {{0.12, 0.0}, {0.25, 0.02}, {0.60, 0.06}, {1.0, 0.16}},
         {{0.10, 0.28, 0.34, 0.45}, {0.50, 0.62, 0.66, 0.72}, {1.0, 1.0, 1.0, 1.0}},
         {0.75, 0.50, 0.10}},
    };
}

}  // namespace

const std::vector<TransferFunction>& Presets() {
    static const std::vector<TransferFunction> presets = MakePresets();
    return presets;
}

const TransferFunction* FindPreset(std::string_view name) {
    const std::vector<TransferFunction>& all = Presets();
    const auto found = std::find_if(all.begin(), all.end(), [&](const TransferFunction& f) { return f.name == name; });
    return found != all.end() ? &*found : nullptr;
}

std::string_view DefaultPreset(std::string_view modality, double lowest_value) {
    if (modality == "CT" || (modality.empty() && lowest_value < -500.0)) {
        return "ct-angio";
    }
    return "mr-brain";
}

}  // namespace scene
