// Options of maximum-intensity projections.
#pragma once

#include "scene/projection.h"

#include <CLI/CLI.hpp>

#include <optional>
#include <string>

namespace volr {

struct ProjectionOptions {
    bool linear = false;
    bool fast = false;
    std::string window;
    std::string depth_cue;
    std::string slab;

    void AddTo(CLI::App& verb);
    void Check() const;
    bool Linear() const { return !fast; }
    void Apply(scene::Projection& projection) const;  // slab and depth cue
    std::optional<scene::DisplayWindow> ParseWindow() const;
    std::optional<scene::Slab> ParseSlab() const;
    std::optional<double> ParseDepthCue() const;
};

}  // namespace volr
