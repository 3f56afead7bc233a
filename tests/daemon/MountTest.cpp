// Images: mounted by the first open, unmounted when nobody relies on them any more.
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "tests/daemon/OpenCloseTest.h"
#include "tests/support/CPrivateWorld.h"

namespace vok::test {
namespace {

namespace fs = std::filesystem;

/// Needs real loop devices. All worlds share them, so the EMP's name is one that no other has.
class Mount : public OpenCloseTest {
protected:
    void SetUp() override {
        std::string strReason;
        if (!CPrivateWorld::MayLoopMount(&strReason)) GTEST_SKIP() << strReason;
        struct stat info {};
        ASSERT_EQ(::stat("/opt", &info), 0);
        m_strEmp = "Image" + std::to_string(info.st_dev);
        OpenCloseTest::SetUp();
    }

    void Install(const CEmpBehaviour& behaviour = {}) {
        CEmpInstaller::InstallImage(m_strEmp, behaviour);
    }
    std::string Point() const { return CEmpInstaller::MountPoint(m_strEmp); }
    std::string Program() const { return Point() + "/emp" + m_strEmp; }
    std::string Image() const { return CEmpInstaller::ImagePath(m_strEmp); }
    bool IsImageMounted() const { return IsMounted(Point()); }
    int Devices() const { return CountLoopDevices(Image()); }

    void ExpectClosed(int nBefore) {
        ExpectLine(4, "CloseEmp", "[Umount]: Found EMP [" + m_strEmp + "] in the map. ");
        ExpectCount("[Before-Umount]", nBefore);
        ExpectCount("[After-Umount]", nBefore - 1);
    }
    void ExpectCount(const std::string& strWhen, int nCount) {
        ExpectLine(3, "CloseEmp",
                   strWhen + " Count Reduce 1, Emp=[" + m_strEmp + "], count=[" +
                       std::to_string(nCount) + "].");
    }
    /// Reports the EMP's stop and waits until it has been carried out.
    void Stop(const ConnectionInfo& info, int nTimes = 1) {
        ReportStop(m_strEmp, info.empPort);
        AwaitLine(4, "ExitEmpProc", "==Leave ExitEmpProc==. ", nTimes);
    }

