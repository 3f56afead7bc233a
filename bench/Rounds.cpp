#include "bench/Rounds.h"

#include <utility>

namespace vok::bench {

std::vector<double> Comparison::Ratios() const {
    std::vector<double> ratios;
    for (std::size_t n = 0; n < subject.size(); ++n)
        ratios.push_back(2 * subject[n] / (baseline[n] + control[n]));
    return ratios;
}

std::vector<double> Comparison::ControlRatios() const {
    std::vector<double> ratios;
    for (std::size_t n = 0; n < control.size(); ++n) ratios.push_back(control[n] / baseline[n]);
    return ratios;
}

Comparison Compare(int nRounds, const Measurement& baseline, const Measurement& subject) {
    Comparison comparison;
    for (int nRound = -1; nRound < nRounds; ++nRound) {
        double before = baseline();
        const double between = subject();
        double after = baseline();
        if (nRound < 0) continue;
        if (nRound % 2 != 0) std::swap(before, after);
        comparison.baseline.push_back(before);
        comparison.subject.push_back(between);
        comparison.control.push_back(after);
    }
    return comparison;
}

}  // namespace vok::bench
