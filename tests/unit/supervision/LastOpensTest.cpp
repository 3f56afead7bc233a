#include <atomic>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/EmpPaths.h"
#include "tests/support/BrokerTest.h"
#include "tests/support/CFakeEmp.h"
#include "tests/support/CFakeLauncher.h"
#include "vok_admin_types.h"

namespace vok {
namespace {

using namespace test;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class LastOpensTest : public BrokerTest {
protected:
    ~LastOpensTest() override { m_Fake.processes.AwaitThreads(); }

    ConnectionInfo Open(const std::string& strEmp, const std::string& strClientPort = "40001") {
        ConnectionInfo info;
        m_Broker.OpenEmp(info, strClientPort, strEmp, "1.0", "app");
        return info;
    }

    std::vector<admin::OpenTimes> Opens() {
        std::vector<admin::OpenTimes> opens;
        m_Broker.GetOpens(opens);
        return opens;
    }

    /// The only one that has ended.
    admin::OpenTimes TheOpen() {
        const std::vector<admin::OpenTimes> opens = Opens();
        EXPECT_THAT(opens, SizeIs(1));
        return opens.empty() ? admin::OpenTimes() : opens[0];
    }

    /// An image whose program is there as long as it is mounted.
    void AddImage(const std::string& strEmp) {
        m_Fake.AddImage(strEmp);
        m_Fake.mounter.OnMount(
            [this, strEmp] { m_Fake.files.Add(paths::DownloadedProgram(strEmp)); });
    }
};

/// Which steps an open came to, beside its answer: L(ocated), M(ounted), S(tarted), R(eported).
/// "out of order" when a time is before that of an earlier step.
std::string StepsOf(const admin::OpenTimes& open) {
    std::string strSteps;
    std::int64_t nLast = 0;
    for (const auto& [c, nTime] : {std::pair{'L', open.locatedUs}, std::pair{'M', open.mountedUs},
                                   std::pair{'S', open.startedUs}, std::pair{'R', open.reportedUs},
                                   std::pair{'.', open.answeredUs}}) {
        if (nTime == -1) continue;
        if (nTime < nLast) return "out of order";
        nLast = nTime;
        strSteps += c;
    }
    return strSteps;
}

MATCHER_P4(IsOpen, nSerial, nLocation, nOutcome, strSteps, "") {
    *result_listener << arg.serial << ' ' << arg.location << ' ' << arg.outcome << ' '
                     << StepsOf(arg);
    return arg.serial == nSerial && arg.location == nLocation && arg.outcome == nOutcome &&
           StepsOf(arg) == strSteps;
}

TEST_F(LastOpensTest, AreNoneAtFirst) {
    EXPECT_THAT(Opens(), IsEmpty());
}

// ---- Every way out of an open ----

TEST_F(LastOpensTest, StartHasItsSteps) {
    m_Fake.AddPreinstalled("Weather");
    LetEmpsReport("40123|777", "0001");

    ASSERT_EQ(Open("Weather").empPort, "40123");

    EXPECT_THAT(TheOpen(), IsOpen(2, 2, 3, "LSR."));
    EXPECT_EQ(TheOpen().empName, "Weather");
    EXPECT_EQ(TheOpen().clientPort, "40001");
    EXPECT_GE(TheOpen().agoMs, TheOpen().answeredUs / 1000);
}

TEST_F(LastOpensTest, FirstOpenOfAnImageMountsIt) {
    AddImage("Weather");
    LetEmpsReport("40123|777", "0001");

    Open("Weather");
    Open("Weather", "40002");

    EXPECT_THAT(Opens(), ElementsAre(IsOpen(3, 2, 2, "."), IsOpen(2, 2, 3, "LMSR.")));
}

TEST_F(LastOpensTest, EmpOfALauncherIsStartedByIt) {
    CFakeLauncher launcher;
    launcher.OnOpen([this](const LauncherOpen& open) {
        Report(std::to_string(open.nTicketSerial), "40123|777", "0001");
    });
    BrokerProbe::SetLauncher(m_Broker, "Launcher", launcher.PortText(), {"Weather"});

    ASSERT_EQ(Open("Weather").empPort, "40123");

    EXPECT_THAT(TheOpen(), IsOpen(2, 5, 3, "LSR."));
}

TEST_F(LastOpensTest, ReuseHasNoSteps) {
    m_Fake.AddPreinstalled("Weather");
    AddKnown("Weather", "0001", EMP_OPENED);
    ConnectionDB().AddConnectionData({"Weather", "40123"}, "40001");

    ASSERT_EQ(Open("Weather", "40002").empPort, "40123");

    EXPECT_THAT(TheOpen(), IsOpen(2, 2, 2, "."));
    EXPECT_EQ(TheOpen().clientPort, "40002");
}

TEST_F(LastOpensTest, ReuseOfAServerThatSomebodyElseIsStartingHasItsWait) {
    m_Fake.AddPreinstalled("Weather");
    AddKnown("Weather", "0001", EMP_ADDED);
    m_Fake.clock.OnSleep([this](int) {
        // The other open comes to its end.
        if (EmpInfo().StatusOf("Weather") != EMP_ADDED) return;
        ConnectionDB().AddConnectionData({"Weather", "40123"}, "40001");
        EmpInfo().SetStatusOf("Weather", EMP_OPENED);
    });

    ASSERT_EQ(Open("Weather", "40002").empPort, "40123");

    EXPECT_THAT(TheOpen(), IsOpen(2, 2, 2, "LR."));
}

TEST_F(LastOpensTest, StartAfterAWaitHasTheStepsOfAStart) {
    m_Fake.AddPreinstalled("Weather");
    AddKnown("Weather", "0001", EMP_ADDED);
    m_Fake.clock.OnSleep([this](int) { EmpInfo().SetStatusOf("Weather", EMP_CLOSED); });
    LetEmpsReport("40123|777", "0001");

    ASSERT_EQ(Open("Weather").empPort, "40123");

    EXPECT_THAT(TheOpen(), IsOpen(2, 2, 3, "LSR."));
}

TEST_F(LastOpensTest, RefusalBeforeTheTicketHasNoSerial) {
    Open("Nowhere");
    Open("Broker");
    Open("");

    EXPECT_THAT(Opens(), SizeIs(3));
    EXPECT_THAT(Opens(), Each(IsOpen(-1, 0, 0, ".")));
}

TEST_F(LastOpensTest, RefusalOfASecondClientHasItsSerial) {
    m_Fake.AddPreinstalled("Weather");
    AddKnown("Weather", "0003", EMP_OPENED);
    ConnectionDB().AddConnectionData({"Weather", "40123"}, "40001");

    Open("Weather", "40002");

    EXPECT_THAT(TheOpen(), IsOpen(2, 2, 0, "."));
}

TEST_F(LastOpensTest, RefusalForAnEmpThatNeverSettlesIsOne) {
    m_Fake.AddPreinstalled("Weather");
    AddKnown("Weather", "0001", EMP_PENDING);

    Open("Weather");

    EXPECT_THAT(TheOpen(), IsOpen(2, 2, 0, "."));
}

TEST_F(LastOpensTest, StartThatIsNotTakenIsAFailure) {
    const CRefusedPort port;
    BrokerProbe::SetLauncher(m_Broker, "Launcher", port.PortText(), {"Weather"});

    Open("Weather");

    EXPECT_THAT(TheOpen(), IsOpen(2, 5, 1, "L."));
}

TEST_F(LastOpensTest, UselessReportIsAFailureAfterTheReport) {
    m_Fake.AddPreinstalled("Weather");
    LetEmpsReport("40123|0", "0001");  // no process

    ASSERT_EQ(Open("Weather").empPort, "-1");

    EXPECT_THAT(TheOpen(), IsOpen(2, 2, 1, "LSR."));
}

TEST_F(LastOpensTest, ImageThatIsNotMountedIsNoStep) {
    m_Fake.AddImage("Weather");
    m_Fake.mounter.FailMounts(1);
    LetEmpsReport("40123|0", "0001");

    Open("Weather");

    EXPECT_THAT(TheOpen(), IsOpen(2, 2, 1, "LSR."));
}

TEST_F(LastOpensTest, UnknownExceptionIsAFailure) {
    m_Fake.AddImage("Weather");
    m_Fake.mounter.OnMount([] { throw std::runtime_error("no way"); });

    Open("Weather");

    EXPECT_THAT(TheOpen(), IsOpen(2, 2, 1, "L."));
}

TEST_F(LastOpensTest, LackOfMemoryIsAFailure) {
    m_Fake.AddImage("Weather");
    m_Fake.mounter.OnMount([] { throw std::bad_alloc(); });
    Open("Weather");
    m_Fake.files.OnExists([](const std::string&) { throw std::bad_alloc(); });
    Open("Clock");

    EXPECT_THAT(Opens(), ElementsAre(IsOpen(-1, 0, 1, "."), IsOpen(2, 2, 1, "L.")));
}

// ---- What is told ----

TEST_F(LastOpensTest, OnesThatAreUnderWayAreNotTold) {
    m_Fake.AddPreinstalled("Weather");
    std::vector<admin::OpenTimes> meanwhile;
    m_Fake.processes.OnFork([&](const ForkCall& call) {
        m_Broker.GetOpens(meanwhile);
        Report(call.arguments.at(2), "40123|777", "0001");
    });
    Open("Nowhere");

    Open("Weather");

    EXPECT_THAT(meanwhile, ElementsAre(IsOpen(-1, 0, 0, ".")));
    EXPECT_THAT(Opens(), SizeIs(2));
}

TEST_F(LastOpensTest, NamesOfAnyBytesLeaveAsText) {
    Open(std::string("a\xff\0b", 4), "\xc3");
    // The 63rd byte is in the middle of the last umlaut.
    Open(std::string(62, 'a') + "\xc3\xa4\xc3\xa4", std::string(300, 'c'));

    const std::vector<admin::OpenTimes> opens = Opens();
    ASSERT_THAT(opens, SizeIs(2));
    EXPECT_EQ(opens[1].empName, std::string("a\xef\xbf\xbd\0b", 6));
    EXPECT_EQ(opens[1].clientPort, "\xef\xbf\xbd");
    EXPECT_EQ(opens[0].empName, std::string(62, 'a'));
    EXPECT_EQ(opens[0].clientPort, std::string(127, 'c'));
}

TEST_F(LastOpensTest, LongNameThatIsNoTextIsCutAnywhere) {
    Open(std::string(100, '\x80'), "40001");

    std::string strCut;
    for (int n = 0; n < 63; ++n) strCut += "\xef\xbf\xbd";
    EXPECT_EQ(Opens().at(0).empName, strCut);
}

TEST_F(LastOpensTest, AreWholeWhoeverOpensMeanwhile) {
    std::atomic<bool> bStop{false};
    std::vector<std::thread> openers;
    for (const char* szName : {"A", "BB", "CCCCCCCCCCCCCCCCCCCCCCCC"}) {
        openers.emplace_back([&, strName = std::string(szName)] {
            while (!bStop) Open(strName, strName);
        });
    }
    bool bWhole = true;
    for (int nRound = 0; nRound < 100; ++nRound) {
        for (const admin::OpenTimes& open : Opens())
            bWhole = bWhole && !open.empName.empty() && open.empName == open.clientPort;
    }
    bStop = true;
    for (std::thread& opener : openers) opener.join();
    EXPECT_TRUE(bWhole);
    EXPECT_THAT(Opens(), Each(IsOpen(-1, 0, 0, ".")));
}

TEST_F(LastOpensTest, AreFilledAnew) {
    std::vector<admin::OpenTimes> opens(3);
    Open("Nowhere");
    m_Broker.GetOpens(opens);

    EXPECT_THAT(opens, SizeIs(1));
}

TEST_F(LastOpensTest, AgeGrowsWhileTheTimesStay) {
    Open("Nowhere");
    const admin::OpenTimes first = TheOpen();
    const auto begin = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - begin < std::chrono::milliseconds(2)) continue;
    const admin::OpenTimes second = TheOpen();

    EXPECT_GT(second.agoMs, first.agoMs);
    EXPECT_EQ(second.answeredUs, first.answeredUs);
}

}  // namespace
}  // namespace vok
