#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "platform/Platform.h"
#include "tests/support/CTemporaryFolder.h"

namespace vok {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

class LinuxFiles : public ::testing::Test {
protected:
    std::string Write(const std::string& strText) {
        std::ofstream(m_strFile) << strText;
        return m_strFile;
    }

    IFiles& m_Files = *LinuxPlatform().pFiles;
    const test::CTemporaryFolder m_Folder;
    const std::string m_strFile = m_Folder.Path("file");
};

TEST_F(LinuxFiles, ExistIncludesFolders) {
    EXPECT_FALSE(m_Files.Exists(m_strFile.c_str()));
    EXPECT_FALSE(m_Files.IsAccessible(m_strFile.c_str()));
    Write("");
    EXPECT_TRUE(m_Files.Exists(m_strFile.c_str()));
    EXPECT_TRUE(m_Files.IsAccessible(m_strFile.c_str()));
    EXPECT_TRUE(m_Files.Exists(m_Folder.Path().c_str()));
}

TEST_F(LinuxFiles, SizeIsInBytes) {
    EXPECT_EQ(m_Files.SizeOf(m_strFile.c_str()), std::nullopt);
    EXPECT_EQ(m_Files.SizeOf(Write("").c_str()), 0);
    EXPECT_EQ(m_Files.SizeOf(Write("12345").c_str()), 5);
}

struct LineCase {
    const char* szName;
    std::string strText;
    std::size_t nMost;
    std::string strLine;
};

class FirstLine : public LinuxFiles, public ::testing::WithParamInterface<LineCase> {};

TEST_P(FirstLine, IsCutAsTold) {
    EXPECT_EQ(m_Files.FirstLine(Write(GetParam().strText).c_str(), GetParam().nMost),
              GetParam().strLine);
}

INSTANTIATE_TEST_SUITE_P(
    Files, FirstLine,
    ::testing::Values(LineCase{"Empty", "", 15, ""}, LineCase{"EmptyLine", "\nx", 15, ""},
                      LineCase{"NoLineFeed", "abc", 15, "abc"},
                      LineCase{"Short", "abc\ndef\n", 15, "abc"},
                      LineCase{"AtTheBound", "0123\n", 4, "0123"},
                      LineCase{"Long", "0123456789abcdefgh", 15, "0123456789abcde"},
                      LineCase{"Nothing", "abc", 0, ""},
                      LineCase{"Binary",
                               std::string("\x7f"
                                           "ELF\0x\n",
                                           7),
                               15,
                               std::string("\x7f"
                                           "ELF\0x",
                                           6)}),
    [](const auto& info) { return info.param.szName; });

TEST_F(LinuxFiles, FirstLineOfWhatIsNoFileNeverWaits) {
    EXPECT_EQ(m_Files.FirstLine(m_strFile.c_str(), 15), std::nullopt);
    ASSERT_EQ(::mkfifo(m_strFile.c_str(), 0600), 0);
    EXPECT_EQ(m_Files.FirstLine(m_strFile.c_str(), 15), "");
    EXPECT_EQ(m_Files.FirstLine(m_Folder.Path().c_str(), 15), "");
    EXPECT_EQ(m_Files.FirstLine("/dev/zero", 3), std::string(3, '\0'));
}

TEST_F(LinuxFiles, CreateEmptyMakesAndEmpties) {
    const mode_t nFormer = ::umask(022);
    EXPECT_TRUE(m_Files.CreateEmpty(m_strFile.c_str()));
    (void)::umask(nFormer);
    EXPECT_EQ(std::filesystem::status(m_strFile).permissions(), std::filesystem::perms(0644));
    EXPECT_TRUE(m_Files.CreateEmpty(Write("text").c_str()));
    EXPECT_EQ(m_Files.SizeOf(m_strFile.c_str()), 0);
    EXPECT_FALSE(m_Files.CreateEmpty(m_Folder.Path("none/file").c_str()));
}

TEST_F(LinuxFiles, CreateEmptyFollowsNoLink) {
    Write("text");
    const std::string strLink = m_Folder.Path("link");
    ASSERT_EQ(::symlink(m_strFile.c_str(), strLink.c_str()), 0);
    EXPECT_FALSE(m_Files.CreateEmpty(strLink.c_str()));
    EXPECT_EQ(m_Files.SizeOf(m_strFile.c_str()), 4);
}

TEST_F(LinuxFiles, ReadTextIsWholeAndBounded) {
    EXPECT_EQ(m_Files.ReadText(m_strFile.c_str(), 15), std::nullopt);
    Write("first\nsecond\n");
    EXPECT_EQ(m_Files.ReadText(m_strFile.c_str(), 15), "first\nsecond\n");
    EXPECT_EQ(m_Files.ReadText(m_strFile.c_str(), 7), "first\ns");
}

TEST_F(LinuxFiles, ListIsInByteOrderAndWithoutDots) {
    EXPECT_THAT(m_Files.List(m_Folder.Path().c_str()), IsEmpty());
    for (const char* szName : {"empb", "empB", "emp10", "emp9", ".hidden", "emp\xc3\xa4"})
        std::ofstream(m_Folder.Path(szName)) << "";
    std::filesystem::create_directories(m_Folder.Path("empFolder/inside"));
    ASSERT_EQ(::symlink("nowhere", m_Folder.Path("emplink").c_str()), 0);

    EXPECT_THAT(m_Files.List(m_Folder.Path().c_str()),
                ElementsAre(".hidden", "emp10", "emp9", "empB", "empFolder", "empb", "emplink",
                            "emp\xc3\xa4"));
}

TEST_F(LinuxFiles, ListOfWhatIsNoFolderIsEmpty) {
    EXPECT_THAT(m_Files.List(m_strFile.c_str()), IsEmpty());
    Write("text");
    EXPECT_THAT(m_Files.List(m_strFile.c_str()), IsEmpty());
    EXPECT_THAT(m_Files.List(""), IsEmpty());
}

TEST_F(LinuxFiles, RemoveTellsWhetherItWasThere) {
    EXPECT_FALSE(m_Files.Remove(m_strFile.c_str()));
    EXPECT_TRUE(m_Files.Remove(Write("").c_str()));
    EXPECT_FALSE(m_Files.Exists(m_strFile.c_str()));
}

TEST(LinuxMounter, NamesThatAreNoFileNamesAreNotMounted) {
    IMounter& mounter = *LinuxPlatform().pMounter;
    for (const char* szName : {".", "..", "../../..", "a/b"}) {
        EXPECT_FALSE(mounter.IsImgMounted(szName)) << szName;
    }
    EXPECT_FALSE(mounter.IsImgMounted(std::string("a\0b", 3)));
}

std::atomic<int> s_nHandled{0};

TEST(LinuxClock, SleepsItsTimeThroughSignals) {
    struct sigaction action {};
    struct sigaction former {};
    action.sa_handler = [](int) { ++s_nHandled; };
    sigaction(SIGUSR1, &action, &former);
    std::atomic<bool> bAwake{false};
    const pthread_t sleeper = pthread_self();
    std::thread sender([&] {
        // Without a pause: a sleep that began anew with each would never end.
        while (!bAwake) pthread_kill(sleeper, SIGUSR1);
    });
    const auto start = std::chrono::steady_clock::now();
    LinuxPlatform().pClock->Sleep(100ms);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 100ms);
    bAwake = true;
    sender.join();
    sigaction(SIGUSR1, &former, nullptr);
    EXPECT_GT(s_nHandled, 0);
}

