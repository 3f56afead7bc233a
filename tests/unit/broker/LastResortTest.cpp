// When not even the system helps: no thread, no memory. The log says so, and the rest goes on.
#include <boost/lexical_cast.hpp>
#include <boost/make_shared.hpp>

#include <new>
#include <string>

#include "open/StartEmp.h"
#include "tests/support/BrokerTest.h"
#include "tests/support/NoThreads.h"

namespace vok {
namespace {

using namespace test;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class LastResortTest : public BrokerTest {};

TEST_F(LastResortTest, PingsThatGetNoThreadAreLeftOut) {
    if (!RunWithoutThreads([this] { BrokerProbe::LaunchPings(m_Broker); }))
        GTEST_SKIP() << "threads cannot be forbidden here";

    EXPECT_THAT(LinesOf(m_Log, "StartServer"),
                ElementsAre("0 EMPs are not pinged: there is no thread."));
}

TEST_F(LastResortTest, AdminServiceThatGetsNoThreadIsLeftOut) {
    if (!RunWithoutThreads([this] { BrokerProbe::LaunchAdminServer(m_Broker); }))
        GTEST_SKIP() << "threads cannot be forbidden here";

    EXPECT_THAT(LinesOf(m_Log, "StartServer"),
                ElementsAre("0 There is no admin service: there is no thread."));
}

TEST_F(LastResortTest, StopThatGetsNoThreadForgetsTheEmpAndSparesItsProcess) {
    m_Fake.AddPreinstalled("Weather");
    AddKnown("Weather", "0001", EMP_OPENED);
    EmpInfo().SetEmpProcess("Weather", {777, 4711});
    std::string strAnswer = "none";
    if (!RunWithoutThreads([&] {
            strAnswer =
                Execute("", "__BROKER_CMD_NOTIFY_TO_STOP_EMP_SERVER", "Weather", "40123", "0");
        }))
        GTEST_SKIP() << "threads cannot be forbidden here";

    EXPECT_EQ(strAnswer, "");
    EXPECT_EQ(LinesOf(m_Log, "Execute").back(), "0 Error occured during StopEMPServer");
    EXPECT_FALSE(EmpInfo().IsAdded("Weather"));
    EXPECT_THAT(m_Fake.processes.Calls(), IsEmpty());
}

TEST_F(LastResortTest, StopThatCannotBeCompletedEndsItsThreadOnly) {
    m_Fake.AddMounted("Weather");
    BrokerProbe::SetMountCount(m_Broker, "Weather", 0);
    m_Fake.mounter.OnUmount([] { throw std::bad_alloc{}; });
    auto* const pBlock = new ExitEmpBlock;
    pBlock->strEmp = "Weather";
    pBlock->process = {777, 4711};
    pBlock->pBroker = &m_Broker;

    EXPECT_EQ(CBroker::ExitEmpProc(pBlock), nullptr);

    EXPECT_THAT(LinesOf(m_Log, "ExitEmpProc"),
                ElementsAre("4 ==Enter ExitEmpProc==. ",
                            "0 ### Emit SIGTERM to EMP:[Weather] pid:[777] ###",
                            "0 The stop of an EMP was not completed."));
}

TEST_F(LastResortTest, StartThatCannotBeCompletedEndsItsThreadOnly) {
    m_Fake.processes.OnFork([](const ForkCall&) { throw std::bad_alloc{}; });
    ForkEmpParams params;
    params.ARGV_path = "/usr/bin/emps/empWeather/empWeather";

    EXPECT_EQ(CBroker::ForkEmp(new OwnedForkEmpParams(params, nullptr, m_Fake.Get())), nullptr);

    EXPECT_EQ(LinesOf(m_Log, "ForkEmp").back(), "0 The start of an EMP was not completed.");
}

TEST_F(LastResortTest, ReportThatCouldNotBeTakenCanBeRepeated) {
    const auto spTicket = boost::make_shared<Ticket>("-1");
    spTicket->m_Condition.SetDoWaiting(true);
    BrokerProbe::SetTicket(m_Broker, spTicket->GetSerial(), spTicket);

    EXPECT_THROW(Report("2", "40123|no pid", "0001"), boost::bad_lexical_cast);
    EXPECT_EQ(spTicket->m_strPort, "");
    EXPECT_EQ(Report("2", "40123|777", "0001"), "ConfirmComplete");

    EXPECT_EQ(spTicket->m_strPort, "40123");
    EXPECT_EQ(spTicket->m_Condition.Wait(1), 0);
}

TEST_F(LastResortTest, OpenForWhichMemoryIsShortLeavesNothingBehind) {
    m_Fake.AddImage("Weather");
    m_Fake.mounter.OnMount([] { throw std::bad_alloc{}; });
    ConnectionInfo info;

    m_Broker.OpenEmp(info, "40001", "Weather", "1.0", "app");

    EXPECT_EQ(info.empPort, "");
    EXPECT_EQ(LinesOf(m_Log, "OpenEmp").back(), "0 UNEXPECTED ERROR OCCURED, EMP:[Weather].");
    EXPECT_THAT(LinesOf(m_Log, "ReportLogToServer"), IsEmpty());
    EXPECT_FALSE(EmpInfo().IsAdded("Weather"));
    EXPECT_THAT(BrokerProbe::Tickets(m_Broker), IsEmpty());
    EXPECT_THAT(BrokerProbe::MountCounts(m_Broker), IsEmpty());
}

TEST_F(LastResortTest, UndoThatFailsInOneStepMakesTheOthers) {
    m_Fake.AddPreinstalled("Weather");
    LetEmpsReport("40123|777", "");  // without an option it is undone
    m_Fake.clock.OnSleep([](int nSleep) {
        if (nSleep == 1) throw std::bad_alloc{};  // instead of the head start of its report
    });
    ConnectionInfo info;

    m_Broker.OpenEmp(info, "40001", "Weather", "1.0", "app");

    EXPECT_EQ(info.empPort, "-1");
    EXPECT_THAT(LinesOf(m_Log, "OpenEmp"),
                Contains("0 The undo of opening EMP:[Weather] is incomplete."));
    EXPECT_FALSE(EmpInfo().IsAdded("Weather"));
    EXPECT_THAT(BrokerProbe::Tickets(m_Broker), IsEmpty());
}

/// Fails every close.
class CFailingBroker : public CBroker {
public:
    using CBroker::CBroker;
    bool CloseEmp(const ConnectionInfo&) override { throw std::bad_alloc{}; }
};

TEST_F(LastResortTest, LauncherGoesAlsoWhenItsEmpsCannotBeClosed) {
    CFailingBroker broker{m_Fake.Get()};
    BrokerProbe::SetLauncher(broker, "Launcher", "5000", {"Clock", "Weather"});
    for (const char* szEmp : {"Clock", "Weather"})
        BrokerProbe::ConnectionDB(broker).AddConnectionData({szEmp, "40123"}, "40001");
    m_Log.Clear();

    broker.RemoveLauncherInfo("Launcher", "5000");

    for (const std::string strEmp : {"Clock", "Weather"})
        EXPECT_THAT(LinesOf(m_Log, "RemoveLauncherInfo"),
                    Contains("0 EMP [" + strEmp + "] was not closed."));
    EXPECT_THAT(BrokerProbe::Launchers(broker), IsEmpty());
}

}  // namespace
}  // namespace vok
