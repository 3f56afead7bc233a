// The daemon's start with real images: which plug-in set is mounted, and what stops a start.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "platform/CVOKDebug.h"
#include "platform/EmpPaths.h"
#include "platform/MountInfo.h"
#include "tests/support/CBrokerClient.h"
#include "tests/support/CDaemon.h"
#include "tests/support/CPrivateWorld.h"

namespace vok::test {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;

const std::string kUpdateImage = "/opt/down/emps/empPepperPlugins_img/empPepperPlugins.img";
const std::string kUpdateFolder = "/opt/down/emps/empPepperPlugins";
const std::string kBuiltInImage = "/usr/bin/emps/empPepperPlugins/empPepperPlugins.img";
const std::string kBuiltInConfig = "/usr/bin/emps/empPepperPlugins/empPepperPlugins.xml";
const std::string kDownload = "/opt/down/appbinarymanager/default/empPepperPlugins.img";
const std::string kPepper = "/opt/down/pepper";
const std::string kReadyFlag = "/tmp/vok_ready";

void WriteFile(const std::string& strPath, const std::string& strText) {
    fs::create_directories(fs::path(strPath).parent_path());
    std::ofstream file{strPath};
    file << strText;
    ASSERT_TRUE(file.flush()) << strPath;
}

std::string ReadFile(const std::string& strPath) {
    std::ifstream file{strPath};
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

std::string Config(const std::string& strVersion) {
    return "<Emp><Name>PepperPlugins</Name><Version>" + strVersion + "</Version></Emp>";
}

/// A plug-in image which tells, once it is mounted, that it is `strWhich`.
void MakeImage(const std::string& strImage, const std::string& strWhich,
               const std::string& strConfig) {
    const std::string strFolder = "/tmp/image-content";
    fs::remove_all(strFolder);
    WriteFile(strFolder + "/webapis/which", strWhich);
    if (!strConfig.empty()) WriteFile(strFolder + "/empPepperPlugins.xml", strConfig);
    fs::create_directories(fs::path(strImage).parent_path());
    const std::string strCommand = "mksquashfs " + strFolder + ' ' + strImage +
                                   " -noappend -quiet -no-progress >/tmp/mksquashfs.log 2>&1";
    ASSERT_EQ(std::system(strCommand.c_str()), 0) << ReadFile("/tmp/mksquashfs.log");
}

/// The image whose content is to be seen; "" when none is.
std::string MountedPlugins() {
    return ReadFile(kPepper + "/webapis/which");
}

bool IsMounted(const std::string& strPoint) {
    return FindMount(strPoint).has_value();
}

class StartUpTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string strReason;
        if (!CPrivateWorld::MayLoopMount(&strReason)) GTEST_SKIP() << strReason;
        m_Options.bLayOutPlugins = false;
        m_Options.environment["LD_LIBRARY_PATH"] = "/opt/lib";
    }

    static void InstallBuiltIn(const std::string& strConfig) {
        MakeImage(kBuiltInImage, "built-in", "");
        if (!strConfig.empty()) WriteFile(kBuiltInConfig, strConfig);
    }

    /// What the steps of the start have logged, in order.
    std::vector<std::string> StartLines() const {
        static const std::set<std::string> s_Steps{
            "CBroker",          "StartServer",  "Img_Mount",  "Img_UnMount",
            "Pepper_Img_Mount", "BrokerServer", "CreateFile", "RemoveFile"};
        std::vector<std::string> lines;
        for (const DaemonLogLine& line : m_Daemon.LogLines())
            if (s_Steps.count(line.strFunction) != 0)
                lines.push_back(std::to_string(line.nLevel) + ' ' + line.strFunction + ": " +
                                line.strMessage);
        return lines;
    }

    bool HasLine(int nLevel, const std::string& strFunction, const std::string& strMessage) const {
        return m_Daemon.HasLine(nLevel, strFunction, strMessage);
    }

    CDaemon::Options m_Options;
    CDaemon m_Daemon;
};

// ---- Which image is mounted --------------------------------------------------------------------

