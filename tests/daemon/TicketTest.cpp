// Reports and the tickets that they belong to: late ones, early ones, foreign ones, and many.
#include <thrift/TApplicationException.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <thread>
#include <vector>

#include "tests/daemon/OpenCloseTest.h"

namespace vok::test {
namespace {

constexpr char kNotValid[] = "ticket isn't valid. port:[4000]. Broker do not wake condition up";

class Report : public OpenCloseTest {
protected:
    /// What has to work whatever a report was like, without anybody's help.
    void ExpectOpensGoOn(const std::string& strEmp) {
        CEmpInstaller::Preinstall(strEmp);
        EXPECT_THAT(OpenEmp(strEmp), IsConnected());
    }
};

TEST_F(Report, MadeTwiceHangsNobody) {
    CEmpInstaller::Preinstall("Weather", CEmpBehaviour().With("report", "2"));
    const ConnectionInfo info = OpenEmp("Weather");
    EXPECT_THAT(info, IsConnected());
    AwaitLine(4, "ConfirmEMPServer", "Notify the TicketSerial:[2] to break waiting.", 2);
    EXPECT_EQ(ReportStart(std::to_string(info.serial), "4000|4242"), "ConfirmComplete");
    ExpectOpensGoOn("Other");
    EXPECT_EQ(OpenEmp("Weather").empPort, info.empPort) << "it does not count";
}

TEST_F(Report, ForAReusedSingletonHangsNobody) {
    CEmpInstaller::Preinstall("Weather");
    OpenEmp("Weather");
    const ConnectionInfo reused = OpenEmp("Weather", kOtherClient);
    EXPECT_EQ(ReportStart(std::to_string(reused.serial), "4000|4242"), "ConfirmComplete");
    ExpectLine(4, "ConfirmEMPServer", "Notify the TicketSerial:[3] to break waiting.");
    ExpectOpensGoOn("Other");
    EXPECT_EQ(OpenEmp("Weather").empPort, reused.empPort);
}

TEST_F(Report, ForAnOpenThatWaitsForAnotherHangsNobody) {
    CEmpInstaller::Preinstall("Weather", CEmpBehaviour().ReportsWhenExists("/tmp/go"));
    auto first = std::async(std::launch::async, [] { return OpenEmp("Weather"); });
    AwaitLine(3, "OpenEmp", "Emp:[Weather] is not in the m_EmpInfo.");
    auto second = std::async(std::launch::async, [] { return OpenEmp("Weather", kOtherClient); });
    AwaitLine(4, "CheckStatus", "[Weather] Wait for status[1] change");

    EXPECT_EQ(ReportStart("3", "4000|4242"), "ConfirmComplete") << "it starts no process yet";
    ExpectOpensGoOn("Other");
    MakeFile("/tmp/go");
    const ConnectionInfo info = first.get();
    EXPECT_THAT(info, IsConnected());
    EXPECT_EQ(second.get().empPort, info.empPort);
}

TEST_F(Report, OfAnUnknownSerialIsAnsweredAndLogged) {
    EXPECT_EQ(ReportStart("77", "4000|4242"), "ConfirmComplete");
    ExpectLine(4, "ConfirmEMPServer",
               "ticketSerial:[77], EmpServer Path:[4000|4242], "
               "EmpServerStatus:[__SERVER_SUCCESS_TO_RUN], EmpOption:[0001].");
    ExpectLine(4, "ConfirmEMPServer", "Notify the TicketSerial:[77] to break waiting.");
    ExpectLine(0, "ConfirmEMPServer", kNotValid);
    EXPECT_EQ(ReportStart("77", "4000|4242"), "ConfirmComplete") << "nor does its trace hang us";
    EXPECT_EQ(m_Daemon.CountLines(0, "ConfirmEMPServer", kNotValid), 2);
}

TEST_F(Report, BeforeItsTicketExistsDoesNotCountForIt) {
    ReportStart("2", "4000|4242");
    ExpectLine(0, "ConfirmEMPServer", kNotValid);
    CEmpInstaller::Preinstall("Weather");
    const ConnectionInfo info = OpenEmp("Weather");
    EXPECT_THAT(info, IsConnected());
    EXPECT_NE(info.empPort, "4000");
}

TEST_F(Report, AfterARefusedOpenFindsNoTicket) {
    CEmpInstaller::Preinstall("Weather", CEmpBehaviour().Option(""));
    ASSERT_THAT(OpenEmp("Weather"), IsInvalid("127.0.0.1"));
    EXPECT_EQ(ReportStart("2", "4000|4242"), "ConfirmComplete");
    ExpectLine(0, "ConfirmEMPServer", kNotValid);
}

TEST_F(Report, WithoutSerialIsRefused) {
    EXPECT_EQ(ReportStart("", "4000|4242"), "");
    ExpectLine(0, "Execute", ">>> Ticket Serial is NULL!!!");
}

TEST_F(Report, WithoutSeparatorIsPortAndPid) {
    CEmpInstaller::Preinstall("Weather", CEmpBehaviour().With("portandpid", "4000"));
    EXPECT_EQ(OpenEmp("Weather").empPort, "4000");
    ExpectLine(4, "ConfirmEMPServer",
               "The Emp server has been started with Path [4000], pid[4000]");
}

// Numbers that are none fail the report alone: the opener goes on waiting for a sound one.
TEST_F(Report, OfNoNumbersFailsAndTheOpenIsStillCompleted) {
    CEmpInstaller::Preinstall("Weather", CEmpBehaviour().ReportsWhenExists("/tmp/go"));
    auto open = std::async(std::launch::async, [] { return OpenEmp("Weather"); });
    AwaitLine(4, "OpenEmp", "EMP:[Weather] Ticket(Serial:[2]) has been inserted");
    for (const char* const szSerial : {"two", "2x", " 2", "99999999999"})
        EXPECT_THROW(ReportStart(szSerial, "4000|4242"), apache::thrift::TApplicationException)
            << szSerial;
    for (const char* const szPortAndPid : {"4000|", "4000|pid", "|", "", "4000|99999999999"})
        EXPECT_THROW(ReportStart("2", szPortAndPid), apache::thrift::TApplicationException)
            << szPortAndPid;
    MakeFile("/tmp/go");

    const ConnectionInfo info = open.get();
    EXPECT_THAT(info, IsConnected());
    EXPECT_EQ(Ask(info.empPort, "Ping"), "1");
}

TEST_F(Report, WithTheSerialOfAnotherOpenCompletesThatOne) {
    CEmpInstaller::Preinstall("Weather", CEmpBehaviour().ReportsWhenExists("/tmp/go"));
    auto open = std::async(std::launch::async, [] { return OpenEmp("Weather"); });
    AwaitLine(4, "OpenEmp", "EMP:[Weather] Ticket(Serial:[2]) has been inserted");
    EXPECT_EQ(ReportStart("2", "4000|4242"), "ConfirmComplete");
    EXPECT_EQ(open.get().empPort, "4000");
    MakeFile("/tmp/go");  // its own comes too late
    AwaitLine(4, "ConfirmEMPServer", "Notify the TicketSerial:[2] to break waiting.", 2);
    ExpectOpensGoOn("Other");
}

TEST_F(Report, OfAllKindsAtOnceHoldsNoOpenUp) {
    CEmpInstaller::Preinstall("Weather");
    const std::string strPort = OpenEmp("Weather").empPort;
    std::atomic<bool> bStop{false};
    std::vector<std::thread> reporters;
    for (const char* const szSerial : {"2", "3", "4", "77", "4000000000", "x"})
        reporters.emplace_back([&bStop, szSerial] {
            while (!bStop) {
                try {
                    ReportStart(szSerial, "4000|4242");
                } catch (const apache::thrift::TApplicationException&) {
                    continue;  // the one that is no number
                }
            }
        });
    for (int i = 0; i < 10; ++i) EXPECT_EQ(OpenEmp("Weather").empPort, strPort);
    for (int i = 0; i < 3; ++i) ExpectOpensGoOn("Other" + std::to_string(i));
    bStop = true;
    for (std::thread& reporter : reporters) reporter.join();
}

// ---- Many, and large serials
// ------------------------------------------------------------------------

/// Opens the EMP, which runs, `nTimes` times, on several connections. The highest serial.
int OpenWarm(const std::string& strEmp, int nTimes) {
    constexpr int kConnections = 2;
    std::vector<std::future<int>> opens;
    for (int i = 0; i < kConnections; ++i)
        opens.push_back(std::async(std::launch::async, [=] {
            CBrokerClient client;
            int nSerial = 0;
            for (int n = i; n < nTimes; n += kConnections)
                nSerial = client.Open(kClient, strEmp, kVersion, kApp).serial;
            return nSerial;
        }));
    int nHighest = 0;
    for (auto& open : opens) nHighest = std::max(nHighest, open.get());
    return nHighest;
}

class SlowTickets : public ::testing::Test {
protected:
    void SetUp() override {
        CDaemon::Options options;
        options.nLogLevel = 0;  // there is much to say
        ASSERT_TRUE(m_Daemon.Start(options)) << m_Daemon.Log();
    }

