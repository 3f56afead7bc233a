#include <gmock/gmock.h>

#include <string>

#include "bench/Result.h"
#include "bench/Rounds.h"

namespace vok::bench {
namespace {

using ::testing::DoubleEq;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::SizeIs;

TEST(Compare, MeasuresTheBaselineBeforeAndAfterInEveryRound) {
    std::string strOrder;
    const auto measure = [&](char c) {
        return [&strOrder, c] {
            strOrder += c;
            return 1.0;
        };
    };
    const Comparison comparison = Compare(2, measure('b'), measure('s'));
    EXPECT_EQ(strOrder,
              "bsb"
              "bsb"
              "bsb");  // the first round warms up
    EXPECT_THAT(comparison.subject, SizeIs(2));
}

TEST(Compare, LeavesTheFirstRoundOut) {
    int nCalls = 0;
    const Comparison comparison = Compare(
        1, [] { return 1.0; }, [&] { return nCalls++ == 0 ? 100.0 : 2.0; });
    EXPECT_THAT(comparison.Ratios(), ElementsAre(DoubleEq(2)));
}

TEST(Compare, IsBlindToAMachineThatSlowsDownEvenly) {
    double now = 0;
    const auto slower = [&](double cost) { return [&now, cost] { return cost * ++now; }; };
    const Comparison comparison = Compare(6, slower(1), slower(3));
    EXPECT_THAT(comparison.Ratios(), Each(DoubleEq(3)));
}

TEST(Compare, TurnsTheControlsRoundByRound) {
    double now = 0;
    const Comparison comparison = Compare(
        2, [&] { return ++now; }, [] { return 1.0; });
    // 1 and 2 warmed up.
    EXPECT_THAT(comparison.ControlRatios(), ElementsAre(DoubleEq(4.0 / 3), DoubleEq(5.0 / 6)));
}

TEST(AsRatio, KeepsTheCostsInTheirUnit) {
    Comparison comparison;
    comparison.baseline = {2e-6, 2e-6, 2e-6};
    comparison.control = {2e-6, 2e-6, 2e-6};
    comparison.subject = {3e-6, 3e-6, 4e-6};
    const Measured measured = AsRatio(comparison, "us", 1e-6);
    EXPECT_DOUBLE_EQ(measured.value.median, 1.5);
    EXPECT_DOUBLE_EQ(measured.control->median, 1);
    EXPECT_DOUBLE_EQ(measured.baseline, 2);
    EXPECT_DOUBLE_EQ(measured.subject, 3);
    EXPECT_EQ(measured.strUnit, "us");
}

}  // namespace
}  // namespace vok::bench
