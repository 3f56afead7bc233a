#include <cmath>
#include <fstream>
#include <limits>
#include <ostream>
#include <string>

#include "broker/PluginChoice.h"
#include "tests/support/BrokerTest.h"
#include "tests/support/CTemporaryFolder.h"

namespace vok {
namespace {

using namespace test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class EmpConfigTest : public BrokerTest {
protected:
    double Parse(const std::string& strContent) {
        const std::string strPath = m_Folder.Path("emp.xml");
        std::ofstream{strPath} << strContent;
        m_Log.Clear();
        return m_Broker.m_ParseLocalEmpCfgFile(strPath);
    }
    double ParseVersion(const std::string& strVersion) {
        return Parse("<?xml version=\"1.0\"?><Emp><Version>" + strVersion + "</Version></Emp>");
    }

    CTemporaryFolder m_Folder;
};

struct VersionCase {
    const char* szVersion;
    double dVersion;
};

TEST_F(EmpConfigTest, VersionIsTheWholeTextOrNothing) {
    const VersionCase cases[] = {
        {"5.100", 5.1},
        {"5", 5.0},
        {"-1.5", -1.5},
        {"1e3", 1000.0},
        {"1E-1", 0.1},
        {".5", 0.5},
        {"+2", 2.0},
        {"  5.1", 0.0},
        {"5.1 ", 0.0},
        {"5.1\n", 0.0},
        {"\t5.1", 0.0},
        {"", 0.0},
        {"1e", 0.0},
        {"1E", 0.0},
        {"1e+", 0.0},
        {"1e-", 0.0},
        {"1+", 0.0},
        {"1-", 0.0},
        {"5.1.2", 0.0},
        {"5,1", 0.0},
        {"v5.1", 0.0},
        {"5.1b", 0.0},
        {"abc", 0.0},
        {"-", 0.0},
        {"infx", 0.0},
        {"inf", std::numeric_limits<double>::infinity()},
        {"-inf", -std::numeric_limits<double>::infinity()},
        {"infinity", std::numeric_limits<double>::infinity()},
    };
    for (const VersionCase& c : cases) {
        SCOPED_TRACE(c.szVersion);
        EXPECT_DOUBLE_EQ(ParseVersion(c.szVersion), c.dVersion);
        EXPECT_THAT(m_Log.Records(), IsEmpty());  // also of what is no number
    }
    EXPECT_TRUE(std::isnan(ParseVersion("nan")));
}

struct DocumentCase {
    const char* szDocument;
    double dVersion;
};

TEST_F(EmpConfigTest, VersionStandsInItsPlaceOnly) {
    const DocumentCase cases[] = {
        {"<Emp><Name>x</Name><Version>5.1</Version><Other/></Emp>", 5.1},
        {"<Emp><Version>1.0</Version><Version>2.0</Version></Emp>", 1.0},
        {"<Emp><!-- old --><Version>5.1</Version></Emp>", 5.1},
        {"<Emp/>", 0.0},
        {"<Emp><version>5.1</version></Emp>", 0.0},
        {"<Emp Version='5.1'/>", 0.0},
        {"<Emp><Info><Version>5.1</Version></Info></Emp>", 0.0},
        {"<emp><Version>5.1</Version></emp>", 0.0},
        {"<Root><Emp><Version>5.1</Version></Emp></Root>", 0.0},
        {"<Version>5.1</Version>", 0.0},
    };
    for (const DocumentCase& c : cases) {
        SCOPED_TRACE(c.szDocument);
        EXPECT_DOUBLE_EQ(Parse(c.szDocument), c.dVersion);
        EXPECT_THAT(m_Log.Records(), IsEmpty());
    }
}

TEST_F(EmpConfigTest, EmptyPathIsTold) {
    EXPECT_EQ(m_Broker.m_ParseLocalEmpCfgFile(""), 0.0);
    EXPECT_THAT(LinesOf(m_Log, "m_ParseLocalEmpCfgFile"),
                ElementsAre("0 Input Xml file is empty!"));
}

TEST_F(EmpConfigTest, FileThatCannotBeLoadedIsTold) {
    const std::string kError = "0 doc.load Emp config file error!";

    EXPECT_EQ(m_Broker.m_ParseLocalEmpCfgFile(m_Folder.Path("missing.xml")), 0.0);
    EXPECT_THAT(LinesOf(m_Log, "m_ParseLocalEmpCfgFile"), ElementsAre(kError));

    for (const char* szContent :
         {"", "no xml at all", "<Emp><Version>5.1</Version>", "<Emp></emp>"}) {
        SCOPED_TRACE(szContent);
        EXPECT_EQ(Parse(szContent), 0.0);
        EXPECT_THAT(LinesOf(m_Log, "m_ParseLocalEmpCfgFile"), ElementsAre(kError));
    }
}

TEST_F(EmpConfigTest, TheFrameworksOwnVersionIsFixed) {
    EXPECT_EQ(CBroker::GetFullVersion(), "5.100");
    EXPECT_EQ(CVokWrapper::GetVokVersion(), "5.100");
    EXPECT_EQ(CBroker::GetMajorVersion(), 5);
    EXPECT_EQ(CBroker::GetMinorVersion(), 100);
    EXPECT_THAT(LinesOf(m_Log, "GetFullVersion"),
                ElementsAre("4 GetFullVersion : [5.100].", "4 GetFullVersion : [5.100]."));
}

// ---- The choice between two plug-in images ----

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();

struct ChoiceCase {
    const char* szName;
    double dUpdate;
    double dBuiltIn;
    bool bUpdateHasContent;
    bool bPrefersUpdate;
};
void PrintTo(const ChoiceCase& c, std::ostream* pStream) {
    *pStream << c.szName;
}

class PrefersUpdateTest : public ::testing::TestWithParam<ChoiceCase> {};

TEST_P(PrefersUpdateTest, GoesByVersionsThenByContent) {
    const ChoiceCase& c = GetParam();
    EXPECT_EQ(PrefersUpdate(c.dUpdate, c.dBuiltIn, c.bUpdateHasContent), c.bPrefersUpdate);
}

INSTANTIATE_TEST_SUITE_P(
    Table, PrefersUpdateTest,
    ::testing::Values(ChoiceCase{"NewerUpdate", 5.2, 5.1, true, true},
                      ChoiceCase{"NewerUpdateWithoutContent", 5.2, 5.1, false, true},
                      ChoiceCase{"NewerThanNothing", 0.1, 0.0, true, true},
                      ChoiceCase{"NoVersionsButBetterThanMinus", 0.0, -1.0, false, true},
                      ChoiceCase{"Equal", 5.1, 5.1, true, false},
                      ChoiceCase{"EqualWithoutContent", 5.1, 5.1, false, true},
                      ChoiceCase{"Older", 5.0, 5.1, true, false},
                      ChoiceCase{"OlderWithoutContent", 5.0, 5.1, false, true},
                      ChoiceCase{"NoVersionAtAll", 0.0, 0.0, true, false},
                      ChoiceCase{"NoVersionAndNoContent", 0.0, 0.0, false, false},
                      ChoiceCase{"NotMounted", -1.0, 0.0, true, false},
                      ChoiceCase{"NotMountedAndNoContent", -1.0, 5.1, false, false},
                      ChoiceCase{"NoNumber", kNan, 5.1, true, false},
                      ChoiceCase{"NoNumberAndNoContent", kNan, 5.1, false, false}),
    [](const auto& info) { return info.param.szName; });

// ---- The steps of the start that concern the plug-ins and the ready flag ----

constexpr char kDownload[] = "/opt/down/appbinarymanager/default/empPepperPlugins.img";
constexpr char kUpdate[] = "/opt/down/emps/empPepperPlugins_img/empPepperPlugins.img";
constexpr char kBuiltIn[] = "/usr/bin/emps/empPepperPlugins/empPepperPlugins.img";
constexpr char kReadyFlag[] = "/tmp/vok_ready";

class StartStepsTest : public BrokerTest {
protected:
    std::vector<std::string> Lines() const { return LinesOf(m_Log, "StartServer"); }
};

TEST_F(StartStepsTest, WithoutADownloadThereIsNothingToInstall) {
    EXPECT_TRUE(BrokerProbe::InstallPluginUpdate(m_Broker));
    EXPECT_THAT(Lines(), ElementsAre("4 [PepperPlugins] There is no update now."));
}

TEST_F(StartStepsTest, DownloadIsMovedToItsPlace) {
    m_Fake.files.Add(kDownload);

    EXPECT_TRUE(BrokerProbe::InstallPluginUpdate(m_Broker));

    EXPECT_THAT(m_Fake.files.Calls(),
                ElementsAre(std::string("IsAccessible ") + kDownload,
                            std::string("Move ") + kDownload + ' ' + kUpdate));
    EXPECT_THAT(Lines(), ElementsAre(std::string("4 ### Move [") + kDownload + "] to [" + kUpdate +
                                     "] ###"));
}

TEST_F(StartStepsTest, DownloadThatCannotBeMovedEndsTheStartBeforeAnythingIsMounted) {
    m_Fake.files.Add(kDownload);
    m_Fake.files.FailChanges();

    EXPECT_FALSE(BrokerProbe::PreparePlugins(m_Broker));

    EXPECT_THAT(Lines(), ElementsAre("0 Failed to MoveFile:[PepperPlugins]."));
    EXPECT_THAT(m_Fake.mounter.Calls(), IsEmpty());
}

TEST_F(StartStepsTest, UpdateThatCannotBeMountedHasVersionMinusOne) {
    m_Fake.mounter.FailMounts(5);

    EXPECT_EQ(BrokerProbe::ReadUpdateVersion(m_Broker), -1.0);

    EXPECT_THAT(Lines(), ElementsAre("0 strOldPepper Img_Mount Fail"));
    // Not mounted: both tries of unmounting say so.
    EXPECT_EQ(m_Log.CountLines(LEVEL_DETAIL, "Img_UnMount",
                               "Are you kidding me? Image:[PepperPlugins] was not mounted yet!"),
              2);
}

struct ImageCase {
    const char* szName;
    double dUpdate;
    double dBuiltIn;
    const char* szContent;  // of the update; null: there is none
    const char* szImage;
    const char* szLine;  // null: none
};
void PrintTo(const ImageCase& c, std::ostream* pStream) {
    *pStream << c.szName;
}

class ChoosePluginImageTest : public StartStepsTest,
                              public ::testing::WithParamInterface<ImageCase> {};

TEST_P(ChoosePluginImageTest, LooksAtTheUpdateWhenItIsNotNewer) {
    const ImageCase& c = GetParam();
    if (c.szContent != nullptr) m_Fake.files.Add(kUpdate, c.szContent);

    EXPECT_EQ(BrokerProbe::ChoosePluginImage(m_Broker, c.dUpdate, c.dBuiltIn), c.szImage);

    std::vector<std::string> expected;
    if (c.szLine != nullptr) expected.emplace_back(c.szLine);
    EXPECT_EQ(Lines(), expected);
}

INSTANTIATE_TEST_SUITE_P(
    Table, ChoosePluginImageTest,
    ::testing::Values(
        ImageCase{"NewerUpdate", 5.2, 5.1, nullptr, kUpdate, nullptr},
        ImageCase{"EqualWithContent", 5.1, 5.1, "x", kBuiltIn, "4 Size of NewPeppersize [1] bytes"},
        ImageCase{"EqualAndEmpty", 5.1, 5.1, "", kUpdate, "4 Size of NewPeppersize [0] bytes"},
        ImageCase{"EqualAndMissing", 5.1, 5.1, nullptr, kUpdate, "0 Error opening file."},
        ImageCase{"NoVersionsAndEmpty", 0.0, 0.0, "", kBuiltIn,
                  "4 Size of NewPeppersize [0] bytes"},
        ImageCase{"NoVersionsAndMissing", 0.0, 0.0, nullptr, kBuiltIn, "0 Error opening file."},
        ImageCase{"NotMountedAndMissing", -1.0, 0.0, nullptr, kBuiltIn, "0 Error opening file."}),
    [](const auto& info) { return info.param.szName; });

TEST_F(StartStepsTest, ReadyFlagIsRaisedAndLowered) {
    m_Fake.files.Add(kReadyFlag, "old");  // emptied, not refused

    EXPECT_TRUE(BrokerProbe::RaiseReadyFlag(m_Broker));
    EXPECT_EQ(m_Fake.files.SizeOf(kReadyFlag), 0);
    EXPECT_TRUE(BrokerProbe::LowerReadyFlag(m_Broker));
    EXPECT_FALSE(m_Fake.files.Exists(kReadyFlag));

    EXPECT_THAT(Lines(), ElementsAre("3 Succeed to start [Broker-Server]."));
    EXPECT_THAT(LinesOf(m_Log, "RemoveFile"), ElementsAre("3 Succeed to remove [/tmp/vok_ready]."));
}

TEST_F(StartStepsTest, ReadyFlagThatCannotBeRaisedIsTold) {
    m_Fake.files.FailChanges();

    EXPECT_FALSE(BrokerProbe::RaiseReadyFlag(m_Broker));

    EXPECT_THAT(LinesOf(m_Log, "CreateFile"), ElementsAre("0 Create [/tmp/vok_ready] failed."));
    EXPECT_THAT(Lines(), ElementsAre("0 Failed to generate ready flag for [Broker-Server]."));
}

TEST_F(StartStepsTest, ReadyFlagThatCannotBeLoweredIsTold) {
    EXPECT_FALSE(BrokerProbe::LowerReadyFlag(m_Broker));  // there is none

    EXPECT_THAT(LinesOf(m_Log, "RemoveFile"), ElementsAre("0 Remove [/tmp/vok_ready] failed."));
    EXPECT_THAT(Lines(), ElementsAre("0 RemoveFile [/tmp/vok_ready] failed."));
}

}  // namespace
}  // namespace vok
