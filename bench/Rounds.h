/// Two things measured side by side, so that what the machine does besides befalls both.
#pragma once

#include <functional>
#include <vector>

namespace vok::bench {

/// Measures once: the cost of one unit of the work, lower is better, above 0.
using Measurement = std::function<double()>;

/// What the rounds have measured, one entry for each.
struct Comparison {
    std::vector<double> baseline;
    std::vector<double> subject;
    std::vector<double> control;  // the baseline again

    /// The subject's cost in terms of the baseline's, round by round. The baseline is measured
    /// before and after, so that a machine that gets slower or faster meanwhile leaves no trace.
    std::vector<double> Ratios() const;
    /// The baseline's cost in terms of itself: how far apart two measurements of the same are.
    std::vector<double> ControlRatios() const;
};

/// Runs `nRounds` rounds of baseline, subject, baseline, after one that does not count. What counts
/// as the control is the last one of the even rounds, the first one of the odd.
Comparison Compare(int nRounds, const Measurement& baseline, const Measurement& subject);

}  // namespace vok::bench
