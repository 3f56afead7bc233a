/// How long vokctl waits.
#pragma once

#include <chrono>

#include "ctl/BrokerClient.h"
#include "ctl/CommandLine.h"

namespace vok::ctl {

using namespace std::chrono_literals;

inline constexpr std::chrono::milliseconds kCallPatience = 5s;
/// The broker awaits an EMP's report for 10 s, and before that as long for another open of the same
/// EMP; mounting comes on top.
inline constexpr std::chrono::milliseconds kOpenPatience = 25s;
/// Completion asks while somebody types.
inline constexpr std::chrono::milliseconds kNamesPatience = 1s;

/// What --timeout says, or else the usual.
inline Waiting WaitFor(const Options& options, std::chrono::milliseconds usual = kCallPatience,
                       int nInterrupt = -1) {
    return {options.timeout.value_or(usual), nInterrupt};
}

}  // namespace vok::ctl