TEST(LinuxClock, NotificationThatCameBeforeEndsTheSleep) {
    CVokCondition condition;
    condition.SetDoWaiting(true);
    ASSERT_EQ(condition.NotifyOne(), 0);
    EXPECT_TRUE(LinuxPlatform().pClock->SleepUnlessNotified(condition, 1h));
}

TEST(LinuxClock, NotificationEndsTheSleep) {
    CVokCondition condition;
    condition.SetDoWaiting(true);
    std::thread notifier([&] { EXPECT_EQ(condition.NotifyOne(), 0); });
    EXPECT_TRUE(LinuxPlatform().pClock->SleepUnlessNotified(condition, 1h));
    notifier.join();
}

TEST(LinuxClock, SleepsItsTimeWithoutANotification) {
    CVokCondition condition;
    condition.SetDoWaiting(true);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(LinuxPlatform().pClock->SleepUnlessNotified(condition, 20ms));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 20ms);
}

TEST(LinuxKpi, ReadsNodesFromFiles) {
    const test::CTemporaryFolder folder;
    std::ofstream(folder.Path("policy")) << "<a><15_vok url='http://log'/></a>";
    NodeAttributes attributes;
    IKpi& kpi = *LinuxPlatform().pKpi;

    EXPECT_TRUE(kpi.ParseNodeAttrFromXml(folder.Path("policy"), "15_vok", attributes));
    EXPECT_THAT(attributes, ElementsAre(Pair("url", "http://log")));
    EXPECT_FALSE(kpi.ParseNodeAttrFromXml(folder.Path("none"), "15_vok", attributes));
}

TEST(LinuxKpi, MakesLoggersOfTheirOwn) {
    IKpi& kpi = *LinuxPlatform().pKpi;
    const auto pFirst = kpi.CreateLogger();
    const auto pSecond = kpi.CreateLogger();

    ASSERT_NE(pFirst, nullptr);
    ASSERT_NE(pSecond, nullptr);
    EXPECT_NE(pFirst, pSecond);
}

TEST(LinuxPlatform, IsAlwaysTheSame) {
    EXPECT_EQ(LinuxPlatform().pFiles, LinuxPlatform().pFiles);
    EXPECT_EQ(LinuxPlatform().pClock, LinuxPlatform().pClock);
    EXPECT_EQ(LinuxPlatform().pKpi, LinuxPlatform().pKpi);
}

}  // namespace
}  // namespace vok
