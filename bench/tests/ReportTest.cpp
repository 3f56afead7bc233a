#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <string>

#include "bench/Report.h"

namespace vok::bench {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

Result Row(double median, double target, eValue eKind = eValue::Ratio) {
    Result result;
    result.spec = {"row-id", "what it is", "what it is beside", target, eKind};
    result.measured.value = {median, median - 0.1, median + 0.1, median - 0.2, median + 0.2};
    return result;
}

Result SkippedRow() {
    Result result = Row(9, 1);
    result.spec.strWhat = "what is skipped";
    result.strSkipped = "no such thing here";
    return result;
}

TEST(Result, IsMissedAboveItsTargetOnly) {
    EXPECT_FALSE(Row(1.05, 1.05).IsMissed());
    EXPECT_TRUE(Row(1.06, 1.05).IsMissed());
}

TEST(Result, WithoutTargetIsNeverMissed) {
    Result result = Row(99, 1);
    result.spec.target.reset();
    EXPECT_FALSE(result.IsMissed());
}

TEST(Result, SkippedIsNotMissed) {
    EXPECT_FALSE(SkippedRow().IsMissed());
}

TEST(TableLine, ShowsValueSpreadTargetAndVerdict) {
    EXPECT_THAT(TableLine(Row(1.25, 1.3)), ::testing::AllOf(HasSubstr("1.250"), HasSubstr("1.150"),
                                                            HasSubstr("1.30"), HasSubstr("met")));
    EXPECT_THAT(TableLine(Row(1.35, 1.3)), HasSubstr("MISSED"));
}

TEST(TableLine, ShowsUnits) {
    EXPECT_THAT(TableLine(Row(3, 20, eValue::Milliseconds)), HasSubstr("3.0 ms"));
    EXPECT_THAT(TableLine(Row(0.2, 0, eValue::Bytes)), HasSubstr("0.2 B"));
}

TEST(TableLine, GivesTheReasonOfASkip) {
    EXPECT_THAT(TableLine(SkippedRow()), HasSubstr("no such thing here"));
}

TEST(ControlLines, ListsComparedRowsOnly) {
    Result compared = Row(1.2, 1.3);
    compared.spec.strWhat = "compared";
    compared.measured.control = Summary{1.01, 0.99, 1.02, 0.98, 1.03};
    const std::string strLines = ControlLines({compared, Row(3, 20, eValue::Milliseconds)});
    EXPECT_THAT(strLines, HasSubstr("compared"));
    EXPECT_THAT(strLines, HasSubstr("1.010"));
    EXPECT_THAT(strLines, Not(HasSubstr("what it is  ")));
}

TEST(AsJson, HoldsEveryRow) {
    const auto json =
        nlohmann::json::parse(AsJson({"a machine", "now", true}, {Row(1.35, 1.3), SkippedRow()}));
    EXPECT_EQ(json["machine"], "a machine");
    EXPECT_EQ(json["quick"], true);
    ASSERT_EQ(json["rows"].size(), 2);
    EXPECT_EQ(json["rows"][0]["id"], "row-id");
    EXPECT_DOUBLE_EQ(json["rows"][0]["value"]["median"], 1.35);
    EXPECT_EQ(json["rows"][0]["met"], false);
    EXPECT_EQ(json["rows"][1]["skipped"], "no such thing here");
    EXPECT_FALSE(json["rows"][1].contains("met"));
}

TEST(AsSvg, HasRatiosOnly) {
    Result ratio = Row(1.2, 1.3);
    ratio.spec.strWhat = "a ratio";
    Result bytes = Row(3, 20, eValue::Bytes);
    bytes.spec.strWhat = "some bytes";
    const std::string strSvg = AsSvg({"a machine", "now", false}, {ratio, bytes, SkippedRow()});
    EXPECT_THAT(strSvg, HasSubstr("a ratio"));
    EXPECT_THAT(strSvg, Not(HasSubstr("some bytes")));
    EXPECT_THAT(strSvg, Not(HasSubstr("what is skipped")));
}

}  // namespace
}  // namespace vok::bench
