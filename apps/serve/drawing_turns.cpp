#include "apps/serve/drawing_turns.h"

#include <algorithm>

namespace serve {

std::optional<Rank> DrawingTurns::RankOf(const Claim& claim, Clock::time_point now) const {
    const auto share = m_Shares.find(claim.client);
    const bool waits = share != m_Shares.end() && share->second.waiting_since.has_value();
    // Nobody waits for ever; only pictures that their own client cannot take do.
    const bool too_long = waits && now - *share->second.waiting_since >= kLongestWait;
    return claim.rank && *claim.rank != Rank::kAhead && too_long ? Rank::kNow : claim.rank;
}

std::optional<DrawingTurns::Claim> DrawingTurns::Next(const std::vector<Claim>& claims, Clock::time_point now) {
    Claim first;
    double first_used_s = 0.0;
    for (const Claim& claim : claims) {
        Share& share = m_Shares[claim.client];
        if (!claim.rank) {
            share.waiting_since.reset();
            continue;
        }
        if (!share.waiting_since) {
            share.waiting_since = now;
            // Who had nothing to do has no claim on the time that others used meanwhile.
            share.used_s = std::max(share.used_s, m_Turn);
        }
        const std::optional<Rank> rank = RankOf(claim, now);
        if (!first.rank || rank < first.rank || (rank == first.rank && share.used_s < first_used_s)) {
            first = {claim.client, rank};
            first_used_s = share.used_s;
        }
    }
    if (!first.rank) {
        return std::nullopt;
    }
    m_Turn = std::max(m_Turn, first_used_s);
    return first;
}

void DrawingTurns::Note(ClientId client, double seconds, bool completed) {
    const auto share = m_Shares.find(client);
    if (share == m_Shares.end()) {
        return;
    }
    share->second.used_s += seconds;
    if (completed) {
        share->second.waiting_since.reset();
    }
}

}  // namespace serve
