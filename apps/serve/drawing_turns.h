// Whose turn it is on the drawing thread.
#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <vector>

namespace serve {

using Clock = std::chrono::steady_clock;

// What goes before what.
enum class Rank {
    kNow,      // picks, and pictures that move or have waited long enough
    kResting,  // pictures at rest
    kAhead,    // moving pictures whose predecessor the page has not shown yet
    kPatient,  // what nobody looks at while it is made
};

// Shares the thread out: by rank, among equals to the client that has had the least time. Knows nothing of what is
// drawn.
class DrawingTurns {
public:
    using ClientId = int;
    struct Claim {
        ClientId client = 0;
        std::optional<Rank> rank;  // of what the client wants most; empty when it wants nothing
    };

    // Work for which nobody gets a turn comes to the front after so long.
    static constexpr std::chrono::milliseconds kLongestWait{1000};

    // The claim that comes first, with the rank that it has by now; nothing when nobody wants anything. Clients that
    // are left out are neither first nor forgotten.
    std::optional<Claim> Next(const std::vector<Claim>& claims, Clock::time_point now);
    // A claim's rank, by how long the client has waited.
    std::optional<Rank> RankOf(const Claim& claim, Clock::time_point now) const;
    // A turn has ended after so long; one that was not completed leaves the client waiting.
    void Note(ClientId client, double seconds, bool completed);
    void Forget(ClientId client) { m_Shares.erase(client); }

private:
    struct Share {
        double used_s = 0.0;  // time it has had, counted from the least of those who were there
        std::optional<Clock::time_point> waiting_since;  // has had something to do but no turn that completed
    };

    std::map<ClientId, Share> m_Shares;
    double m_Turn = 0.0;  // the time of whoever had the last turn
};

}  // namespace serve
