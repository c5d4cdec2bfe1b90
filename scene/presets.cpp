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
         {{130, 0.0}, {180, 0.12}, {260, 0.55}, {450, 0.75}, {1000, 1.0}},
         {{130, 0.50, 0.06, 0.04},
          {220, 0.78, 0.14, 0.08},
          {380, 0.90, 0.38, 0.20},
          {520, 0.95, 0.78, 0.55},
          {900, 0.98, 0.95, 0.88}},
         {0.26, 0.80, 0.28}},
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
         "airways and vessels of the lungs",
         false,
         {{-900, 0.0},
          {-780, 0.0},
          {-620, 0.04},
          {-450, 0.14},
          {-250, 0.04},
          {-150, 0.0},
          {120, 0.0},
          {300, 0.25},
          {700, 0.6}},
         {{-900, 0.30, 0.40, 0.60},
          {-600, 0.55, 0.70, 0.85},
          {-400, 0.80, 0.45, 0.40},
          {-150, 0.85, 0.40, 0.35},
          {300, 0.95, 0.90, 0.80}},
         {0.45, 0.70, 0.20}},
        {"ct-skin",
         "the surface of the body",
         false,
         {{-500, 0.0}, {-350, 0.35}, {-100, 0.9}, {0, 1.0}},
         {{-500, 0.72, 0.50, 0.40}, {-150, 0.88, 0.66, 0.54}, {100, 0.92, 0.72, 0.60}, {600, 0.95, 0.85, 0.78}},
         {0.22, 0.84, 0.18}},
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
         "the head's surface to the brain, from the darker tissues up",
         true,
         {{0.16, 0.0}, {0.30, 0.15}, {0.55, 0.45}, {1.0, 0.80}},
         {{0.10, 0.30, 0.22, 0.20}, {0.40, 0.66, 0.52, 0.46}, {0.70, 0.88, 0.80, 0.74}, {1.0, 1.0, 0.97, 0.94}},
         {0.30, 0.80, 0.18}},
        {"mr-angio",
         "bright vessels of angiograms without bone",
         true,
         {{0.62, 0.0}, {0.74, 0.10}, {0.88, 0.55}, {1.2, 0.90}},
         {{0.60, 0.40, 0.05, 0.04}, {0.80, 0.82, 0.22, 0.14}, {1.0, 0.95, 0.50, 0.30}, {1.6, 1.0, 0.88, 0.70}},
         {0.28, 0.80, 0.30}},
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
