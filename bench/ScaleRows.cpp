// Opens and closes while the tables are full, beside a daemon whose tables are not.
#include <unistd.h>

#include <stdexcept>
#include <string>

#include "bench/CNetwork.h"
#include "bench/CPin.h"
#include "bench/CStage.h"
#include "bench/Clock.h"
#include "bench/Emps.h"
#include "bench/Rows.h"
#include "platform/Limits.h"
#include "tests/support/CFakeLauncher.h"

namespace vok::bench {

using test::CBrokerClient;

namespace {

constexpr char kEmp[] = "BenchScale";
constexpr int kFew = 10;

void Expect(const std::string& strAnswer, const std::string& strExpected) {
    if (strAnswer != strExpected) throw std::runtime_error("the broker answers " + strAnswer);
}

/// A daemon with EMPs of a register launcher in its tables, and clients of one EMP that runs.
class CFullStage {
public:
    CFullStage(int nClients, int nEmps)
        : m_Stage({2, 0, &m_Network}), m_pClient(m_Stage.Connect()) {
        AddEmps(nEmps);
        m_nEmps = nEmps;
        m_strEmpPort = m_Stage.KeepRunning(kEmp).empPort;
        for (int n = 0; n < nClients; ++n)
            (void)CStage::Open(*m_pClient, kEmp, std::to_string(10'000 + n));
        // From now on an old ticket is forgotten with each new one, with few EMPs as with many.
        (void)Median(static_cast<int>(kMaxTickets), false);
    }

    /// The median open of a client that is not connected, or the median close of one that is. The
    /// other of the two is made, too, but its time does not count. Another EMP is asked for before
    /// each of them: neither finds its own where the last call has left it.
    double Median(int nTimes, bool bOfCloses) {
        return MedianOf(nTimes, [&] {
            ConnectionInfo info;
            VisitAnother();
            const double open = SecondsOf([&] { info = CStage::Open(*m_pClient, kEmp, "45001"); });
            VisitAnother();
            const double close = SecondsOf([&] { CStage::Close(*m_pClient, info); });
            return bOfCloses ? close : open;
        });
    }

private:
    /// A client that is connected already asks for one of the other EMPs, each time for another
    /// one.
    void VisitAnother() {
        constexpr int kStride = 37;  // far from the last one, and prime to any table's size
        m_nVisited = (m_nVisited + kStride) % m_nEmps;
        (void)CStage::Open(*m_pClient, "Bench" + std::to_string(m_nVisited));
    }

    /// Each has been opened, by a client that stays.
    void AddEmps(int nEmps) {
        const CNetwork::CVisit visit{&m_Network};
        test::CFakeLauncher launcher;
        CBrokerClient reporter;
        launcher.OnOpen([&](const test::LauncherOpen& open) {
            Expect(reporter.Execute("", "__BROKER_CMD_NOTIFY_EMP_SERVER_INFO",
                                    std::to_string(open.nTicketSerial),
                                    "40100|" + std::to_string(::getpid()),
                                    "__SERVER_SUCCESS_TO_RUN", "0001"),
                   "ConfirmComplete");
        });
        const std::string strPort = launcher.PortText();
        Expect(m_pClient->Execute("1", "__BROKER_CMD_NOTIFY_REGISTEREMP_SERVER", "BenchLauncher",
                                  strPort),
               "Done");
        for (int n = 0; n < nEmps; ++n) {
            const std::string strEmp = "Bench" + std::to_string(n);
            Expect(m_pClient->Execute("", "__BROKER_CMD_NOTIFY_REGISTER_EMP", strEmp, strPort),
                   "Done");
            (void)CStage::Open(*m_pClient, strEmp);
        }
    }

    const CNetwork m_Network;
    CStage m_Stage;
    const std::unique_ptr<CBrokerClient> m_pClient;
    std::string m_strEmpPort;
    int m_nEmps = 0;
    int m_nVisited = 0;
};

std::vector<Measured> OpenAndClose(const Effort& effort, int nClients, int nEmps) {
    const CPin pin;
    InstallEmp(kEmp, eLinkage::Dynamic);
    CFullStage few{kFew, kFew};
    CFullStage full{nClients, nEmps};
    const int nTimes = effort.nCalls / 5;
    std::vector<Measured> measured;
    for (const bool bOfCloses : {false, true}) {
        const Comparison comparison = Compare(
            effort.nRounds, [&] { return few.Median(nTimes, bOfCloses); },
            [&] { return full.Median(nTimes, bOfCloses); });
        measured.push_back(AsRatio(comparison, "us", 1e-6));
    }
    return measured;
}

}  // namespace

std::vector<Measured> ManyClients(const Effort& effort) {
    return OpenAndClose(effort, effort.nMany, kFew);
}

std::vector<Measured> ManyEmps(const Effort& effort) {
    return OpenAndClose(effort, kFew, effort.nMany);
}

}  // namespace vok::bench
