#include "apps/serve/frame_pacing.h"

#include <algorithm>

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

// Interactive frames are themselves of half, a third or a quarter of the picture's resolution.
constexpr std::array<FrameEffort, 6> kRenderingRungs = {{
    {true, RenderQuality::kInteractive0, 1.0, "interactive 0"},
    {true, RenderQuality::kInteractive1, 1.0, "interactive 1"},
    {true, RenderQuality::kInteractive2, 1.0, "interactive 2"},
    {true, RenderQuality::kInteractive2, 0.75, "interactive 2, 3/4"},
    {true, RenderQuality::kInteractive2, 0.5, "interactive 2, 1/2"},
    {true, RenderQuality::kInteractive2, 0.375, "interactive 2, 3/8"},
}};

constexpr double kTooSlow = 1.1;     // times the budget
constexpr double kWellBelow = 0.75;  // the same
constexpr int kFramesBeforeFiner = 6;
// A finer rung that was too slow is tried again when frames have become so much faster since.
constexpr double kForget = 0.98;

}  // namespace

FrameEffort FinalEffort() {
    return {};
}

FrameEffort FramePacing::Effort() const {
    return m_IsRendering ? kRenderingRungs[m_Rung] : kProjectionRungs[m_Rung];
}

void FramePacing::Note(double frame_ms, double budget_ms) {
    std::optional<double>& took = m_TookMs[m_Rung];
    took = took ? 0.5 * (*took + frame_ms) : frame_ms;
    m_TooSlow = frame_ms > kTooSlow * budget_ms ? m_TooSlow + 1 : 0;
    m_WellBelow = frame_ms < kWellBelow * budget_ms ? m_WellBelow + 1 : 0;
    // What is known of finer rungs ages, so that a scene that has become easy is noticed.
    for (std::size_t finer = 0; finer < m_Rung; ++finer) {
        if (m_TookMs[finer]) {
            *m_TookMs[finer] *= kForget;
        }
    }

    const bool far_too_slow = frame_ms > 2.0 * budget_ms;
    if ((m_TooSlow >= 2 || far_too_slow) && m_Rung + 1 < kNumRungs) {
        ++m_Rung;
        m_TooSlow = m_WellBelow = 0;
    } else if (m_WellBelow >= kFramesBeforeFiner && m_Rung > 0 && m_TookMs[m_Rung - 1].value_or(0.0) <= budget_ms) {
        --m_Rung;
        m_TooSlow = m_WellBelow = 0;
        m_TookMs[m_Rung].reset();
    }
}

}  // namespace serve
