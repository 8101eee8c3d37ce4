#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <vector>

template <typename Work>
double Seconds(Work work)
{
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

inline double Median(std::vector<double>& values)
{
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

/// What two ways of doing the same have taken, in seconds.
struct Turns {
    std::vector<double> ours;
    std::vector<double> peers;

    double medianByMedian() { return Median(ours) / Median(peers); }
    double bestByBest() const
    {
        return *std::min_element(ours.begin(), ours.end()) /
               *std::min_element(peers.begin(), peers.end());
    }
};

/// Calls `prepare` and then both, which change places each time: what comes out stands even where
/// the speed of the machine does not. The time of an iteration is ours.
template <typename Prepare, typename Ours, typename Peer>
Turns TakeTurns(benchmark::State& state, Prepare prepare, Ours ours, Peer peer)
{
    Turns turns;
    bool isOursFirst = false;
    for (auto _ : state) {
        prepare();
        for (const bool isOurs : {isOursFirst, !isOursFirst})
            (isOurs ? turns.ours : turns.peers).push_back(isOurs ? Seconds(ours) : Seconds(peer));
        isOursFirst = !isOursFirst;
        state.SetIterationTime(turns.ours.back());
    }
    return turns;
}

/// With the counters `ours_by_peer`, of the medians, and `best_by_best`, which is what counts on a
/// machine that is busy with other things.
template <typename Prepare, typename Ours, typename Peer>
void Compare(benchmark::State& state, Prepare prepare, Ours ours, Peer peer)
{
    Turns turns = TakeTurns(state, prepare, ours, peer);
    state.counters["ours_by_peer"] = turns.medianByMedian();
    state.counters["best_by_best"] = turns.bestByBest();
}

template <typename Ours, typename Peer>
void Compare(benchmark::State& state, Ours ours, Peer peer)
{
    Compare(
        state, [] {}, ours, peer);
}
