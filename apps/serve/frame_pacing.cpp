#include "apps/serve/frame_pacing.h"

#include <algorithm>
#include <array>

namespace serve {

namespace {

using scene::RenderQuality;

constexpr std::array<FrameEffort, 6> kProjectionRungs = {{
    {true, RenderQuality::kEnhanced, 1.0, "linear"},
    {false, RenderQuality::kEnhanced, 1.0, "fast"},
    {false, RenderQuality::kEnhanced, 0.75, "fast, 3/4"},
    {false, RenderQuality::kEnhanced, 0.5, "fast, 1/2"},
    {false, RenderQuality::kEnhanced, 0.375, "fast, 3/8"},
    {false, RenderQuality::kEnhanced, 0.25, "fast, 1/4"},
}};

// Interactive frames are themselves of at least half, a third or a quarter of the picture's resolution.
constexpr std::array<FrameEffort, 6> kRenderingRungs = {{
    {true, RenderQuality::kInteractive0, 1.0, "interactive 0"},
    {true, RenderQuality::kInteractive1, 1.0, "interactive 1"},
    {true, RenderQuality::kInteractive2, 1.0, "interactive 2"},
    {true, RenderQuality::kInteractive2, 0.75, "interactive 2, 3/4"},
    {true, RenderQuality::kInteractive2, 0.5, "interactive 2, 1/2"},
    {true, RenderQuality::kInteractive2, 0.375, "interactive 2, 3/8"},
}};

// Times the budget. The lower one lies below what the engine's own adjustment aims at, or both would take turns.
constexpr double kTooSlow = 1.1;
constexpr double kWellBelow = 0.55;
constexpr int kFramesTooSlow = 3;  // before a coarser effort: the first frame of a new look takes longer
constexpr int kTrial = 12;         // frames that a finer effort must last to count as good
constexpr int kMostPatience = 240;
constexpr int kSetback = 4;  // frames well below the time that one other undoes

}  // namespace

FrameEffort FinalEffort() {
    return {};
}

FrameEffort FramePacing::Effort() const {
    return m_IsRendering ? kRenderingRungs[m_Rung] : kProjectionRungs[m_Rung];
}

void FramePacing::Note(double frame_ms, double budget_ms) {
    m_TooSlow = frame_ms > kTooSlow * budget_ms ? m_TooSlow + 1 : 0;
    // A single frame that something else on the machine held up does not count for much.
    m_WellBelow = frame_ms < kWellBelow * budget_ms ? m_WellBelow + 1 : std::max(0, m_WellBelow - kSetback);
    ++m_SinceFiner;
    if (m_SinceFiner == 2 * kMostPatience) {
        m_Patience = kLeastPatience;
    }
    if (m_TooSlow >= kFramesTooSlow && m_Rung + 1 < kProjectionRungs.size()) {
        // What has just been tried in vain is tried less often.
        m_Patience = m_SinceFiner <= kTrial ? std::min(2 * m_Patience, kMostPatience) : m_Patience;
        ++m_Rung;
        m_TooSlow = m_WellBelow = 0;
    } else if (m_WellBelow >= m_Patience && m_Rung > 0) {
        --m_Rung;
        m_TooSlow = m_WellBelow = m_SinceFiner = 0;
    }
}

std::optional<double> FramePacing::Adjustment(double frame_ms, double budget_ms) const {
    // Of the budget: a move waits for half the picture before its own, and frames do not all take the same.
    constexpr double kAim = 0.65;
    const double ratio = std::clamp(frame_ms / (kAim * budget_ms), 0.5, 4.0);
    const bool good = ratio > 0.85 && ratio <= 1.0;
    return good || (m_Rung > 0 && ratio < 1.0) ? std::nullopt : std::optional(ratio);
}

}  // namespace serve
