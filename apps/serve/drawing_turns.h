// Whose turn it is on the drawing thread.
#pragma once

#include <algorithm>
#include <chrono>
#include <optional>

namespace serve {

using Clock = std::chrono::steady_clock;

// What goes before what.
enum class Rank {
    kNow,      // picks, and pictures that move or have waited long enough
    kResting,  // pictures at rest
    kAhead,    // moving pictures whose predecessor the page has not shown yet
    kPatient,  // what nobody looks at while it is made
};

// A client's share of the thread.
struct Share {
    double used_s = 0.0;                             // time it has had, counted from the least of those who were there
    std::optional<Clock::time_point> waiting_since;  // has had something to do but no turn that completed

    // Work for which nobody gets a turn comes to the front after so long.
    static constexpr std::chrono::milliseconds kLongestWait{1000};

    bool HasWaitedTooLong(Clock::time_point now) const { return waiting_since && now - *waiting_since >= kLongestWait; }
};

// Whether the one goes before the other: by rank, then whoever has had less.
inline bool GoesBefore(Rank a, const Share& share_a, Rank b, const Share& share_b) {
    return a != b ? a < b : share_a.used_s < share_b.used_s;
}

}  // namespace serve
