#include <gtest/gtest.h>

#include <ostream>
#include <vector>

#include "bench/Statistics.h"

namespace vok::bench {
namespace {

struct QuantileCase {
    const char* szName;
    std::vector<double> values;
    double quantile;
    double expected;
};

void PrintTo(const QuantileCase& one, std::ostream* pStream) {
    *pStream << one.szName;
}

class QuantileTest : public ::testing::TestWithParam<QuantileCase> {};

TEST_P(QuantileTest, LiesBetweenItsNeighbours) {
    EXPECT_DOUBLE_EQ(Quantile(GetParam().values, GetParam().quantile), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Values, QuantileTest,
    ::testing::Values(QuantileCase{"NothingIsZero", {}, 0.5, 0},
                      QuantileCase{"OneIsItself", {7}, 0.25, 7},
                      QuantileCase{"OddMedianIsTheMiddle", {9, 1, 5}, 0.5, 5},
                      QuantileCase{"EvenMedianIsBetween", {4, 1, 3, 2}, 0.5, 2.5},
                      QuantileCase{"LowQuartile", {5, 4, 3, 2, 1}, 0.25, 2},
                      QuantileCase{"HighQuartileIsInterpolated", {1, 2, 3, 4}, 0.75, 3.25},
                      QuantileCase{"NoneBelowTheLeast", {3, 1, 2}, 0, 1},
                      QuantileCase{"AllBelowTheMost", {3, 1, 2}, 1, 3}),
    [](const auto& info) { return info.param.szName; });

TEST(Summarise, TellsWhereTheValuesLie) {
    const Summary summary = Summarise({5, 1, 2, 4, 3});
    EXPECT_DOUBLE_EQ(summary.median, 3);
    EXPECT_DOUBLE_EQ(summary.lowQuartile, 2);
    EXPECT_DOUBLE_EQ(summary.highQuartile, 4);
    EXPECT_DOUBLE_EQ(summary.least, 1);
    EXPECT_DOUBLE_EQ(summary.most, 5);
}

TEST(Median, IsNotMovedByOneOutlier) {
    EXPECT_DOUBLE_EQ(Median({1, 1, 1000, 1, 1}), 1);
}

}  // namespace
}  // namespace vok::bench
