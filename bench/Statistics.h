/// What many measurements of the same thing come to.
#pragma once

#include <vector>

namespace vok::bench {

/// Where the values lie. All zero when there are none.
struct Summary {
    double median = 0;
    double lowQuartile = 0;
    double highQuartile = 0;
    double least = 0;
    double most = 0;
};

/// The value below which the share `quantile` (0 to 1) of the values lies, interpolated between
/// its neighbours; 0 when there are none.
double Quantile(std::vector<double> values, double quantile);
double Median(std::vector<double> values);
Summary Summarise(const std::vector<double>& values);

}  // namespace vok::bench