struct ChoiceCase {
    const char* szName;
    /// "-": no image; "empty": an empty file; "garbage": a file that is no image; else an image
    /// with this configuration.
    std::string strUpdate;
    std::string strBuiltInConfig;
    const char* szMounted;
    const char* szVersions;  // as logged
};

std::ostream& operator<<(std::ostream& stream, const ChoiceCase& choice) {
    return stream << choice.szName;
}

class StartUpChoiceTest : public StartUpTest, public ::testing::WithParamInterface<ChoiceCase> {};

TEST_P(StartUpChoiceTest, MountsTheRightImage) {
    const ChoiceCase& choice = GetParam();
    const bool bImage =
        choice.strUpdate != "-" && choice.strUpdate != "empty" && choice.strUpdate != "garbage";
    if (bImage) MakeImage(kUpdateImage, "update", choice.strUpdate);
    if (choice.strUpdate == "empty") WriteFile(kUpdateImage, "");
    if (choice.strUpdate == "garbage") WriteFile(kUpdateImage, std::string(8192, 'x'));
    InstallBuiltIn(choice.strBuiltInConfig);

    ASSERT_TRUE(m_Daemon.Start(m_Options)) << m_Daemon.Log();

    EXPECT_EQ(MountedPlugins(), choice.szMounted) << m_Daemon.Log();
    EXPECT_TRUE(HasLine(LEVEL_DETAIL, "StartServer", choice.szVersions)) << m_Daemon.Log();
    EXPECT_EQ(HasLine(LEVEL_ERROR, "StartServer", "strOldPepper Img_Mount Fail"), !bImage);
    EXPECT_EQ(HasLine(LEVEL_ERROR, "StartServer", "Error opening file."), choice.strUpdate == "-");
    EXPECT_FALSE(IsMounted(kUpdateFolder)) << "the update was to be looked at only";
    EXPECT_EQ(CBrokerClient().Version(), "5.100");

    EXPECT_EQ(m_Daemon.Stop(), CDaemon::kOrderly);
    EXPECT_EQ(MountedPlugins(), choice.szMounted) << "the plug-ins outlive the broker";
}

INSTANTIATE_TEST_SUITE_P(
    Plugins, StartUpChoiceTest,
    ::testing::Values(ChoiceCase{"NewerUpdate", Config("2.0"), Config("1.0"), "update",
                                 "[/opt/down/emps]:2.000000 [/usr/bin/emps]:1.000000"},
                      ChoiceCase{"EqualVersions", Config("1.5"), Config("1.5"), "built-in",
                                 "[/opt/down/emps]:1.500000 [/usr/bin/emps]:1.500000"},
                      ChoiceCase{"OlderUpdate", Config("1.0"), Config("2.0"), "built-in",
                                 "[/opt/down/emps]:1.000000 [/usr/bin/emps]:2.000000"},
                      ChoiceCase{"VersionsAreDecimalFractions", Config("5.100"), Config("5.9"),
                                 "built-in", "[/opt/down/emps]:5.100000 [/usr/bin/emps]:5.900000"},
                      ChoiceCase{"ExponentIsANumber", Config("1e1"), Config("9"), "update",
                                 "[/opt/down/emps]:10.000000 [/usr/bin/emps]:9.000000"},
                      ChoiceCase{"InfinityIsANumber", Config("inf"), Config("5"), "update",
                                 "[/opt/down/emps]:inf [/usr/bin/emps]:5.000000"},
                      ChoiceCase{"NotANumberIsNotNewer", Config("nan"), Config("1.0"), "built-in",
                                 "[/opt/down/emps]:nan [/usr/bin/emps]:1.000000"},
                      ChoiceCase{"UpdateVersionIsText", Config("new"), Config("0.5"), "built-in",
                                 "[/opt/down/emps]:0.000000 [/usr/bin/emps]:0.500000"},
                      ChoiceCase{"BuiltInVersionIsText", Config("0.5"), Config("old"), "update",
                                 "[/opt/down/emps]:0.500000 [/usr/bin/emps]:0.000000"},
                      ChoiceCase{"VersionWithBlanks", Config("  5.1"), Config("1.0"), "built-in",
                                 "[/opt/down/emps]:0.000000 [/usr/bin/emps]:1.000000"},
                      ChoiceCase{"UpdateOfAnotherKind", "<Other><Version>9</Version></Other>",
                                 Config("1.0"), "built-in",
                                 "[/opt/down/emps]:0.000000 [/usr/bin/emps]:1.000000"},
                      ChoiceCase{"NoConfigurationAnywhere", "", "", "built-in",
                                 "[/opt/down/emps]:0.000000 [/usr/bin/emps]:0.000000"},
                      ChoiceCase{"BuiltInHasNoConfiguration", Config("0.1"), "", "update",
                                 "[/opt/down/emps]:0.100000 [/usr/bin/emps]:0.000000"},
                      ChoiceCase{"NoUpdate", "-", Config("1.0"), "built-in",
                                 "[/opt/down/emps]:-1.000000 [/usr/bin/emps]:1.000000"},
                      ChoiceCase{"EmptyUpdate", "empty", Config("1.0"), "built-in",
                                 "[/opt/down/emps]:-1.000000 [/usr/bin/emps]:1.000000"},
                      ChoiceCase{"UnreadableUpdate", "garbage", Config("1.0"), "built-in",
                                 "[/opt/down/emps]:-1.000000 [/usr/bin/emps]:1.000000"}),
    [](const auto& info) { return info.param.szName; });

