/// How long something takes, in seconds.
#pragma once

#include <chrono>
#include <utility>
#include <vector>

#include "bench/Statistics.h"

namespace vok::bench {

using Clock = std::chrono::steady_clock;

inline double SecondsBetween(Clock::time_point begin, Clock::time_point end) {
    return std::chrono::duration<double>(end - begin).count();
}

template <typename Work>
double SecondsOf(Work&& work) {
    const Clock::time_point begin = Clock::now();
    std::forward<Work>(work)();
    return SecondsBetween(begin, Clock::now());
}

/// The median of `nTimes` measurements, each of which answers its seconds.
template <typename Measure>
double MedianOf(int nTimes, Measure&& measure) {
    std::vector<double> seconds;
    seconds.reserve(static_cast<std::size_t>(nTimes));
    for (int n = 0; n < nTimes; ++n) seconds.push_back(measure());
    return Median(std::move(seconds));
}

}  // namespace vok::bench
