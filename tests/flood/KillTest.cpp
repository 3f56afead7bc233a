// kill -9 of the broker in the middle of its work: the next start succeeds and serves, and what is
// left behind does not pile up.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thrift/Thrift.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <random>
#include <thread>

#include "platform/EmpPaths.h"
#include "tests/daemon/OpenCloseTest.h"
#include "tests/flood/Form.h"
#include "tests/support/CAdminClient.h"
#include "tests/support/CEmpKinds.h"
#include "tests/support/CPrivateWorld.h"

namespace vok::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* kProcess = CEmpKinds::kProcess;
constexpr const char* kRegistered = CEmpKinds::kRegistered;
constexpr const char* kGroup = CEmpKinds::kGroup;
constexpr const char* kHosted = CEmpKinds::kHosted;
constexpr int kClients = 8;
constexpr int kOperations = 200;

void EndProcessesOf(const std::string& strProgram) {
    for (const int nPid : ProcessesOf(strProgram)) (void)::kill(nPid, SIGKILL);
    EXPECT_TRUE(CDaemon::Await([&] {
        (void)CPrivateWorld::ReapOrphans();
        return ProcessesOf(strProgram).empty();
    }));
}

/// Clients that do 200 operations between them, mixed, until the broker goes.
class CMixedClients {
public:
    CMixedClients(std::string strImageEmp, unsigned int nSeed) : m_strImageEmp(strImageEmp) {
        for (int n = 0; n < kClients; ++n)
            m_Threads.emplace_back([this, n, nSeed] { Run(n, nSeed + static_cast<unsigned>(n)); });
    }
    ~CMixedClients() {
        for (std::thread& thread : m_Threads) thread.join();
    }
    /// Operations that were answered.
    int Done() const { return m_nDone; }

private:
    void Run(int nClient, unsigned int nSeed) {
        std::mt19937 random{nSeed};
        const std::string strClient = std::to_string(42000 + nClient);
        ConnectionInfo last;
        try {
            while (m_nBegun++ < kOperations) {
                Operate(random() % 12, strClient, last);
                ++m_nDone;
            }
        } catch (const apache::thrift::TException&) {
            // The broker has gone.
        }
    }

    void Operate(unsigned long nWhich, const std::string& strClient, ConnectionInfo& last) {
        switch (nWhich) {
            case 0:
            case 1:
                last = vok::test::OpenEmp(kProcess, strClient);
                break;
            case 2:
            case 3:
                last = vok::test::OpenEmp(m_strImageEmp, strClient);
                break;
            case 4:
                last = vok::test::OpenEmp(kRegistered, strClient);
                break;
            case 5:
                last = vok::test::OpenEmp(kHosted, strClient);
                break;
            case 6:
            case 7:
                if (last.empPort != "-1" && !last.empPort.empty()) (void)CloseEmp(last);
                break;
            case 8:
            case 9:
                // As an EMP does that ends: its process is stopped, and its image goes.
                if (last.empName == m_strImageEmp || last.empName == kProcess) {
                    (void)CloseEmp(last);
                    ReportStop(last.empName, last.empPort);
                }
                break;
            case 10:
                (void)CBrokerClient().Version();
                break;
            default:
                (void)CAdminClient().SweepZombies();  // they all are: no callback server
                break;
        }
    }

    const std::string m_strImageEmp;
    std::atomic<int> m_nBegun{0};
    std::atomic<int> m_nDone{0};
    std::vector<std::thread> m_Threads;
};

class Kill : public ::testing::Test {
protected:
    void Start(CDaemon& daemon) {
        CDaemon::Options options;
        options.nLogLevel = 3;
        options.strLogFile = "/tmp/broker.log";  // one file for all of them
        options.bCloseStandard = true;           // its EMPs complain there when it has gone
        ASSERT_TRUE(daemon.Start(options)) << daemon.Log();
    }

    /// Every kind of EMP opens, answers and closes.
    void ExpectServes() {
        EXPECT_EQ(CBrokerClient().Version(), "5.100");
        for (const std::string& strEmp : m_Kinds.Names()) {
            const ConnectionInfo info = vok::test::OpenEmp(strEmp, "43000");
            ASSERT_THAT(info, IsConnected()) << strEmp;
            EXPECT_EQ(Ask(info.empPort, "Ping"), "1") << strEmp;
            EXPECT_TRUE(CloseEmp(info)) << strEmp;
        }
        EXPECT_NO_THROW((void)CAdminClient().GetState());
    }