// ---- The order of things -----------------------------------------------------------------------

TEST_F(StartUpTest, LogsEachStepWhenTheUpdateIsNewer) {
    MakeImage(kUpdateImage, "update", Config("2.0"));
    InstallBuiltIn(Config("1.0"));
    ASSERT_TRUE(m_Daemon.Start(m_Options)) << m_Daemon.Log();
    ASSERT_EQ(m_Daemon.Stop(), CDaemon::kOrderly);

    EXPECT_THAT(StartLines(),
                ElementsAre("4 CBroker: LibraryPath[LD_LIBRARY_PATH=/opt/lib]",
                            "4 CBroker: Creator started.",
                            "4 StartServer: [PepperPlugins] There is no update now.",
                            "4 Img_Mount: Succeed to mount [" + kUpdateImage + "].",
                            "4 StartServer: [/opt/down/emps]:2.000000 [/usr/bin/emps]:1.000000",
                            "4 Pepper_Img_Mount: Pepper_Img_Mount:[" + kUpdateImage + "]",
                            "4 Pepper_Img_Mount: Succeed to mount [" + kUpdateImage + "].",
                            "4 BrokerServer: Broker Server Type:[TCP].",
                            "4 BrokerServer: BrokerServer just before starts",
                            "3 StartServer: Succeed to start [Broker-Server].",
                            "3 RemoveFile: Succeed to remove [/tmp/vok_ready].",
                            "4 BrokerServer: BrokerServer:: returned from serve()"));
}

TEST_F(StartUpTest, LogsEachStepWhenThereIsNoUpdate) {
    m_Options.environment["LD_LIBRARY_PATH"] = std::nullopt;
    InstallBuiltIn(Config("1.0"));
    ASSERT_TRUE(m_Daemon.Start(m_Options)) << m_Daemon.Log();
    ASSERT_EQ(m_Daemon.Stop(), CDaemon::kOrderly);

    std::vector<std::string> expected{
        "4 CBroker: INFO: getenv(LD_LIBRARY_PATH) is Null, extern EMP will not be able to run.",
        "4 CBroker: LibraryPath[LD_LIBRARY_PATH=]", "4 CBroker: Creator started.",
        "4 StartServer: [PepperPlugins] There is no update now."};
    for (int nTry = 1; nTry <= 5; ++nTry)
        expected.push_back("0 Img_Mount: Failed to mount:[" + kUpdateImage + "], Failing Times:[" +
                           std::to_string(nTry) + "].");
    const std::vector<std::string> rest{
        "0 Img_Mount: ### [Exit] Img_Mount  Result:[Failed] ###.",
        "0 StartServer: strOldPepper Img_Mount Fail",
        "4 Img_UnMount: Are you kidding me? Image:[PepperPlugins] was not mounted yet!",
        "4 Img_UnMount: Are you kidding me? Image:[PepperPlugins] was not mounted yet!",
        "4 StartServer: [/opt/down/emps]:-1.000000 [/usr/bin/emps]:1.000000",
        "0 StartServer: Error opening file.",
        "4 Pepper_Img_Mount: Pepper_Img_Mount:[" + kBuiltInImage + "]",
        "4 Pepper_Img_Mount: Succeed to mount [" + kBuiltInImage + "].",
        "4 BrokerServer: Broker Server Type:[TCP].",
        "4 BrokerServer: BrokerServer just before starts",
        "3 StartServer: Succeed to start [Broker-Server].",
        "3 RemoveFile: Succeed to remove [/tmp/vok_ready].",
        "4 BrokerServer: BrokerServer:: returned from serve()"};
    expected.insert(expected.end(), rest.begin(), rest.end());
    EXPECT_EQ(StartLines(), expected);
}

