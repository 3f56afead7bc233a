// Where the time of opens went: as spans, as a table, as a picture.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pugixml.hpp>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "ctl/Blame.h"
#include "ctl/BlameSvg.h"
#include "ctl/Failure.h"
#include "tests/support/CTemporaryFolder.h"

namespace vok::ctl {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

admin::OpenTimes Open(const std::string& strEmp, int nOutcome, std::int64_t nLocated,
                      std::int64_t nMounted, std::int64_t nStarted, std::int64_t nReported,
                      std::int64_t nAnswered) {
    admin::OpenTimes open;
    open.serial = 7;
    open.empName = strEmp;
    open.clientPort = "40001";
    open.location = 2;
    open.outcome = nOutcome;
    open.agoMs = 61'000;
    open.locatedUs = nLocated;
    open.mountedUs = nMounted;
    open.startedUs = nStarted;
    open.reportedUs = nReported;
    open.answeredUs = nAnswered;
    return open;
}

admin::OpenTimes Started(const std::string& strEmp) {
    return Open(strEmp, 3, 100, 10'100, 12'100, 20'100, 20'200);
}
admin::OpenTimes Reused(const std::string& strEmp) {
    return Open(strEmp, 2, 50, -1, -1, -1, 80);
}

Style Plain(bool bUtf8 = false) {
    Style style;
    style.bUtf8 = bUtf8;
    return style;
}

std::vector<std::string> NamesOf(const std::vector<OpenSpans>& opens) {
    std::vector<std::string> names;
    for (const OpenSpans& open : opens) names.push_back(open.record.empName);
    return names;
}

TEST(Blame, PhasesAreTheTimesBetweenTheSteps) {
    const auto opens = LongestFirst({Started("Image")}, "", 0);
    ASSERT_THAT(opens, SizeIs(1));
    EXPECT_THAT(opens[0].phasesUs, ElementsAre(100, 10'000, 2'000, 8'000, 100));
    EXPECT_EQ(opens[0].nTotalUs, 20'200);
}

TEST(Blame, StepsThatWereLeftOutTakeNoTime) {
    const auto opens = LongestFirst({Reused("Image")}, "", 0);
    ASSERT_THAT(opens, SizeIs(1));
    EXPECT_THAT(opens[0].phasesUs, ElementsAre(50, -1, -1, -1, 30));
    EXPECT_EQ(opens[0].nTotalUs, 80);
}

TEST(Blame, TimesThatRunBackwardsMakeNoNegativePhase) {
    const auto opens = LongestFirst({Open("Odd", 3, 500, 300, -7, 600, 550)}, "", 0);
    ASSERT_THAT(opens, SizeIs(1));
    EXPECT_THAT(opens[0].phasesUs, ElementsAre(500, 0, -1, 100, 0));
    EXPECT_EQ(opens[0].nTotalUs, 600);
}

TEST(Blame, LongestComesFirstAndEqualOnesKeepTheirOrder) {
    const std::vector<admin::OpenTimes> opens{Reused("A"), Started("B"), Reused("C"), Started("D")};
    EXPECT_THAT(NamesOf(LongestFirst(opens, "", 0)), ElementsAre("B", "D", "A", "C"));
    EXPECT_THAT(NamesOf(LongestFirst(opens, "", 3)), ElementsAre("B", "D", "A"));
    EXPECT_THAT(NamesOf(LongestFirst(opens, "C", 0)), ElementsAre("C"));
    EXPECT_THAT(NamesOf(LongestFirst(opens, "Nobody", 0)), IsEmpty());
}

TEST(Blame, TableHasABarForEachOpenAndTotals) {
    const auto opens = LongestFirst({Started("Image"), Reused("Image")}, "", 0);
    EXPECT_EQ(BlameReport(opens, Plain()),
              "l located  m mounted  s started  r reported  a answered\n"
              "EMP    OUTCOME        AGO    TOTAL  LOCATED  MOUNTED  STARTED  REPORTED  ANSWERED  "
              "TIME\n"
              "Image  started  1 min 1 s  20.2 ms   100 us  10.0 ms  2.00 ms   8.00 ms    100 us  "
              "mmmmmmmmmmmmmmmmmmmmssssrrrrrrrrrrrrrrrr\n"
              "Image  reused   1 min 1 s    80 us    50 us        -        -         -     30 us\n"
              "\n"
              "2 opens, 20.3 ms: 1 started, 1 reused\n"
              "until located 150 us (1 %), mounted 10.0 ms (49 %), started 2.00 ms (10 %), "
              "reported 8.00 ms (39 %), answered 130 us (1 %)\n");
}

TEST(Blame, OpenThatWaitedForSomebodyElsesStartSaysSo) {
    const auto opens = LongestFirst(
        {Open("Image", 2, 60, -1, -1, 44'000, 44'030), Started("Image"), Reused("Image")}, "", 0);
    const std::string strReport = BlameReport(opens, Plain());
    EXPECT_THAT(strReport,
                HasSubstr("Image  waited   1 min 1 s  44.0 ms    60 us        -        -   43.9 ms"
                          "     30 us  rrr"));
    EXPECT_EQ(BlameSummary(opens), "3 opens, 64.3 ms: 1 started, 1 reused, 1 waited");
}

TEST(Blame, BarsFitEveryTerminal) {
    const auto opens = LongestFirst({Started("Image"), Reused("Image")}, "", 0);
    Style style = Plain();
    for (const int nWidth : {60, 80, 110, 200}) {
        style.nWidth = nWidth;
        const std::string strReport = BlameReport(opens, style);
        std::istringstream lines(strReport);
        std::string strLine;
        // What follows the empty line are sentences.
        while (std::getline(lines, strLine) && !strLine.empty()) EXPECT_LE(Width(strLine), nWidth);
        EXPECT_THAT(strReport, HasSubstr("mmmmm")) << nWidth;
        EXPECT_THAT(strReport, HasSubstr("rrr\n")) << "cut: " << strReport;
    }
    EXPECT_THAT(BlameReport(opens, style), HasSubstr("MOUNTED"));
    style.nWidth = 80;
    EXPECT_THAT(BlameReport(opens, style), Not(HasSubstr("MOUNTED")));
}

TEST(Blame, NothingYetIsSaid) {
    EXPECT_EQ(BlameReport({}, Plain()), "No open has ended yet.\n");
    EXPECT_EQ(NoOpens("Nobody", 0), "No open has ended yet.");
    EXPECT_EQ(NoOpens("Nobody", 13), "No open of Nobody is among the last 13.");
}

TEST(Blame, OpensWithoutAnyTimeDrawNoBar) {
    const auto opens = LongestFirst({Open("Zero", 0, 0, -1, -1, -1, 0)}, "", 0);
    EXPECT_THAT(BlameReport(opens, Plain()), HasSubstr("1 open, 0 us: 1 refused"));
}

// ---- The picture --------------------------------------------------------------------------------

pugi::xml_document Loaded(const std::string& strSvg) {
    pugi::xml_document document;
    const auto result = document.load_buffer(strSvg.data(), strSvg.size());
    EXPECT_TRUE(result) << result.description() << '\n' << strSvg;
    return document;
}

std::string AllText(const pugi::xml_node& node) {
    std::string strText;
    for (const auto& text : node.select_nodes("//text | //title"))
        strText += std::string(text.node().child_value()) + '\n';
    return strText;
}

TEST(BlameSvg, HasALaneForEachOpenAndAPieceForEachPhase) {
    const pugi::xml_document document =
        Loaded(BlameSvg(LongestFirst({Started("Image"), Reused("Other")}, "", 0)));
    const pugi::xml_node svg = document.child("svg");
    EXPECT_STREQ(svg.attribute("xmlns").value(), "http://www.w3.org/2000/svg");
    const auto lanes = svg.children("g");
    ASSERT_EQ(std::distance(lanes.begin(), lanes.end()), 2);
    EXPECT_EQ(svg.select_nodes("g[1]/rect").size(), 5U);
    EXPECT_EQ(svg.select_nodes("g[2]/rect").size(), 2U);
    const std::string strText = AllText(svg);
    for (const char* const szText : {"Image", "Other", "until mounted", "20.2 ms, started",
                                     "time since each open began", "until mounted: 10.0 ms"})
        EXPECT_THAT(strText, HasSubstr(szText));
}

TEST(BlameSvg, TellsOfAWaitForSomebodyElsesStart) {
    const std::string strSvg =
        BlameSvg(LongestFirst({Open("Image", 2, 60, -1, -1, 44'000, 44'030)}, "", 0));
    EXPECT_THAT(AllText(Loaded(strSvg)), HasSubstr("44.0 ms, waited"));
}

TEST(BlameSvg, PiecesFollowEachOtherWithinTheAxis) {
    const pugi::xml_document document = Loaded(BlameSvg(LongestFirst({Started("Image")}, "", 0)));
    double dEnd = 230;
    for (const auto& piece : document.select_nodes("/svg/g/rect")) {
        EXPECT_NEAR(piece.node().attribute("x").as_double(), dEnd, 0.8);
        dEnd =
            piece.node().attribute("x").as_double() + piece.node().attribute("width").as_double();
    }
    EXPECT_NEAR(dEnd, 930, 0.8) << "the longest open takes the whole axis";
}

TEST(BlameSvg, IsSelfContainedAndEscapesWhatPeersCallThemselves) {
    const std::string strEvil = "</text><script>alert(1)</script>&\"\x1B\x01\xFF";
    const std::string strSvg = BlameSvg(LongestFirst({Started(strEvil)}, "", 0));
    const pugi::xml_document document = Loaded(strSvg);
    EXPECT_TRUE(document.select_nodes("//script").empty());
    EXPECT_THAT(AllText(document), HasSubstr("</text><script>alert(1)</script>&\"\\x1B\\x01\\xFF"));
    EXPECT_THAT(strSvg, Not(HasSubstr("href")));
    EXPECT_THAT(strSvg, Not(HasSubstr("\x1B")));
}

TEST(BlameSvg, StaysFiniteWhateverTheNumbers) {
    constexpr std::int64_t kHuge = std::int64_t{1} << 62;
    const std::string strSvg = BlameSvg(LongestFirst(
        {Open("Huge", 3, kHuge, kHuge, kHuge, kHuge, kHuge), Open("None", 0, -1, -1, -1, -1, -1)},
        "", 0));
    Loaded(strSvg);
    EXPECT_LT(strSvg.size(), 20'000U);
    EXPECT_THAT(strSvg, Not(HasSubstr("nan")));
    EXPECT_THAT(strSvg, Not(HasSubstr("inf")));
}

TEST(BlameSvg, NothingYetIsAPictureToo) {
    EXPECT_THAT(AllText(Loaded(BlameSvg({}))), HasSubstr("No open has ended yet"));
    EXPECT_THAT(AllText(Loaded(BlameSvg({}, NoOpens("A&B", 2)))),
                HasSubstr("No open of A&B is among the last 2."));
}

TEST(BlameSvg, LegendExplainsTheRedOfFailures) {
    const pugi::xml_document document =
        Loaded(BlameSvg(LongestFirst({Open("Nowhere", 0, 10, -1, -1, -1, 20)}, "", 0)));
    const std::string strRed =
        document.select_node("/svg/g/rect[2]").node().attribute("fill").value();
    const pugi::xml_node box =
        document.select_node(("/svg/rect[@fill='" + strRed + "']").c_str()).node();
    ASSERT_TRUE(box) << "the legend does not have " << strRed;
    EXPECT_STREQ(box.next_sibling().child_value(), "in vain: it failed");
}

// ---- The file -----------------------------------------------------------------------------------

std::string Content(const std::string& strPath) {
    std::ifstream file(strPath);
    std::stringstream content;
    content << file.rdbuf();
    return content.str();
}

std::size_t CountFiles(const std::string& strFolder) {
    const std::filesystem::directory_iterator files(strFolder);
    return static_cast<std::size_t>(std::distance(begin(files), end(files)));
}

TEST(WriteFileAtOnce, ReplacesTheFileAndLeavesNothingElse) {
    const test::CTemporaryFolder folder;
    const std::string strPath = folder.Path("blame.svg");
    std::ofstream(strPath) << "old";
    struct stat before {};
    ASSERT_EQ(::stat(strPath.c_str(), &before), 0);
    // Whoever has the old file open goes on reading it.
    std::ifstream reader(strPath);

    const mode_t nUmask = ::umask(027);
    WriteFileAtOnce(strPath, "new");
    ::umask(nUmask);

    EXPECT_EQ(Content(strPath), "new");
    std::string strOld;
    reader >> strOld;
    EXPECT_EQ(strOld, "old");
    EXPECT_EQ(CountFiles(folder.Path()), 1U);
    struct stat after {};
    ASSERT_EQ(::stat(strPath.c_str(), &after), 0);
    EXPECT_NE(after.st_ino, before.st_ino);
    EXPECT_EQ(after.st_mode & 0777U, 0640U);
}

TEST(WriteFileAtOnce, FailsWithoutATrace) {
    const test::CTemporaryFolder folder;
    const std::string strPath = folder.Path("missing/blame.svg");
    try {
        WriteFileAtOnce(strPath, "new");
        FAIL() << "it has been written";
    } catch (const CFailure& failure) {
        EXPECT_EQ(failure.Exit(), EXIT_FAILED);
        EXPECT_THAT(failure.what(), HasSubstr("No such file or directory"));
    }
    EXPECT_EQ(CountFiles(folder.Path()), 0U);
    EXPECT_THROW(WriteFileAtOnce(folder.Path(), "new"), CFailure) << "a folder";
    EXPECT_EQ(CountFiles(folder.Path()), 0U);
}

TEST(WriteFileAtOnce, WritesThroughALink) {
    const test::CTemporaryFolder folder;
    std::ofstream(folder.Path("file")) << "an older and longer text";
    std::filesystem::create_symlink(folder.Path("file"), folder.Path("link"));

    WriteFileAtOnce(folder.Path("link"), "new");

    EXPECT_TRUE(std::filesystem::is_symlink(folder.Path("link")));
    EXPECT_EQ(Content(folder.Path("file")), "new");
}

TEST(IsFileOrMissing, TellsWhatIsReplacedFromWhatIsWrittenTo) {
    const test::CTemporaryFolder folder;
    EXPECT_TRUE(IsFileOrMissing(folder.Path("none")));
    std::ofstream(folder.Path("file")) << "old";
    EXPECT_TRUE(IsFileOrMissing(folder.Path("file")));
    std::filesystem::create_symlink(folder.Path("file"), folder.Path("link"));
    EXPECT_FALSE(IsFileOrMissing(folder.Path("link")));
    EXPECT_FALSE(IsFileOrMissing("/dev/null"));
}

TEST(WriteFileAtOnce, WritesIntoWhatIsNoFile) {
    WriteFileAtOnce("/dev/null", "new");
    EXPECT_TRUE(std::filesystem::is_character_file("/dev/null"));
    EXPECT_THROW(WriteFileAtOnce("/dev/full", "new"), CFailure);
}

}  // namespace
}  // namespace vok::ctl