    void ExpectBoundedLeftovers() {
        if (!m_bImages) return;
        EXPECT_LE(CountMounts(CEmpInstaller::MountPoint(m_strImageEmp)), 1);
        EXPECT_LE(CountLoopDevices(CEmpInstaller::ImagePath(m_strImageEmp)), 1);
    }

    /// Nothing of what earlier brokers have mounted stays for ever.
    void ExpectImageGoes() {
        if (!m_bImages) return;
        const ConnectionInfo info = vok::test::OpenEmp(m_strImageEmp, "43000");
        EXPECT_TRUE(CloseEmp(info));
        ReportStop(m_strImageEmp, info.empPort);
        EXPECT_TRUE(CDaemon::Await([&] {
            return CountMounts(CEmpInstaller::MountPoint(m_strImageEmp)) == 0 &&
                   CountLoopDevices(CEmpInstaller::ImagePath(m_strImageEmp)) == 0;
        }));
    }

    void EndEmps() {
        EndProcessesOf(CEmpInstaller::ProgramPath(kProcess));
        EndProcessesOf(CEmpInstaller::ProgramPath(kGroup));
        EndProcessesOf(m_Kinds.ImageProgram());
    }

    const CEmpKinds m_Kinds;
    const std::string m_strImageEmp = m_Kinds.Image();
    const bool m_bImages = m_Kinds.HasImages();
};

TEST_F(Kill, InTheMiddleOfMixedOperations) {
    const int nRounds = IsLongForm() ? 100 : 10;
    const unsigned int nSeed = std::random_device{}();
    std::printf("   random numbers from %u\n", nSeed);
    std::mt19937 random{nSeed};
    CDaemon daemon;
    int nDone = 0;
    int nMountsFirst = 0;
    int nFoundMounted = 0;
    for (int nRound = 0; nRound < nRounds && !HasFailure(); ++nRound) {
        SCOPED_TRACE("round " + std::to_string(nRound));
        if (m_bImages && CountMounts(CEmpInstaller::MountPoint(m_strImageEmp)) > 0) ++nFoundMounted;
        ASSERT_NO_FATAL_FAILURE(Start(daemon));
        const auto pLauncher = CEmpKinds::StartLauncher();
        ASSERT_NE(pLauncher->Port(), "");
        ASSERT_NO_FATAL_FAILURE(ExpectServes());

        const int nKillAfter = static_cast<int>(random() % (kOperations - kClients));
        {
            CMixedClients clients{m_strImageEmp, static_cast<unsigned int>(random())};
            ASSERT_TRUE(CDaemon::Await([&] { return clients.Done() >= nKillAfter; }))
                << daemon.Log();
            daemon.Kill();
            nDone += clients.Done();
        }
        EXPECT_TRUE(fs::exists(paths::kReadyFlag)) << "the kill was no orderly stop";
        ExpectBoundedLeftovers();
        // Its EMPs live on without it. Some are still there when the next broker starts.
        if (nRound % 2 == 0) EndEmps();
        if (nRound == 1) nMountsFirst = CountAllMounts();
        if (nRound > 1) {
            EXPECT_LE(CountAllMounts(), nMountsFirst + 1);  // the image, or not
        }
    }
    EndEmps();
    ASSERT_NO_FATAL_FAILURE(Start(daemon));
    const auto pLauncher = CEmpKinds::StartLauncher();
    ExpectServes();
    ExpectImageGoes();
    EXPECT_EQ(daemon.Stop(), CDaemon::kOrderly);
    EXPECT_FALSE(fs::exists(paths::kReadyFlag));
    const int nUnmounted =
        daemon.CountLines(3, "UnmoutEMP", "Umount for [" + m_strImageEmp + "] EMP Succeeded!");
    std::printf(
        "   %d kills, %d operations answered before them; the image was unmounted %d times between "
        "them, and %d starts found it mounted; never more than one mount and one loop device\n",
        nRounds, nDone, nUnmounted, nFoundMounted);
    EndEmps();
}

}  // namespace
}  // namespace vok::test
