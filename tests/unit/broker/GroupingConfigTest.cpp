#include <ostream>
#include <string>
#include <vector>

#include "platform/Limits.h"
#include "tests/support/BrokerTest.h"

namespace vok {
namespace {

using namespace test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::StartsWith;

constexpr char kConfig[] = "/usr/bin/emps/empHome/empHome.xml";
constexpr char kDownloadedConfig[] = "/opt/down/emps/empHome/empHome.xml";

std::string Hosting(const std::vector<std::string>& emps) {
    std::string strXml = "<Emp><Version>1.0</Version><GroupingEmps>";
    for (const std::string& strEmp : emps) strXml += "<Name>" + strEmp + "</Name>";
    return strXml + "</GroupingEmps></Emp>";
}

class GroupingConfigTest : public BrokerTest {
protected:
    void Read() { BrokerProbe::ReadGroupingEmps(m_Broker); }
    LauncherTable Groups() { return BrokerProbe::Groups(m_Broker); }
};

TEST_F(GroupingConfigTest, WithoutFilesThereAreNoGroups) {
    Read();

    EXPECT_THAT(Groups(), IsEmpty());
    EXPECT_THAT(m_Log.Records(), IsEmpty());
}

TEST_F(GroupingConfigTest, HostedEmpsComeFromTheConfiguration) {
    m_Fake.files.Add(kConfig, Hosting({"Weather", "Clock"}));

    Read();

    EXPECT_THAT(Groups(), ElementsAre(Pair(Pair("Home", "N/A"), ElementsAre("Clock", "Weather"))));
    EXPECT_THAT(LinesOf(m_Log, "InsertGroupingEMP"),
                ElementsAre("1 Grouping EMP [Home|N/A] hosts [2] EMPs."));
    EXPECT_THAT(LinesOf(m_Log, "ReadGroupingEmps"), IsEmpty());
}

TEST_F(GroupingConfigTest, HostedEmpLivesInItsGroupFromThenOn) {
    m_Fake.files.Add(kConfig, Hosting({"Weather"}));
    EXPECT_EQ(m_Broker.WhereIsEMP("Weather"), EMPLOCATION_UNKNOWN);

    Read();

    EXPECT_EQ(m_Broker.WhereIsEMP("Weather"), EMPLOCATION_GROUPING);
}

TEST_F(GroupingConfigTest, BothFoldersAreMerged) {
    m_Fake.files.Add(kConfig, Hosting({"Weather", "Clock"}));
    m_Fake.files.Add(kDownloadedConfig, Hosting({"Clock", "Radio"}));
    m_Fake.files.Add("/opt/down/emps/empSports/empSports.xml", Hosting({"Golf"}));

    Read();

    EXPECT_THAT(Groups(),
                ElementsAre(Pair(Pair("Home", "N/A"), ElementsAre("Clock", "Radio", "Weather")),
                            Pair(Pair("Sports", "N/A"), ElementsAre("Golf"))));
}

TEST_F(GroupingConfigTest, GroupThatRunsKeepsItsPort) {
    BrokerProbe::SetGroup(m_Broker, "Home", "40001", {"Weather"});
    m_Fake.files.Add(kConfig, Hosting({"Clock"}));

    Read();

    EXPECT_THAT(Groups(),
                ElementsAre(Pair(Pair("Home", "40001"), ElementsAre("Clock", "Weather"))));
}

TEST_F(GroupingConfigTest, MalformedFileIsLoggedAndTheOthersCount) {
    m_Fake.files.Add("/usr/bin/emps/empA/empA.xml", Hosting({"Weather"}));
    m_Fake.files.Add(kConfig, "<Emp><GroupingEmps><Name>Clock</Name>");
    m_Fake.files.Add("/usr/bin/emps/empZ/empZ.xml", Hosting({"Radio"}));

    Read();

    EXPECT_THAT(Groups(), ElementsAre(Pair(Pair("A", "N/A"), ElementsAre("Weather")),
                                      Pair(Pair("Z", "N/A"), ElementsAre("Radio"))));
    EXPECT_THAT(LinesOf(m_Log, "ReadGroupingEmps"),
                ElementsAre(StartsWith(
                    "0 The EMP configuration [/usr/bin/emps/empHome/empHome.xml] is malformed: ")));
}

TEST_F(GroupingConfigTest, OtherRootIsLogged) {
    m_Fake.files.Add(kConfig, "<Emps>" + Hosting({"Weather"}) + "</Emps>");

    Read();

    EXPECT_THAT(Groups(), IsEmpty());
    EXPECT_THAT(LinesOf(m_Log, "ReadGroupingEmps"),
                ElementsAre("0 The EMP configuration [/usr/bin/emps/empHome/empHome.xml] is "
                            "malformed: its root is not <Emp>."));
}

TEST_F(GroupingConfigTest, LargerFileThanIsReadIsMalformed) {
    std::string strXml = Hosting({"Weather"});
    strXml.insert(strXml.find("<GroupingEmps>"), std::string(kMaxTextFile, ' '));
    m_Fake.files.Add(kConfig, strXml);

    Read();

    EXPECT_THAT(Groups(), IsEmpty());
    EXPECT_THAT(LinesOf(m_Log, "ReadGroupingEmps"), ElementsAre(StartsWith("0 ")));
}

// ---- What makes no group, without a word ----

struct QuietCase {
    const char* szName;
    std::string strPath;
    std::string strContent;
};
void PrintTo(const QuietCase& c, std::ostream* pStream) {
    *pStream << c.szName;
}

class NoGroupTest : public GroupingConfigTest, public ::testing::WithParamInterface<QuietCase> {};

TEST_P(NoGroupTest, IsPassedOverQuietly) {
    m_Fake.files.Add(GetParam().strPath, GetParam().strContent);

    Read();

    EXPECT_THAT(Groups(), IsEmpty());
    EXPECT_THAT(m_Log.Records(), IsEmpty()) << m_Log.Text();
}

INSTANTIATE_TEST_SUITE_P(
    Table, NoGroupTest,
    ::testing::Values(
        QuietCase{"NoFile", "/usr/bin/emps/empHome/empHome", "program"},
        QuietCase{"OtherFile", "/usr/bin/emps/empHome/empOther.xml", Hosting({"Weather"})},
        QuietCase{"OtherFolder", "/usr/bin/emps/Home/Home.xml", Hosting({"Weather"})},
        QuietCase{"FolderInOtherCase", "/usr/bin/emps/EmpHome/EmpHome.xml", Hosting({"Weather"})},
        QuietCase{"FolderWithoutAName", "/usr/bin/emps/emp/emp.xml", Hosting({"Weather"})},
        QuietCase{"FileInTheRoot", "/usr/bin/emps/empHome.xml", Hosting({"Weather"})},
        QuietCase{"OtherRootFolder", "/usr/bin/emps2/empHome/empHome.xml", Hosting({"Weather"})},
        QuietCase{"NoGroupingEmps", kConfig, "<Emp><Version>1.0</Version></Emp>"},
        QuietCase{"EmptyRoot", kConfig, "<Emp/>"}, QuietCase{"NobodyHosted", kConfig, Hosting({})},
        QuietCase{"BlankNames", kConfig, Hosting({"", "  ", "\n\t"})},
        QuietCase{"NamesElsewhere", kConfig,
                  "<Emp><Name>Weather</Name><GroupingEmps><Emp><Name>Clock</Name></Emp>"
                  "</GroupingEmps></Emp>"},
        QuietCase{"NamesInOtherCase", kConfig,
                  "<Emp><GroupingEmps><name>Weather</name></GroupingEmps></Emp>"}),
    [](const auto& info) { return info.param.szName; });

// ---- How names are written ----

struct NameCase {
    const char* szName;
    std::string strXml;  // between <GroupingEmps> and its end
    std::vector<std::string> emps;
};
void PrintTo(const NameCase& c, std::ostream* pStream) {
    *pStream << c.szName;
}

class HostedNameTest : public GroupingConfigTest, public ::testing::WithParamInterface<NameCase> {};

TEST_P(HostedNameTest, IsTaken) {
    m_Fake.files.Add(kConfig, "<?xml version='1.0'?>\n<Emp>\n <GroupingEmps>\n" +
                                  GetParam().strXml + "\n </GroupingEmps>\n</Emp>\n");

    Read();

    EXPECT_THAT(Groups(), ElementsAre(Pair(Pair("Home", "N/A"),
                                           ::testing::ElementsAreArray(GetParam().emps))));
}

INSTANTIATE_TEST_SUITE_P(
    Table, HostedNameTest,
    ::testing::Values(
        NameCase{"BlanksAroundIt", "<Name>\n  Weather\t\n</Name>", {"Weather"}},
        NameCase{"BlanksInside", "<Name>My Weather</Name>", {"My Weather"}},
        NameCase{"Twice", "<Name>Weather</Name><Name>Weather</Name>", {"Weather"}},
        NameCase{
            "BlankOnesBetween", "<Name>A</Name><Name/><Name> </Name><Name>B</Name>", {"A", "B"}},
        NameCase{"Attributes", "<Name id='1'>Weather</Name>", {"Weather"}},
        NameCase{"Entities", "<Name>A&amp;B</Name>", {"A&B"}},
        NameCase{"CharacterData", "<Name><![CDATA[A<B]]></Name>", {"A<B"}},
        NameCase{"SeveralPieces", "<Name> A<!-- no -->B<![CDATA[ C ]]></Name>", {"AB C"}},
        NameCase{"CommentsBetween", "<!-- <Name>No</Name> --><Name>Weather</Name>", {"Weather"}},
        NameCase{"OthersBetween", "<Note>No</Note><Name>Weather</Name>", {"Weather"}}),
    [](const auto& info) { return info.param.szName; });

TEST_F(GroupingConfigTest, NameIsWhatFollowsEmp) {
    m_Fake.files.Add("/usr/bin/emps/empemp 1/empemp 1.xml", Hosting({"Weather"}));

    Read();

    EXPECT_THAT(Groups(), ElementsAre(Pair(Pair("emp 1", "N/A"), ElementsAre("Weather"))));
}

}  // namespace
}  // namespace vok