    int CountNotValid() const { return m_Daemon.CountLines(0, "ConfirmEMPServer", kNotValid); }

    CDaemon m_Daemon;
};

TEST_F(SlowTickets, AreForgottenButForThoseThatWait) {
    CEmpInstaller::Preinstall("Warm");
    const int nFirst = OpenEmp("Warm").serial;
    CEmpInstaller::Preinstall(
        "Waiting", CEmpBehaviour().ReportsWhenExists("/tmp/go").Records("/tmp/start-record"));
    auto waiting = std::async(std::launch::async, [] { return OpenEmp("Waiting"); });
    const std::string strWaiting = ReadStartRecord("/tmp/start-record").arguments.at(2);

    const int nLast = OpenWarm("Warm", 5000);
    CBrokerClient client;
    // The last one is still known, the first one of so many is not.
    client.Execute("", kReportStart, std::to_string(nLast), "4000|4242", kRunning, "0001");
    EXPECT_EQ(CountNotValid(), 0);
    client.Execute("", kReportStart, std::to_string(nFirst), "4000|4242", kRunning, "0001");
    EXPECT_EQ(CountNotValid(), 1);
    for (int i = 0; i < 5000; ++i)
        client.Execute("", kReportStart, std::to_string(1'000'000 + i), "4001|4242", kRunning,
                       "0001");
    ASSERT_EQ(waiting.wait_for(std::chrono::seconds(0)), std::future_status::timeout)
        << "too slow: the open has run out of time";

    MakeFile("/tmp/go");
    const ConnectionInfo info = waiting.get();
    EXPECT_THAT(info, IsConnected());
    EXPECT_EQ(std::to_string(info.serial), strWaiting);
    EXPECT_EQ(Ask(info.empPort, "Ping"), "1");
}

TEST_F(SlowTickets, OfMoreThanFiveDigitsFindTheirReports) {
    CEmpInstaller::Preinstall("Warm");
    OpenEmp("Warm");
    // 10,000 stands for 100,000 to 100,009 as well; all six get to the EMPs as these five digits.
    constexpr int kLast = 99'999;
    const auto begin = std::chrono::steady_clock::now();
    ASSERT_EQ(OpenWarm("Warm", kLast - 2), kLast);
    const auto took = std::chrono::steady_clock::now() - begin;
    RecordProperty(
        "OpenMilliseconds",
        static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(took).count()));

