/// A clock for moments that are only ever told to people.
#pragma once

#include <chrono>
#include <cstdint>
#include <ctime>

namespace vok {

/// Steady, and as exact as the kernel's tick: 1 to 10 ms. A reading is a load from memory that the
/// kernel keeps up to date, and asks no timer.
struct CCoarseClock {
    using duration = std::chrono::nanoseconds;
    using rep = duration::rep;
    using period = duration::period;
    using time_point = std::chrono::time_point<CCoarseClock>;
    static constexpr bool is_steady = true;

    static time_point now() noexcept {
        timespec now{};
        (void)::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);  // this clock exists
        return time_point{duration{std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec}};
    }
};

}  // namespace vok
