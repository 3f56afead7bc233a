/// What has been measured, for people and for programs.
#pragma once

#include <string>
#include <vector>

#include "bench/Result.h"

namespace vok::bench {

/// What the figures hold for.
struct RunInfo {
    std::string strMachine;  // processor and kernel
    std::string strTime;
    bool bQuick = false;
};

/// Of this machine, now.
RunInfo DescribeRun(bool bQuick);

/// A line for the terminal.
std::string TableHeading();
std::string TableLine(const Result& result);
/// The baselines against themselves: what of a ratio is noise.
std::string ControlLines(const std::vector<Result>& results);

std::string AsJson(const RunInfo& info, const std::vector<Result>& results);
std::string AsSvg(const RunInfo& info, const std::vector<Result>& results);

}  // namespace vok::bench