TEST_F(StartUpTest, TellsTheSizeOfAnUpdateThatIsNotNewer) {
    MakeImage(kUpdateImage, "update", Config("1.0"));
    InstallBuiltIn(Config("1.0"));
    ASSERT_TRUE(m_Daemon.Start(m_Options)) << m_Daemon.Log();
    EXPECT_TRUE(HasLine(
        LEVEL_DETAIL, "StartServer",
        "Size of NewPeppersize [" + std::to_string(fs::file_size(kUpdateImage)) + "] bytes"))
        << m_Daemon.Log();
}

TEST_F(StartUpTest, SecondStartFindsThePluginsMounted) {
    MakeImage(kUpdateImage, "update", Config("2.0"));
    InstallBuiltIn(Config("1.0"));
    ASSERT_TRUE(m_Daemon.Start(m_Options)) << m_Daemon.Log();
    ASSERT_EQ(m_Daemon.Stop(), CDaemon::kOrderly);
    ASSERT_TRUE(m_Daemon.Start(m_Options)) << m_Daemon.Log();

    EXPECT_TRUE(HasLine(LEVEL_DETAIL, "Pepper_Img_Mount",
                        "[" + kUpdateImage + "] had already been mounted."))
        << m_Daemon.Log();
    EXPECT_EQ(MountedPlugins(), "update");
}

TEST_F(StartUpTest, UpdateThatIsMountedIsNotMountedAgain) {
    MakeImage(kUpdateImage, "update", Config("2.0"));
    WriteFile("/opt/mounted/empPepperPlugins.xml", Config("0.5"));
    fs::create_directories(kUpdateFolder);
    ASSERT_EQ(::mount("/opt/mounted", kUpdateFolder.c_str(), nullptr, MS_BIND, nullptr), 0);
    InstallBuiltIn(Config("1.0"));
    ASSERT_TRUE(m_Daemon.Start(m_Options)) << m_Daemon.Log();

    EXPECT_TRUE(HasLine(LEVEL_DETAIL, "Img_Mount",
                        "Image:[PepperPlugins] had been mounted, no need to mount again."))
        << m_Daemon.Log();
    EXPECT_EQ(MountedPlugins(), "built-in") << "what is mounted has the version that counts";
    EXPECT_FALSE(IsMounted(kUpdateFolder));
}

// ---- A downloaded update -----------------------------------------------------------------------

TEST_F(StartUpTest, DownloadReplacesTheInstalledUpdate) {
    MakeImage(kUpdateImage, "former update", Config("9.0"));
    MakeImage(kDownload, "download", Config("2.0"));
    InstallBuiltIn(Config("1.0"));
    ASSERT_TRUE(m_Daemon.Start(m_Options)) << m_Daemon.Log();

    EXPECT_EQ(MountedPlugins(), "download");
    EXPECT_FALSE(fs::exists(kDownload));
    EXPECT_TRUE(HasLine(LEVEL_DETAIL, "StartServer",
                        "### Move [" + kDownload + "] to [" + kUpdateImage + "] ###"))
        << m_Daemon.Log();
    EXPECT_FALSE(HasLine(LEVEL_DETAIL, "StartServer", "[PepperPlugins] There is no update now."));
}

