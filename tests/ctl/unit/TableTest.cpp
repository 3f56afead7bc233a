#include <gtest/gtest.h>

#include "ctl/Table.h"

namespace vok::ctl {
namespace {

Style Plain(int nWidth = 0, bool bUtf8 = true) {
    Style style;
    style.bUtf8 = bUtf8;
    style.nWidth = nWidth;
    return style;
}

CTable Sample() {
    CTable table{{{"EMP"}, {"PID", true}, {"PORT"}}};
    table.Add({"Weather", "4711", "40011"});
    table.Add({"\u5929\u6C17", "5", ""});
    return table;
}

TEST(Table, AlignsByColumns) {
    EXPECT_EQ(Sample().Render(Plain()),
              "EMP       PID  PORT\n"
              "Weather  4711  40011\n"
              "\u5929\u6C17        5\n");
}

TEST(Table, HasNoTrailingBlanks) {
    CTable table{{{"A"}, {"B"}}};
    table.Add({"", ""});
    table.Add({"long", ""});
    EXPECT_EQ(table.Render(Plain()), "A     B\n\nlong\n");
}

TEST(Table, LetsItsWidestColumnGiveWay) {
    CTable table{{{"NAME"}, {"PORT"}}};
    table.Add({std::string(40, 'n'), "40011"});
    EXPECT_EQ(table.Render(Plain(20)),
              "NAME           PORT\n"
              "nnnnnnnnnnnn\u2026  40011\n");
    EXPECT_EQ(table.Render(Plain(20, false)),
              "NAME           PORT\n"
              "nnnnnnnnnnnn~  40011\n");
}

TEST(Table, IsNeverWiderThanTheTerminal) {
    CTable table{{{"FIRST"}, {"SECOND", true}, {"THIRD"}, {"FOURTH"}, {"FIFTH"}}};
    table.Add({"something", "12345678", "\u5929\u6C17\u5929\u6C17", "x", "and more of it"});
    for (int nWidth = 1; nWidth <= 60; ++nWidth) {
        const std::string strTable = table.Render(Plain(nWidth));
        std::size_t nStart = 0;
        for (std::size_t nEnd = 0; (nEnd = strTable.find('\n', nStart)) != std::string::npos;
             nStart = nEnd + 1)
            EXPECT_LE(Width(strTable.substr(nStart, nEnd - nStart)), nWidth) << strTable;
    }
}

TEST(Table, PaintsOnlyWhereColoursAre) {
    CTable table{{{"STATUS"}}};
    table.Add({Cell("opened", eColour::Green)});
    Style style = Plain();
    EXPECT_EQ(table.Render(style).find('\x1B'), std::string::npos);

    style.bColour = true;
    EXPECT_EQ(table.Render(style), "\x1B[1mSTATUS\x1B[0m\n\x1B[32mopened\x1B[0m\n");
}

TEST(Table, DefusesWhatPeersSend) {
    CTable table{{{"NAME"}}};
    table.Add({"\x1B]0;mine\x07"});
    EXPECT_EQ(table.Render(Plain()), "NAME\n\\x1B]0;mine\\x07\n");
}

TEST(Table, CountsPiecesOfACellTogether) {
    CTable table{{{"BAR"}, {"X"}}};
    table.Add({Cell(std::vector<Span>{{"ll", eColour::Cyan}, {"mmm", eColour::Yellow}}), "x"});
    EXPECT_EQ(table.Render(Plain()), "BAR    X\nllmmm  x\n");
}

TEST(CutLines, TellsHowManyAreLeftOut) {
    EXPECT_EQ(CutLines("a\nb\nc\n", 3, Plain()), "a\nb\nc\n");
    EXPECT_EQ(CutLines("a\nb\nc\nd\n", 3, Plain()), "a\nb\n\u2026 2 more lines\n");
    EXPECT_EQ(CutLines("a\nb\n", 1, Plain()), "\u2026 2 more lines\n");
    Style ascii = Plain();
    ascii.bUtf8 = false;
    EXPECT_EQ(CutLines("a\nb\nc\n", 2, ascii), "a\n... 2 more lines\n");
}

TEST(Line, IsCutInTheMiddleOfItsPieces) {
    EXPECT_EQ(Line({{"vok-broker", eColour::None}, {" 5.100"}}, Plain(13)), "vok-broker 5.100\n");
    Style inPlace = Plain(13);
    inPlace.bInPlace = true;
    EXPECT_EQ(Line({{"vok-broker", eColour::None}, {" 5.100"}}, inPlace), "vok-broker 5\u2026\n");
    EXPECT_EQ(Line("one\ntwo", Plain()), "one\\x0Atwo\n");
}

}  // namespace
}  // namespace vok::ctl
