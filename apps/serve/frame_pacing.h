// How coarsely a moving picture is drawn, so that it takes the time it may take.
#pragma once

#include "apps/serve/protocol.h"
#include "scene/volume_rendering.h"

#include <array>
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
    // Milliseconds of the last frame of the chosen effort; empty when none was drawn yet.
    std::optional<double> LastMs() const { return m_TookMs[m_Rung]; }

private:
    static constexpr std::size_t kNumRungs = 6;

    bool m_IsRendering;
    std::size_t m_Rung = 0;  // 0 is the finest
    std::array<std::optional<double>, kNumRungs> m_TookMs;
    int m_TooSlow = 0;    // frames in a row
    int m_WellBelow = 0;  // the same
};

}  // namespace serve