TEST_F(StartUpTest, DownloadThatIsNotNewerIsInstalledAndNotUsed) {
    MakeImage(kDownload, "download", Config("1.0"));
    InstallBuiltIn(Config("1.0"));
    ASSERT_TRUE(m_Daemon.Start(m_Options)) << m_Daemon.Log();

    EXPECT_EQ(MountedPlugins(), "built-in");
    EXPECT_FALSE(fs::exists(kDownload));
    EXPECT_TRUE(fs::exists(kUpdateImage));
}

TEST_F(StartUpTest, DownloadMovesToAnotherFileSystem) {
    fs::create_directories("/opt/down/emps");
    ASSERT_EQ(::mount("tmpfs", "/opt/down/emps", "tmpfs", 0, nullptr), 0);
    MakeImage(kDownload, "download", Config("2.0"));
    InstallBuiltIn(Config("1.0"));
    ASSERT_TRUE(m_Daemon.Start(m_Options)) << m_Daemon.Log();

    EXPECT_EQ(MountedPlugins(), "download");
    EXPECT_FALSE(fs::exists(kDownload));
    EXPECT_TRUE(fs::exists(kUpdateImage));
}

// ---- Starts that fail --------------------------------------------------------------------------

struct StuckCase {
    const char* szName;
    void (*pPrepare)();
};

std::ostream& operator<<(std::ostream& stream, const StuckCase& stuck) {
    return stream << stuck.szName;
}

class StartUpStuckDownloadTest : public StartUpTest,
                                 public ::testing::WithParamInterface<StuckCase> {};

TEST_P(StartUpStuckDownloadTest, EndsBeforeAnythingIsMounted) {
    InstallBuiltIn(Config("1.0"));
    GetParam().pPrepare();
    ASSERT_TRUE(m_Daemon.Launch(m_Options));

    EXPECT_EQ(m_Daemon.AwaitEnd(), 1) << m_Daemon.Log();
    EXPECT_THAT(StartLines(), ElementsAre("4 CBroker: LibraryPath[LD_LIBRARY_PATH=/opt/lib]",
                                          "4 CBroker: Creator started.",
                                          "0 StartServer: Failed to MoveFile:[PepperPlugins]."));
    EXPECT_FALSE(IsMounted(kPepper));
    EXPECT_FALSE(IsMounted(kUpdateFolder));
    EXPECT_FALSE(fs::exists(kReadyFlag));
    EXPECT_TRUE(fs::exists(kDownload)) << "what cannot be moved stays";
}

INSTANTIATE_TEST_SUITE_P(
    Download, StartUpStuckDownloadTest,
    ::testing::Values(StuckCase{"FileStandsWhereTheFolderShouldBe",
                                [] {
                                    MakeImage(kDownload, "download", Config("2.0"));
                                    WriteFile("/opt/down/emps/empPepperPlugins_img", "");
                                }},
                      StuckCase{"TargetCannotBeWritten",
                                [] {
                                    MakeImage(kDownload, "download", Config("2.0"));
                                    fs::create_directories("/opt/down/emps");
                                    ASSERT_EQ(::mount("tmpfs", "/opt/down/emps", "tmpfs", MS_RDONLY,
                                                      nullptr),
                                              0);
                                }},
                      StuckCase{"DownloadIsAFolder", [] { fs::create_directories(kDownload); }},
                      StuckCase{"TargetIsAFolder",
                                [] {
                                    MakeImage(kDownload, "download", Config("2.0"));
                                    fs::create_directories(kUpdateImage);
                                }}),
    [](const auto& info) { return info.param.szName; });

class StartUpUnmountableTest : public StartUpTest {
protected:
    /// The update is mounted already, so that only the plug-in set's own mount takes its time.
    void MountUpdate(const std::string& strVersion) {
        WriteFile("/opt/mounted/empPepperPlugins.xml", Config(strVersion));
        fs::create_directories(kUpdateFolder);
        ASSERT_EQ(::mount("/opt/mounted", kUpdateFolder.c_str(), nullptr, MS_BIND, nullptr), 0);
    }

