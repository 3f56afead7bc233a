// Very many opens, closes and starts: nothing of them stays, in the tables, in memory or on the
// machine, whatever the serials.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "tests/daemon/OpenCloseTest.h"
#include "tests/soak/CSoakClients.h"
#include "tests/support/CAdminClient.h"
#include "tests/support/CEmpKinds.h"
#include "tests/support/Footprint.h"
#include "tests/support/Form.h"

namespace vok::test {
namespace {

using std::chrono::steady_clock;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAreArray;

constexpr std::size_t kClients = 8;
constexpr int kFirstSerial = 2;
constexpr int kTenths = 10;
/// Starts come all at once, one by every client: their serials are neighbours.
constexpr long kBurst = kClients;
/// The highest serial that EMPs get whole. It comes after so many tenths.
constexpr int kLastWhole = 99'999;
constexpr int kTenthsBelow = 4;
/// Starts across it, one after the other: two below and two above.
constexpr int kStartsAcross = 4;

/// Which of the operations are starts; the others are opens of what runs.
std::vector<bool> Plan(long nOpens, long nStarts) {
    std::vector<bool> isStart(static_cast<std::size_t>(nOpens + nStarts));
    for (long n = 0; n < nStarts; ++n) {
        const long nBurst = n / kBurst * kBurst * (nOpens + nStarts) / nStarts;
        isStart[static_cast<std::size_t>(nBurst + n % kBurst)] = true;
    }
    return isStart;
}

class Soak : public ::testing::Test {
protected:
    void SetUp() override {
        InstallCold();
        CDaemon::Options options;
        options.nLogLevel = 0;
        ASSERT_TRUE(m_Daemon.Start(options)) << m_Daemon.Log();
        m_pLauncher = CEmpKinds::StartLauncher();
        ASSERT_NE(m_pLauncher->Port(), "");
        // One client of each that stays: these EMPs run throughout.
        for (const std::string& strEmp : m_Kinds.Names()) {
            const ConnectionInfo info = OpenEmp(strEmp, m_Keeper.Address());
            m_Record.TakeOpen(info.serial, true);
            ASSERT_THAT(info, IsConnected()) << strEmp;
            ASSERT_EQ(Greet(info), 1) << strEmp;
            m_Kept.push_back(info);
        }
        m_pClients = std::make_unique<CSoakClients>(m_Record, m_Cold);
    }

    void InstallCold() {
        for (std::size_t n = 0; n < kClients; ++n) {
            ColdEmp cold;
            cold.strName = "Cold" + std::to_string(n);
            if (n < 2) {
                cold.strName = CEmpKinds::UniqueImage(cold.strName + "at");
                m_Kinds.InstallImage(cold.strName);
                if (m_Kinds.HasImages()) cold.strMount = CEmpInstaller::MountPoint(cold.strName);
                cold.strProgram = m_Kinds.ProgramOf(cold.strName);
            } else {
                cold.bFake = n % 2 == 0;
                cold.strProgram = CEmpInstaller::ProgramPath(cold.strName);
                CEmpInstaller::PreinstallCopy(cold.strName,
                                              cold.bFake ? "fake-emp" : "example-emp");
            }
            m_Cold.push_back(cold);
        }
    }

    int LastSerial() const { return m_Record.Opens() - 1 + kFirstSerial; }
    void ExpectNoMistakes() const { ASSERT_THAT(m_Record.Mistakes(), IsEmpty()); }

    /// What is made only once is made here, and the serials come near to their fifth digit's end:
    /// opens that nobody closes, but for the last ones.
    void Begin(long nBelow) {
        m_pClients->DoEach([](CSoakClient& client) { client.Start(); });
        const long nUntil = kLastWhole - kStartsAcross / 2 + 1 - kFirstSerial - nBelow;
        const long nClosed = 4 * kClients;
        ASSERT_GE(nUntil, m_Record.Opens() + nClosed);
        m_pClients->Do(m_Record.Opens(), nUntil - nClosed,
                       [](CSoakClient& client, long) { client.Open(CEmpKinds::kProcess); });
        m_pClients->DoEach([this](CSoakClient& client) {
            for (const std::string& strEmp : m_Kinds.Names()) client.OpenAndClose(strEmp);
        });
        ASSERT_NO_FATAL_FAILURE(ExpectNoMistakes());
        ASSERT_EQ(m_Record.Opens(), nUntil);
        ASSERT_NO_FATAL_FAILURE(AwaitNoCalls());
        m_AtRest = TakeStock();
    }

