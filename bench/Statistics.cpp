#include "bench/Statistics.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace vok::bench {

double Quantile(std::vector<double> values, double quantile) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    const double position = quantile * static_cast<double>(values.size() - 1);
    const auto nBelow = static_cast<std::size_t>(std::floor(position));
    const std::size_t nAbove = std::min(nBelow + 1, values.size() - 1);
    const double share = position - static_cast<double>(nBelow);
    return values[nBelow] + share * (values[nAbove] - values[nBelow]);
}

double Median(std::vector<double> values) {
    return Quantile(std::move(values), 0.5);
}

Summary Summarise(const std::vector<double>& values) {
    return {Median(values), Quantile(values, 0.25), Quantile(values, 0.75), Quantile(values, 0),
            Quantile(values, 1)};
}

}  // namespace vok::bench