    std::string m_strEmp;
};

TEST_F(Mount, IsMadeByTheFirstOpen) {
    Install();
    const ConnectionInfo info = OpenEmp(m_strEmp);
    EXPECT_THAT(info, IsConnected());
    EXPECT_TRUE(IsImageMounted());
    EXPECT_EQ(Devices(), 1);
    EXPECT_EQ(ProcessesOf(Program()).size(), 1u) << "it runs from the image";
    ExpectLine(4, "OpenEmp", "[Attention] Mount img:[" + Image() + "] to [" + Point() + "].");
    ExpectLine(4, "OpenEmp", "EMP COUNT: It's first time to open [" + m_strEmp + "] EMP.");
    Stop(info);
}

TEST_F(Mount, LastsUntilTheStopAfterTheLastClose) {
    Install();
    const ConnectionInfo first = OpenEmp(m_strEmp);
    const ConnectionInfo second = OpenEmp(m_strEmp, kOtherClient);
    EXPECT_EQ(second.empPort, first.empPort);
    EXPECT_EQ(Devices(), 1) << "a reuse mounts nothing";

    EXPECT_TRUE(CloseEmp(first));
    ExpectClosed(2);
    EXPECT_TRUE(CloseEmp(second));
    ExpectClosed(1);
    EXPECT_TRUE(IsImageMounted()) << "the process still runs from it";

    Stop(first);
    ExpectLine(3, "UnmoutEMP", "Umount: Emp=[" + m_strEmp + "], count=[0].");
    ExpectLine(4, "UnmoutEMP", "Umount:[" + Point() + "].");
    ExpectLine(3, "UnmoutEMP", "Umount for [" + m_strEmp + "] EMP Succeeded!");
    EXPECT_FALSE(IsImageMounted());
    EXPECT_TRUE(CDaemon::Await([&] { return Devices() == 0; }));

    EXPECT_THAT(OpenEmp(m_strEmp), IsConnected()) << "and again from the beginning";
    EXPECT_EQ(m_Daemon.CountLines(4, "OpenEmp",
                                  "EMP COUNT: It's first time to open [" + m_strEmp + "] EMP."),
              2);
    EXPECT_TRUE(CDaemon::Await([&] { return Devices() == 1; }));
}

TEST_F(Mount, StaysWhileAClientHoldsIt) {
    Install();
    const ConnectionInfo first = OpenEmp(m_strEmp);
    OpenEmp(m_strEmp, kOtherClient);
    EXPECT_TRUE(CloseEmp(first));

    Stop(first);
    ExpectLine(
        0, "UnmoutEMP",
        "No need to umount emp:[" + m_strEmp + "], Cause the umount count isn't equal to 0.");
    EXPECT_TRUE(IsImageMounted());
    EXPECT_EQ(Devices(), 1);

    // Its count goes on from there.
    const ConnectionInfo third = OpenEmp(m_strEmp);
    EXPECT_THAT(third, IsConnected());
    EXPECT_TRUE(CloseEmp(third));
    ExpectCount("[Before-Umount]", 2);
}

TEST_F(Mount, CountNeverFallsBelowZero) {
    Install();
    const ConnectionInfo info = OpenEmp(m_strEmp);
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(CloseEmp(info));
    ExpectClosed(1);
    EXPECT_EQ(
        m_Daemon.CountLines(4, "CloseEmp", "[Umount]: Found EMP [" + m_strEmp + "] in the map. "),
        3);
    EXPECT_FALSE(m_Daemon.HasLine(
        3, "CloseEmp", "[After-Umount] Count Reduce 1, Emp=[" + m_strEmp + "], count=[-1]."));
    Stop(info);
    EXPECT_FALSE(IsImageMounted());
}

TEST_F(Mount, OfAServerThatFailsToOpenStaysWhileItsProcessRuns) {
    Install(CEmpBehaviour().Option(""));
    EXPECT_THAT(OpenEmp(m_strEmp), IsInvalid("127.0.0.1"));
    EXPECT_EQ(ProcessesOf(Program()).size(), 1u);
    EXPECT_TRUE(IsImageMounted()) << "the process keeps it busy";
    ASSERT_EQ(::kill(ProcessesOf(Program()).at(0), SIGTERM), 0);
    ASSERT_TRUE(WaitUntilEnded(Program()));

    EXPECT_THAT(OpenEmp(m_strEmp), IsInvalid("127.0.0.1"));
    ExpectLine(4, "OpenEmp", "EMP COUNT: Emp=[" + m_strEmp + "], count=[2].");
}

TEST_F(Mount, OfAnotherHandIsCountedFromOne) {
    // The program is there as if the image were mounted, and no open has counted it.
    Install();
    fs::create_directories(Point());
    fs::copy_file(CEmpInstaller::BuiltProgram("fake-emp"), Program());

    const ConnectionInfo info = OpenEmp(m_strEmp);
    ExpectLine(0, "OpenEmp",
               "Maybe something wrong with [" + m_strEmp + "]'s the count of mount/umount.");
    EXPECT_TRUE(CloseEmp(info));
    ExpectClosed(1);

    Stop(info);
    ExpectLine(0, "UnmoutEMP", "Umount for [" + m_strEmp + "] EMP Failed!");
    ExpectLine(0, "ExitEmpProc", "Umount EMP:[" + m_strEmp + "] failed.");
}

TEST_F(Mount, ThatNobodyCountsIsLeftAloneByAClose) {
    Install();
    fs::create_directories(Point());
    MakeFile(Program());
    ConnectionInfo info;
    info.empName = m_strEmp;
    EXPECT_TRUE(CloseEmp(info));
    ExpectLine(0, "CloseEmp", "[Umount]: EMP [" + m_strEmp + "] is not in the map. ");
}

TEST_F(Mount, IsLoweredByACloseThatFails) {
    Install(CEmpBehaviour().AnswersClose(-1));
    const ConnectionInfo info = OpenEmp(m_strEmp);
    EXPECT_FALSE(CloseEmp(info));
    ExpectClosed(1);
}

TEST_F(Mount, IsGoneWhenACloseFindsAnEmpThatHasGone) {
    Install();
    const ConnectionInfo info = OpenEmp(m_strEmp);
    Stop(info);
    EXPECT_TRUE(IsImageMounted()) << "the client has not closed";
    EXPECT_TRUE(CloseEmp(info));
    ExpectClosed(1);
}

// ---- Opens that fail after ten seconds
// --------------------------------------------------------------

class SlowMount : public Mount {};

TEST_F(SlowMount, CountFallsBackWhenALaterOpenFails) {
    Install(CEmpBehaviour().Option("0002").ReportsWhenExists("/tmp/go"));
    MakeFile("/tmp/go");
    const ConnectionInfo first = OpenEmp(m_strEmp);
    ASSERT_THAT(first, IsConnected());
    ::unlink("/tmp/go");

    EXPECT_THAT(OpenEmp(m_strEmp), IsInvalid("127.0.0.1"));
    ExpectLine(4, "OpenEmp", "EMP COUNT: Emp=[" + m_strEmp + "], count=[2].");
    EXPECT_TRUE(IsImageMounted());
    EXPECT_FALSE(CloseEmp(first)) << "its status is that of the failed start";
    ExpectClosed(1);
}

TEST_F(SlowMount, IsUndoneWhenTheFirstOpenFails) {
    Install(CEmpBehaviour().With("exit", "now"));
    EXPECT_THAT(OpenEmp(m_strEmp), IsInvalid("127.0.0.1"));
    ExpectLine(4, "OpenEmp", "Umount for [" + m_strEmp + "] EMP Succeeded!");
    EXPECT_FALSE(IsImageMounted());
    EXPECT_TRUE(CDaemon::Await([&] { return Devices() == 0; }));
}

TEST_F(SlowMount, ThatFailsLetsTheStartFail) {
    fs::create_directories(fs::path(Image()).parent_path());
    std::ofstream(Image()) << std::string(8192, 'x');

    EXPECT_THAT(OpenEmp(m_strEmp), IsInvalid("127.0.0.1"));
    ExpectLine(0, "OpenEmp", "Failed to mount [" + Image() + "] to [" + Point() + "].");
    ExpectLine(0, "ForkEmp",
               "execution:[" + Program() +
                   "] is fail,error[777],errno[2]-[No such file or directory]-[No such file or "
                   "directory]");
    ExpectLine(0, "OpenEmp", "Maybe it was not mounted yet.");
    EXPECT_FALSE(IsImageMounted());
    EXPECT_EQ(Devices(), 0);

    Install();
    const ConnectionInfo info = OpenEmp(m_strEmp);
    EXPECT_THAT(info, IsConnected());
    EXPECT_TRUE(CloseEmp(info));
    ExpectClosed(1);
}

}  // namespace
}  // namespace vok::test
