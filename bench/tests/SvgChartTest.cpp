#include <gtest/gtest.h>
#include <pugixml.hpp>

#include <cstdlib>
#include <string>
#include <vector>

#include "bench/SvgChart.h"

namespace vok::bench {
namespace {

SvgBar Bar(const std::string& strLabel, double ratio, double target) {
    SvgBar bar;
    bar.strLabel = strLabel;
    bar.value = {ratio, ratio, ratio, ratio, ratio};
    bar.target = target;
    return bar;
}

pugi::xml_document Parse(const std::string& strSvg) {
    pugi::xml_document document;
    const pugi::xml_parse_result result = document.load_string(strSvg.c_str());
    EXPECT_TRUE(result) << result.description() << strSvg;
    return document;
}

bool HasText(const pugi::xml_document& document, const std::string& strText) {
    for (const pugi::xml_node text : document.child("svg").children("text"))
        if (text.text().get() == strText) return true;
    return false;
}

double WidthOfBar(const pugi::xml_document& document, const char* szColour) {
    double width = 0;
    for (const pugi::xml_node box : document.child("svg").children("rect"))
        if (std::string(box.attribute("fill").value()) == szColour)
            width = box.attribute("width").as_double();
    return width;
}

TEST(SvgChart, IsWellFormedWithoutBars) {
    EXPECT_TRUE(HasText(Parse(SvgChart("Title", "Foot", {})), "Title"));
}

TEST(SvgChart, ShowsLabelsAsTheyAre) {
    const std::string strNasty = "a < b & \"c\" > d's\x01";
    const auto document = Parse(SvgChart(strNasty, strNasty, {Bar(strNasty, 1, 1)}));
    EXPECT_TRUE(HasText(document, "a < b & \"c\" > d's"));
}

TEST(SvgChart, DrawsBarsInProportion) {
    // One axis, so that both are on the same scale: its end is the same.
    const auto one = Parse(SvgChart("", "", {Bar("one", 1, 3)}));
    const auto two = Parse(SvgChart("", "", {Bar("two", 2, 3)}));
    const double width = WidthOfBar(one, "#3b7dbd");
    EXPECT_GT(width, 20);
    EXPECT_NEAR(WidthOfBar(two, "#3b7dbd"), 2 * width, 0.2);
}

TEST(SvgChart, ColoursWhatMissesItsTarget) {
    SvgBar bar = Bar("slow", 2, 1);
    const double inLegend = WidthOfBar(Parse(SvgChart("", "", {bar})), "#c8553d");
    bar.bMissed = true;
    EXPECT_GT(WidthOfBar(Parse(SvgChart("", "", {bar})), "#c8553d"), inLegend);
}

TEST(SvgChart, StaysInsideItsPicture) {
    const auto document = Parse(SvgChart("", "", {Bar("far", 12.3, 1), Bar("near", 0, 0.5)}));
    const double width = document.child("svg").attribute("width").as_double();
    for (const pugi::xml_node box : document.child("svg").children("rect")) {
        EXPECT_GE(box.attribute("width").as_double(), 0);
        EXPECT_LE(box.attribute("x").as_double() + box.attribute("width").as_double(), width);
    }
}

}  // namespace
}  // namespace vok::bench
