#include "bench/timing.h"

#include <algorithm>

namespace volr_bench {

double Times::least() const {
    return *std::min_element(m_Seconds.begin(), m_Seconds.end());
}

double Times::median() const {
    std::vector<double> sorted = m_Seconds;
    std::sort(sorted.begin(), sorted.end());
    return sorted[sorted.size() / 2];
}

double Times::worst() const {
    return *std::max_element(m_Seconds.begin(), m_Seconds.end());
}

void run_beside(benchmark::State& state, const Work& work, const std::function<double()>& limit) {
    Times times;
    Times limits;
    for ([[maybe_unused]] auto _ : state) {
        limits.add(limit());
        const double seconds = seconds_of(work);
        times.add(seconds);
        state.SetIterationTime(seconds);
    }
    state.counters["least_ms"] = times.least() * 1e3;
    state.counters["median_ms"] = times.median() * 1e3;
    state.counters["worst_ms"] = times.worst() * 1e3;
    state.counters["limit_least_ms"] = limits.least() * 1e3;
    state.counters["limit_median_ms"] = limits.median() * 1e3;
    state.counters["ratio"] = times.least() / limits.least();
}

void run_turn(benchmark::State& state, int num_views, int num_turns, const std::function<void(int view)>& draw,
              const std::function<double()>& limit) {
    for ([[maybe_unused]] auto _ : state) {
        std::vector<double> least(static_cast<std::size_t>(num_views), 1e9);
        std::vector<double> least_limit(static_cast<std::size_t>(num_views), 1e9);
        for (int turn = 0; turn < num_turns; ++turn) {
            for (int view = 0; view < num_views; ++view) {
                double& best_limit = least_limit[static_cast<std::size_t>(view)];
                best_limit = std::min(best_limit, limit());
                double& best = least[static_cast<std::size_t>(view)];
                best = std::min(best, seconds_of([&] { draw(view); }));
            }
        }
        Times views;
        Times limits;
        for (std::size_t view = 0; view < least.size(); ++view) {
            views.add(least[view]);
            limits.add(least_limit[view]);
        }
        state.SetIterationTime(views.median());
        state.counters["median_ms"] = views.median() * 1e3;
        state.counters["worst_ms"] = views.worst() * 1e3;
        state.counters["worst_ratio"] = views.worst() / views.median();
        state.counters["limit_median_ms"] = limits.median() * 1e3;
        state.counters["ratio"] = views.median() / limits.median();
    }
}

double least_seconds(int num_runs, const std::function<double()>& run) {
    double least = run();
    for (int i = 1; i < num_runs; ++i) {
        least = std::min(least, run());
    }
    return least;
}

}  // namespace volr_bench