    /// Waits until only the clients' connections, the server itself, and those who wait for the end
    /// of an EMP's process have threads, beside those that are always there.
    void AwaitNoCalls() {
        constexpr std::size_t kProcesses = 3;  // a program, an image, a grouping process
        ASSERT_TRUE(CDaemon::Await([&] {
            std::size_t nServing = 0;
            std::size_t nWaiting = 0;
            for (const DaemonThread& thread : m_Daemon.Threads()) {
                if (thread.strName == "VOK-B-Server" || thread.strName.rfind("B-", 0) == 0)
                    ++nServing;
                if (thread.strName == "VOK-B-ForkEmp") ++nWaiting;
            }
            return nServing == 1 + kClients && nWaiting == kProcesses;
        }));
    }

    Footprint TakeStock() const {
        Footprint inUse = Measure(m_Daemon, CEmpInstaller::ImagePath(m_Kinds.Image()));
        inUse.nProcesses = CountAllProcesses();  // those not waited for would pile up
        for (const ColdEmp& cold : m_Cold)
            inUse.nLoopDevices += CountLoopDevices(CEmpInstaller::ImagePath(cold.strName));
        return inUse;
    }

    /// Waits until everything is as it was at the beginning; the row says what there is then.
    void ExpectAtRest(const std::string& strWhat) {
        ASSERT_NO_FATAL_FAILURE(ExpectNoMistakes());
        EXPECT_TRUE(CDaemon::Await([&] { return TakeStock() == m_AtRest; }));
        const Footprint inUse = TakeStock();
        EXPECT_EQ(inUse.Text(), m_AtRest.Text());
        m_nResident = m_Daemon.ResidentKiB();
        const std::chrono::duration<double> took = steady_clock::now() - m_Begin;
        std::printf("| %s | %d | %d | %d | %ld | %d | %d | %d | %d | %d | %.0f |\n",
                    strWhat.c_str(), m_Record.Opens() - m_Record.Starts(), m_Record.Starts(),
                    LastSerial(), m_nResident, inUse.nDescriptors, inUse.nThreads, inUse.nProcesses,
                    inUse.nMounts, inUse.nLoopDevices, took.count());
        (void)std::fflush(stdout);
        ExpectTables();
    }

    /// The tables hold the EMPs that run with the client that stays, and the counters what was
    /// done.
    void ExpectTables() {
        EXPECT_TRUE(m_Record.HasAllSerials(kFirstSerial));
        const admin::BrokerState state = CAdminClient().GetState();
        EXPECT_THAT(state.waitingTickets, IsEmpty());
        std::vector<std::string> names;
        for (const admin::EmpState& emp : state.emps) names.push_back(emp.name);
        EXPECT_THAT(names, UnorderedElementsAreArray(m_Kinds.Names()));
        names.clear();
        for (const admin::ConnectionState& connection : state.connections) {
            names.push_back(connection.empName);
            EXPECT_THAT(connection.clientPorts, ElementsAre(m_Keeper.Address()));
        }
        EXPECT_THAT(names, UnorderedElementsAreArray(m_Kinds.Names()));
        EXPECT_EQ(state.mounts.size(), m_Kinds.HasImages() ? 1U : 0U);
        for (const admin::MountState& mount : state.mounts)
            EXPECT_TRUE(mount.image == m_Kinds.Image() && mount.count == 1 && mount.mounted)
                << mount.image << ' ' << mount.count;

        EXPECT_EQ(state.counters.opens, m_Record.Opens());
        EXPECT_EQ(state.counters.reuses, m_Record.Opens() - m_Record.Starts());
        EXPECT_EQ(state.counters.closes, m_Record.Closes());
        EXPECT_EQ(state.counters.refusals, 0);
        EXPECT_EQ(state.counters.failures, 0);
        EXPECT_EQ(state.counters.sweeps, 0);
    }

