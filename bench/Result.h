/// What becomes of a row of the table.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "bench/Rounds.h"
#include "bench/Statistics.h"

namespace vok::bench {

/// What the value of a row is.
enum class eValue { Ratio, Bytes, Threads, Milliseconds };

/// What a row is about, and the value that it may have at most. Without a target it only informs.
struct Spec {
    std::string strId;  // for readers of the JSON: never changed
    std::string strWhat;
    std::string strBaseline;
    std::optional<double> target;
    eValue eKind = eValue::Ratio;
};

/// What has been measured for a row.
struct Measured {
    Summary value;
    std::optional<Summary> control;  // the baseline against itself
    double baseline = 0;             // median cost of one unit of the work, 0: there is none
    double subject = 0;
    std::string strUnit;  // of the two
    std::string strNote;  // what else is to be known, or empty
};

/// A row that has been measured, or the reason why it has not.
struct Result {
    Spec spec;
    Measured measured;
    std::string strSkipped;

    bool IsSkipped() const { return !strSkipped.empty(); }
    /// A skipped row has met nothing, but has not missed anything either.
    bool IsMissed() const {
        return !IsSkipped() && spec.target && measured.value.median > *spec.target;
    }
};

/// `unit`: how many of the costs' units one of `szUnit` has, e.g. 1e-6 and "us" for seconds.
inline Measured AsRatio(const Comparison& comparison, const char* szUnit, double unit) {
    Measured measured;
    measured.value = Summarise(comparison.Ratios());
    measured.control = Summarise(comparison.ControlRatios());
    measured.baseline = Median(comparison.baseline) / unit;
    measured.subject = Median(comparison.subject) / unit;
    measured.strUnit = szUnit;
    return measured;
}

}  // namespace vok::bench
