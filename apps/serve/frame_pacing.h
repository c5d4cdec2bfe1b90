// How coarsely a moving picture is drawn, so that it takes the time it may take.
#pragma once

#include "apps/serve/protocol.h"
#include "scene/volume_rendering.h"

#include <optional>
#include <string_view>

namespace serve {

// How to draw one frame.
struct FrameEffort {
    bool linear = true;  // projections: full resolution
    scene::RenderQuality quality = scene::RenderQuality::kEnhanced;
    double scale = 1.0;  // of the pane's width and height
    std::string_view name = "final";
};

// At rest, as good as it gets.
FrameEffort FinalEffort();

// Chooses among a few efforts by how long frames of each took. One for each kind of picture that a client looks at.
class FramePacing {
public:
    explicit FramePacing(PaneMode mode) : m_IsRendering(mode == PaneMode::kRender) {}

    FrameEffort Effort() const;
    // Notes what a frame of the chosen effort took, encoding included.
    void Note(double frame_ms, double budget_ms);
    // By which ratio the engine's own adjustment is to take the frame for too slow; empty when it is to do nothing. The
    // finest effort is refined with the time that is left, coarser ones make room for a finer effort instead.
    std::optional<double> Adjustment(double frame_ms, double budget_ms) const;

private:
    static constexpr int kLeastPatience = 8;

    bool m_IsRendering;
    std::size_t m_Rung = 0;           // 0 is the finest
    int m_TooSlow = 0;                // frames in a row
    int m_WellBelow = 0;              // frames, less some for each that was not
    int m_SinceFiner = 1000;          // frames since a finer effort was tried; many: none was
    int m_Patience = kLeastPatience;  // frames well below the time before a finer effort is tried
};

}  // namespace serve
