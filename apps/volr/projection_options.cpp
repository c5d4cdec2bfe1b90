#include "apps/volr/projection_options.h"

#include "apps/volr/options.h"

#include <algorithm>

namespace volr {

void ProjectionOptions::AddTo(CLI::App& verb) {
    const auto group = "Projection";
    CLI::Option* const is_linear =
        verb.add_flag("--linear", linear, "full resolution, interpolated (the default)")->group(group);
    verb.add_flag("--fast", fast, "half the resolution, nearest voxels, several times faster")
        ->excludes(is_linear)
        ->group(group);
    verb.add_option("--window", window, "values shown from black to white, as CENTRE,WIDTH (default from the data)")
        ->group(group);
    verb.add_option("--depth-cue", depth_cue, "darkens with depth: weight of the far end, 0 to 1")->group(group);
    verb.add_option("--slab", slab, "draws only a layer parallel to the picture, as THICKNESS[,OFFSET] in mm")
        ->group(group);
}

void ProjectionOptions::Check() const {
    ParseWindow();
    ParseSlab();
    ParseDepthCue();
}

void ProjectionOptions::Apply(scene::Projection& projection) const {
    projection.SetSlab(ParseSlab());
    projection.SetDepthCue(ParseDepthCue());
}

std::optional<scene::DisplayWindow> ProjectionOptions::ParseWindow() const {
    if (window.empty()) {
        return std::nullopt;
    }
    const std::vector<double> numbers = ParseNumbers("--window", window, 2);
    if (numbers[1] <= 0.0) {
        Misuse("--window", "its width is not positive", "write it as CENTRE,WIDTH");
    }
    return scene::DisplayWindow{numbers[0], numbers[1]};
}

std::optional<scene::Slab> ProjectionOptions::ParseSlab() const {
    if (slab.empty()) {
        return std::nullopt;
    }
    const bool with_offset = slab.find(',') != std::string::npos;
    const std::vector<double> numbers = ParseNumbers("--slab", slab, with_offset ? 2 : 1);
    if (numbers[0] <= 0.0) {
        Misuse("--slab", "its thickness is not positive", "give mm, as THICKNESS or THICKNESS,OFFSET");
    }
    return scene::Slab{numbers[0], with_offset ? numbers[1] : 0.0};
}

std::optional<double> ProjectionOptions::ParseDepthCue() const {
    if (depth_cue.empty()) {
        return std::nullopt;
    }
    const double floor = ParseNumbers("--depth-cue", depth_cue, 1)[0];
    if (floor < 0.0 || floor > 1.0) {
        Misuse("--depth-cue", "is out of range", "give the weight of the far end, 0 to 1");
    }
    return floor;
}

}  // namespace volr
