// Moving pictures keep to their time and get finer again when they can.
#include "apps/serve/frame_pacing.h"

#include <gtest/gtest.h>

namespace {

using serve::FramePacing;
using serve::PaneMode;

// Milliseconds of a projection of full resolution and of the same size that take 60 and 10 ms.
double ProjectionMs(const serve::FrameEffort& effort, double load) {
    return load * (effort.linear ? 60.0 : 10.0) * effort.scale * effort.scale;
}

TEST(FramePacing, FindsTheFinestEffortThatKeepsToItsTime) {
    constexpr double kBudgetMs = 33.0;
    FramePacing pacing(PaneMode::kMip);
    const auto slow_frames = [&](int frames, double load) {
        int slow = 0;
        for (int i = 0; i < frames; ++i) {
            const double ms = ProjectionMs(pacing.Effort(), load);
            slow += ms > kBudgetMs ? 1 : 0;
            pacing.Note(ms, kBudgetMs);
        }
        return slow;
    };
    // The first frames are too slow; then trials of the finer effort become rare.
    EXPECT_LE(slow_frames(100, 1.0), 15);
    EXPECT_LE(slow_frames(1000, 1.0), 30);
    EXPECT_EQ(pacing.Effort().scale, 1.0);
    // A machine that gets busy, and idle.
    slow_frames(30, 8.0);
    EXPECT_LT(pacing.Effort().scale, 0.7);
    slow_frames(2000, 0.4);
    EXPECT_TRUE(pacing.Effort().linear);
    // One slow frame alone changes nothing.
    pacing.Note(1000.0, kBudgetMs);
    EXPECT_TRUE(pacing.Effort().linear);
}

}  // namespace
