/// How long something takes, in seconds.
#pragma once

#include <chrono>
#include <thread>
#include <utility>
#include <vector>

#include "bench/Statistics.h"

namespace vok::bench {

using Clock = std::chrono::steady_clock;

inline double SecondsBetween(Clock::time_point begin, Clock::time_point end) {
    return std::chrono::duration<double>(end - begin).count();
}

/// Before a start: what is compared begins in the same state, that of a set where nothing happens.
/// What the former measurement has left behind ends while this sleeps, which leaves the caches
/// cold; then it works for nothing, as a processor that has only just woken up is twice as slow.
inline void Settle() {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    const Clock::time_point end = Clock::now() + std::chrono::milliseconds(2);
    while (Clock::now() < end) continue;
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