    CEmpInstaller::Preinstall("Alone");
    const ConnectionInfo alone = OpenEmp("Alone");
    EXPECT_THAT(alone, IsConnected());
    EXPECT_EQ(alone.serial, 100'000);
    EXPECT_EQ(Ask(alone.empPort, "Serial"), "10000");

    std::vector<std::future<ConnectionInfo>> opens;
    for (int i = 0; i < 4; ++i) {
        CEmpInstaller::Preinstall("Twin" + std::to_string(i),
                                  CEmpBehaviour().ReportsWhenExists("/tmp/go").Records(
                                      "/tmp/record" + std::to_string(i)));
        opens.push_back(
            std::async(std::launch::async, [i] { return OpenEmp("Twin" + std::to_string(i)); }));
    }
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(ReadStartRecord("/tmp/record" + std::to_string(i)).arguments.at(2), "10000");
    MakeFile("/tmp/go");
    for (int i = 0; i < 4; ++i) {
        const ConnectionInfo info = opens[static_cast<std::size_t>(i)].get();
        EXPECT_THAT(info, IsConnected());
        EXPECT_GT(info.serial, 100'000);
        const std::vector<int> pids =
            ProcessesOf(CEmpInstaller::ProgramPath("Twin" + std::to_string(i)));
        ASSERT_EQ(pids.size(), 1u);
        EXPECT_EQ(Ask(info.empPort, "Pid"), std::to_string(pids[0])) << "the answer of another";
    }
    EXPECT_EQ(OpenEmp("Warm").serial, 100'005) << "warm opens go on, too";
}

}  // namespace
}  // namespace vok::test
