// Timing of work beside the limit that applies to it. The machine's speed drifts, so both take turns in one run.
#pragma once

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <vector>

namespace volr_bench {

using Work = std::function<void()>;

template <class Function>
double seconds_of(const Function& work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Seconds of repeated runs of one thing.
class Times {
public:
    void add(double seconds) { m_Seconds.push_back(seconds); }
    double least() const;
    double median() const;
    double worst() const;

private:
    std::vector<double> m_Seconds;
};

// Runs the iterations of a benchmark with manual time; before each, the limit runs, which returns its seconds.
// Counters: least, median and worst time and the limit's least and median, in ms, and `ratio`: the least over the
// limit's least.
void run_beside(benchmark::State& state, const Work& work, const std::function<double()>& limit);

// One iteration: a full turn of `num_views` views, `num_turns` times; the limit runs before each. Each view counts with
// its least time, and so does the limit beside it. Counters: median and worst view, `worst_ratio` (worst over median),
// the limit's median, and `ratio`: median over median.
void run_turn(benchmark::State& state, int num_views, int num_turns, const std::function<void(int view)>& draw,
              const std::function<double()>& limit);

// Least of several runs.
double least_seconds(int num_runs, const std::function<double()>& run);

}  // namespace volr_bench