    void ExpectFailedStart(const std::string& strImage) {
        ASSERT_TRUE(m_Daemon.Launch(m_Options));
        EXPECT_EQ(m_Daemon.AwaitEnd(), 1) << m_Daemon.Log();

        std::vector<std::string> expected{"4 Pepper_Img_Mount: Pepper_Img_Mount:[" + strImage +
                                          "]"};
        for (int nTry = 1; nTry <= 5; ++nTry)
            expected.push_back("0 Pepper_Img_Mount: Failed to mount:[" + strImage +
                               "], Failing Times:[" + std::to_string(nTry) + "].");
        expected.push_back("0 Pepper_Img_Mount: [Exit] Mount_Pepper_Plugins  Result:[Failed].");
        expected.push_back(
            "0 StartServer: Failed to mount [PepperPlugins], BrokerServer won't be launched.");
        std::vector<std::string> lines = StartLines();
        ASSERT_GE(lines.size(), expected.size());
        lines.erase(lines.begin(), lines.end() - static_cast<std::ptrdiff_t>(expected.size()));
        EXPECT_EQ(lines, expected);
        EXPECT_FALSE(IsMounted(kPepper));
        EXPECT_FALSE(fs::exists(kReadyFlag));
    }
};

TEST_F(StartUpUnmountableTest, BuiltInImageIsNoImage) {
    MountUpdate("1.0");
    WriteFile(kUpdateImage, "x");
    WriteFile(kBuiltInConfig, Config("2.0"));
    WriteFile(kBuiltInImage, std::string(8192, 'x'));
    ExpectFailedStart(kBuiltInImage);
}

TEST_F(StartUpUnmountableTest, BuiltInImageIsMissing) {
    MountUpdate("1.0");
    WriteFile(kUpdateImage, "x");
    ExpectFailedStart(kUpdateImage);
}

// An update that has a version and no file is taken although it is older: there is nothing that
// could be mounted.
TEST_F(StartUpUnmountableTest, OlderUpdateWithoutAFileIsChosen) {
    MountUpdate("1.0");
    InstallBuiltIn(Config("2.0"));
    ExpectFailedStart(kUpdateImage);
}

TEST_F(StartUpUnmountableTest, OlderUpdateWithAnEmptyFileIsChosen) {
    MountUpdate("1.0");
    WriteFile(kUpdateImage, "");
    InstallBuiltIn(Config("2.0"));
    ExpectFailedStart(kUpdateImage);
    EXPECT_TRUE(HasLine(LEVEL_DETAIL, "StartServer", "Size of NewPeppersize [0] bytes"));
}

// ---- The environment ---------------------------------------------------------------------------

TEST(StartUp, LibraryPathThatIsTooLongIsLeftOut) {
    CDaemon daemon;
    CDaemon::Options options;
    options.environment["LD_LIBRARY_PATH"] = std::string(1188, 'x');  // 1,204 with its name
    ASSERT_TRUE(daemon.Start(options)) << daemon.Log();
    EXPECT_TRUE(daemon.HasLine(LEVEL_ERROR, "CBroker", "Error: stringSize is out of bounds"));
    EXPECT_TRUE(daemon.HasLine(LEVEL_DETAIL, "CBroker", "LibraryPath[(null)]")) << daemon.Log();
}

TEST(StartUp, LongestLibraryPathIsTaken) {
    CDaemon daemon;
    CDaemon::Options options;
    const std::string strPath(1187, 'x');
    options.environment["LD_LIBRARY_PATH"] = strPath;
    ASSERT_TRUE(daemon.Start(options)) << daemon.Log();
    EXPECT_TRUE(
        daemon.HasLine(LEVEL_DETAIL, "CBroker", "LibraryPath[LD_LIBRARY_PATH=" + strPath + "]"))
        << daemon.Log();
}

}  // namespace
}  // namespace vok::test