    /// A start with each serial around the last one that EMPs get whole; then, all at once, some
    /// whose first five digits are those of others.
    void CrossLastWhole() {
        const int nFirst = kLastWhole - kStartsAcross / 2 + 1;
        for (int n = 0; n < kStartsAcross; ++n)
            EXPECT_EQ(m_pClients->Client(static_cast<std::size_t>(n)).Start(), nFirst + n);
        m_pClients->DoEach([](CSoakClient& client) { client.Start(); });
        std::printf("| across %d | | | %d | | | | | | | |\n", kLastWhole, LastSerial());
    }

    void DoTenth(const std::vector<bool>& isStart, int nTenth) {
        const auto nAll = static_cast<long>(isStart.size());
        const std::vector<std::string> warm = m_Kinds.Names();
        m_pClients->Do(nAll * nTenth / kTenths, nAll * (nTenth + 1) / kTenths,
                       [&](CSoakClient& client, long nIndex) {
                           const auto n = static_cast<std::size_t>(nIndex);
                           if (isStart[n])
                               client.Start();
                           else
                               client.OpenAndClose(warm[n % warm.size()]);
                       });
    }

    /// The last client leaves, too: the tables are empty, and no image is left.
    void End() {
        m_pClients.reset();
        for (const ConnectionInfo& info : m_Kept) {
            EXPECT_TRUE(CloseEmp(info)) << info.empName;
            // The one in the grouping process does so itself; a launcher's needs not.
            if (info.empName == CEmpKinds::kProcess || info.empName == m_Kinds.Image())
                ReportStop(info.empName, info.empPort);
        }
        EXPECT_TRUE(WaitUntilEnded(CEmpInstaller::ProgramPath(CEmpKinds::kProcess)));
        EXPECT_TRUE(WaitUntilEnded(m_Kinds.ImageProgram()));
        EXPECT_TRUE(CDaemon::Await([] {
            const admin::BrokerState state = CAdminClient().GetState();
            return state.emps.empty() && state.connections.empty() && state.mounts.empty();
        }));
        const Footprint inUse = TakeStock();
        EXPECT_EQ(inUse.nMounts, m_AtRest.nMounts - (m_Kinds.HasImages() ? 1 : 0));
        EXPECT_EQ(inUse.nLoopDevices, 0);
        EXPECT_EQ(m_Daemon.Stop(), CDaemon::kOrderly);
    }

    const steady_clock::time_point m_Begin = steady_clock::now();
    const CEmpKinds m_Kinds;
    std::vector<ColdEmp> m_Cold;
    CDaemon m_Daemon;
    std::unique_ptr<CLauncherProcess> m_pLauncher;
    const CFakeClient m_Keeper;
    std::vector<ConnectionInfo> m_Kept;
    CSoakRecord m_Record{400'000};
    std::unique_ptr<CSoakClients> m_pClients;
    Footprint m_AtRest;
    long m_nResident = 0;
};

TEST_F(Soak, LeavesNothingBehind) {
    const long nOpens = IsLongForm() ? 200'000 : 5'000;
    const long nStarts = IsLongForm() ? 3'000 : 75;
    const std::vector<bool> isStart = Plan(nOpens, nStarts);
    const auto nAll = static_cast<long>(isStart.size());
    std::printf(
        "| | warm opens | starts | serial | resident [KiB] | descriptors | threads | processes | "
        "mounts | loop devices | seconds |\n|---|---|---|---|---|---|---|---|---|---|---|\n");
    ASSERT_NO_FATAL_FAILURE(Begin(nAll * kTenthsBelow / kTenths));
    ASSERT_NO_FATAL_FAILURE(ExpectAtRest("before"));

    long nResidentFirst = 0;
    for (int nTenth = 0; nTenth < kTenths; ++nTenth) {
        if (nTenth == kTenthsBelow) {
            CrossLastWhole();
            ASSERT_NO_FATAL_FAILURE(ExpectNoMistakes());
        }
        DoTenth(isStart, nTenth);
        ASSERT_NO_FATAL_FAILURE(ExpectAtRest(std::to_string(nTenth + 1) + "/10"));
        if (nTenth == 0) nResidentFirst = m_nResident;
    }
    EXPECT_LE(std::abs(m_nResident - nResidentFirst), nResidentFirst / 10);
    End();
}

}  // namespace
}  // namespace vok::test
