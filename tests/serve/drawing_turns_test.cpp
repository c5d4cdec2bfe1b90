// Who gets the drawing thread next, with times that are told instead of measured.
#include "apps/serve/drawing_turns.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>

namespace {

using serve::DrawingTurns;
using serve::Rank;
using Claims = std::vector<DrawingTurns::Claim>;

class TurnsTest : public testing::Test {
protected:
    // So many turns of clients that always want something; who had them.
    std::vector<int> Turns(int count, const Claims& claims) {
        std::vector<int> order;
        for (int i = 0; i < count; ++i) {
            const int client = turns.Next(claims, now)->client;
            const int cost_ms = costs_ms.count(client) != 0 ? costs_ms[client] : 10;
            now += std::chrono::milliseconds(cost_ms);
            turns.Note(client, cost_ms / 1000.0, true);
            order.push_back(client);
        }
        return order;
    }
    static std::ptrdiff_t Count(const std::vector<int>& order, int client) {
        return std::count(order.begin(), order.end(), client);
    }
    static Claims AllMoving(std::initializer_list<int> clients) {
        Claims claims;
        for (const int client : clients) {
            claims.push_back({client, Rank::kNow});
        }
        return claims;
    }

    DrawingTurns turns;
    serve::Clock::time_point now;
    std::map<int, int> costs_ms;
};

TEST_F(TurnsTest, ClientsThatWantTheSameTakeTurns) {
    const Claims four = AllMoving({1, 2, 3, 4});
    const std::vector<int> order = Turns(40, four);
    for (std::size_t i = 0; i + 4 <= order.size(); ++i) {
        EXPECT_EQ(std::set<int>(order.begin() + i, order.begin() + i + 4).size(), 4U) << "from turn " << i;
    }
    // Who takes longer gets fewer turns, the same time.
    costs_ms[2] = 40;
    const std::vector<int> uneven = Turns(130, four);
    EXPECT_NEAR(Count(uneven, 2), 10, 1);
    EXPECT_NEAR(Count(uneven, 3), 40, 1);
    // Nobody saves up time by doing nothing, and a newcomer begins where the others are.
    costs_ms.clear();
    Turns(300, {{1, Rank::kNow}, {2, Rank::kNow}, {3, std::nullopt}, {4, std::nullopt}});
    const std::vector<int> later = Turns(50, AllMoving({1, 2, 3, 4, 5}));
    for (const int client : {1, 2, 3, 4, 5}) {
        EXPECT_NEAR(Count(later, client), 10, 2) << client;
    }
    // What three leave goes to the last.
    for (const int client : {2, 3, 4, 5}) {
        turns.Forget(client);
        turns.Note(client, 1.0, true);  // its last turn was not over
    }
    EXPECT_EQ(Count(Turns(10, AllMoving({1})), 1), 10);
    EXPECT_FALSE(turns.Next({{1, std::nullopt}}, now));
}

TEST_F(TurnsTest, HurryGoesFirstButNobodyWaitsForEver) {
    const Claims claims = {{1, Rank::kPatient}, {2, Rank::kAhead}, {3, Rank::kResting}, {4, Rank::kNow}};
    const auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(DrawingTurns::kLongestWait).count();
    // As long as one moves, the others get nothing before they have waited.
    EXPECT_EQ(Count(Turns(static_cast<int>(wait) / 10, claims), 4), wait / 10);
    const std::vector<int> order = Turns(300, claims);
    EXPECT_GE(Count(order, 1), 2);
    EXPECT_GE(Count(order, 3), 2);
    EXPECT_EQ(Count(order, 2), 0);  // waits for its own page
    EXPECT_GT(Count(order, 4), 280);
    // A turn that made way leaves its client waiting.
    now += 2 * DrawingTurns::kLongestWait;
    EXPECT_EQ(turns.RankOf(claims[2], now), Rank::kNow);
    turns.Note(3, 0.1, false);
    EXPECT_EQ(turns.RankOf(claims[2], now), Rank::kNow);
    turns.Note(3, 0.1, true);
    EXPECT_EQ(turns.RankOf(claims[2], now), Rank::kResting);
    // Without hurry: by rank.
    EXPECT_EQ(DrawingTurns().Next({claims[0], claims[1], claims[2]}, now)->client, 3);
    EXPECT_EQ(DrawingTurns().Next({claims[0], claims[1]}, now)->client, 2);
}

}  // namespace
