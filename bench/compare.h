// The library beside the plain system calls under it.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <vector>

namespace bench {

inline double SecondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

inline double Median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

// Runs both sides by turns, each first in every other pair, and reports the throughput of ours in
// relation to the plain one: the median of the pairs' ratios, because whatever else the machine does
// falls on both halves of a pair alike. Each side answers the seconds of what it times itself, and has
// run once before, so that memory and the file system's caches are as they stay.
template <class Ours, class Plain>
void Compare(benchmark::State& state, uint64_t bytes, Ours ours, Plain plain) {
    std::vector<double> ratios, oursSeconds, plainSeconds;
    for (auto _ : state) {
        const bool first = ratios.size() % 2 == 0;
        const double early = first ? ours() : plain();
        const double late = first ? plain() : ours();
        oursSeconds.push_back(first ? early : late);
        plainSeconds.push_back(first ? late : early);
        ratios.push_back(plainSeconds.back() / oursSeconds.back());
        state.SetIterationTime(oursSeconds.back());
    }
    const double mebibytes = static_cast<double>(bytes) / (1 << 20);
    state.counters["ratio"] = Median(ratios);
    state.counters["ratio_min"] = *std::min_element(ratios.begin(), ratios.end());
    state.counters["ratio_max"] = *std::max_element(ratios.begin(), ratios.end());
    state.counters["ours_MiB/s"] = mebibytes / Median(oursSeconds);
    state.counters["plain_MiB/s"] = mebibytes / Median(plainSeconds);
}

inline void AsComparison(benchmark::internal::Benchmark* benchmark) {
    constexpr int pairs = 25;
    benchmark->Iterations(pairs)->UseManualTime()->Unit(benchmark::kMillisecond);
}

} // namespace bench
