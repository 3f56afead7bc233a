// Texts for people: safe, as wide as they look, and quantities as one says them.
#include <gtest/gtest.h>

#include "ctl/Format.h"

namespace vok::ctl {
namespace {

using namespace std::chrono_literals;

struct PrintableCase {
    const char* szName;
    std::string strBytes;
    std::string strUtf8;
    std::string strAscii;
};

class PrintableTest : public ::testing::TestWithParam<PrintableCase> {};

TEST_P(PrintableTest, ShowsWithoutControlling) {
    EXPECT_EQ(Printable(GetParam().strBytes, true), GetParam().strUtf8);
    EXPECT_EQ(Printable(GetParam().strBytes, false), GetParam().strAscii);
}

INSTANTIATE_TEST_SUITE_P(
    Bytes, PrintableTest,
    ::testing::Values(
        PrintableCase{"Plain", "Weather 2", "Weather 2", "Weather 2"},
        PrintableCase{"Umlaut", "M\u00FCller", "M\u00FCller", "M\\xC3\\xBCller"},
        PrintableCase{"Escape", "\x1B[31mred", "\\x1B[31mred", "\\x1B[31mred"},
        PrintableCase{"LineFeed", "a\nb\tc\r", "a\\x0Ab\\x09c\\x0D", "a\\x0Ab\\x09c\\x0D"},
        PrintableCase{"Nul", std::string("a\0b", 3), "a\\x00b", "a\\x00b"},
        PrintableCase{"Delete", "\x7F", "\\x7F", "\\x7F"},
        // An 8-bit terminal's escape sequences begin with this one.
        PrintableCase{"C1Control", "\u009B2J", "\\xC2\\x9B2J", "\\xC2\\x9B2J"},
        PrintableCase{"RightToLeft", "a\u202Eb", "a\\xE2\\x80\\xAEb", "a\\xE2\\x80\\xAEb"},
        PrintableCase{"ZeroWidth", "a\u200Bb", "a\\xE2\\x80\\x8Bb", "a\\xE2\\x80\\x8Bb"},
        PrintableCase{"Stray", "a\xFFz", "a\\xFFz", "a\\xFFz"},
        PrintableCase{"CutShort", "a\xE2\x82", "a\\xE2\\x82", "a\\xE2\\x82"},
        PrintableCase{"TooLong", "\xC0\xAF", "\\xC0\\xAF", "\\xC0\\xAF"},
        PrintableCase{"TooLongByThree", "\xE0\x80\xAF", "\\xE0\\x80\\xAF", "\\xE0\\x80\\xAF"},
        PrintableCase{"Surrogate", "\xED\xA0\x80", "\\xED\\xA0\\x80", "\\xED\\xA0\\x80"},
        PrintableCase{"BeyondUnicode", "\xF5\x80\x80\x80", "\\xF5\\x80\\x80\\x80",
                      "\\xF5\\x80\\x80\\x80"},
        PrintableCase{"Empty", "", "", ""}),
    [](const auto& info) { return info.param.szName; });

TEST(Width, CountsColumnsNotBytes) {
    EXPECT_EQ(Width(""), 0);
    EXPECT_EQ(Width("abc"), 3);
    EXPECT_EQ(Width("M\u00FCller"), 6);
    EXPECT_EQ(Width("\u5929\u6C17"), 4) << "East Asian characters take two";
    EXPECT_EQ(Width("e\u0301"), 1) << "an accent sits on its letter";
    EXPECT_EQ(Width("\U0001F600"), 2);
}

TEST(Cut, TakesNoMoreColumnsThanThereAre) {
    EXPECT_EQ(Cut("Weather", 7, true), "Weather");
    EXPECT_EQ(Cut("Weather", 6, true), "Weath\u2026");
    EXPECT_EQ(Cut("Weather", 6, false), "Weath~");
    EXPECT_EQ(Cut("Weather", 1, true), "\u2026");
    EXPECT_EQ(Cut("Weather", 0, true), "");
    EXPECT_EQ(Cut("Weather", -3, true), "");
    // A character of two columns that would not fit whole is left out.
    EXPECT_EQ(Cut("\u5929\u6C17\u5929", 4, true), "\u5929\u2026");
}

TEST(ValidUtf8, ReplacesWhatIsNone) {
    EXPECT_EQ(ValidUtf8("M\u00FCller\x1B"), "M\u00FCller\x1B");
    EXPECT_EQ(ValidUtf8("a\xFFz"), "a\uFFFDz");
}

TEST(Duration, HasTwoUnitsAtMost) {
    EXPECT_EQ(Duration(-5ms), "0 ms");
    EXPECT_EQ(Duration(850ms), "850 ms");
    EXPECT_EQ(Duration(1s), "1.0 s");
    EXPECT_EQ(Duration(12'399ms), "12.3 s");
    EXPECT_EQ(Duration(59'999ms), "59.9 s");
    EXPECT_EQ(Duration(192s), "3 min 12 s");
    EXPECT_EQ(Duration(3599s), "59 min 59 s");
    EXPECT_EQ(Duration(2h + 5min + 59s), "2 h 5 min");
    EXPECT_EQ(Duration(99h), "4 d 3 h");
}

TEST(Elapsed, HasThreeDigits) {
    EXPECT_EQ(Elapsed(-1), "0 us");
    EXPECT_EQ(Elapsed(740), "740 us");
    EXPECT_EQ(Elapsed(1'240), "1.24 ms");
    EXPECT_EQ(Elapsed(9'994), "9.99 ms");
    EXPECT_EQ(Elapsed(9'996), "10.0 ms");
    EXPECT_EQ(Elapsed(12'340), "12.3 ms");
    EXPECT_EQ(Elapsed(999'400), "999 ms");
    EXPECT_EQ(Elapsed(999'600), "1.00 s");
    EXPECT_EQ(Elapsed(10'003'000), "10.0 s");
}

TEST(Count, KnowsOneFromMany) {
    EXPECT_EQ(Count(1, "client", "clients"), "1 client");
    EXPECT_EQ(Count(0, "client", "clients"), "0 clients");
}

TEST(Words, CoverWhatNoBrokerSendsToday) {
    EXPECT_EQ(StatusText(2), "opened");
    EXPECT_EQ(StatusText(9), "status 9");
    EXPECT_EQ(OptionText("0001"), "singleton");
    EXPECT_EQ(OptionText("x"), "x");
    EXPECT_EQ(LocationText(4), "grouping process");
    EXPECT_EQ(LocationText(7), "location 7");
    EXPECT_EQ(OutcomeText(3), "started");
    EXPECT_EQ(OutcomeText(8), "outcome 8");
}

}  // namespace
}  // namespace vok::ctl
