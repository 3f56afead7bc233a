// What the start of an EMP costs by itself: vfork, execve, and the EMP's report to a bare server.
//
// Serves on the broker's port. An order names EMPs, a blank between each. They are started at once,
// on a thread each when there are several; the answer is how many nanoseconds it took until all had
// reported. They have ended when it comes.
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "VokBroker.h"
#include "bench/Clock.h"
#include "bench/Lines.h"
#include "open/ExecImage.h"
#include "platform/Descriptors.h"
#include "platform/EmpPaths.h"
#include "platform/Limits.h"
#include "tests/support/FakeServer.h"

namespace {

using vok::bench::Clock;

/// Where the EMPs' reports arrive.
class CReports : public vok::VokBrokerIf {
public:
    void OpenEmp(vok::ConnectionInfo& /*result*/, const std::string& /*strClientPort*/,
                 const std::string& /*strEmp*/, const std::string& /*strVersion*/,
                 const std::string& /*strAppInfo*/) override {}
    bool CloseEmp(const vok::ConnectionInfo& /*info*/) override { return true; }

    void Execute(std::string& strResult, const std::string& /*strArg1*/,
                 const std::string& /*strCmd*/, const std::string& strSerial,
                 const std::string& /*strPortAndPid*/, const std::string& /*strStatus*/,
                 const std::string& /*strOption*/) override {
        strResult = "ConfirmComplete";
        const std::lock_guard<std::mutex> lock{m_Mutex};
        const auto it = m_Expected.find(std::atoi(strSerial.c_str()));
        if (it == m_Expected.end()) return;
        it->second.set_value();
        m_Expected.erase(it);
    }

    /// Ready when the report with this serial has come: each start has a waiter of its own.
    std::future<void> Expect(int nSerial) {
        const std::lock_guard<std::mutex> lock{m_Mutex};
        return m_Expected[nSerial].get_future();
    }

private:
    std::mutex m_Mutex;
    std::map<int, std::promise<void>> m_Expected;
};

/// One EMP process: started as the broker starts it.
class CBareEmp {
public:
    CBareEmp(const std::string& strEmp, int nSerial, std::string& strLibraryPath)
        : m_strProgram(vok::paths::PreinstalledProgram(strEmp)), m_nSerial(nSerial) {
        vok::ForkEmpParams params;
        params.ARGV_path = m_strProgram.c_str();
        vok::CopyBounded(params.ARGV_empName, strEmp);
        params.ARGV_ticketSerial = nSerial;
        params.CbSrvPort = "40001";
        vok::FillExecImage(m_Image, params, strLibraryPath.data());
    }
    CBareEmp(const CBareEmp&) = delete;
    CBareEmp& operator=(const CBareEmp&) = delete;

    void StartAndAwait(CReports& reports) {
        const std::future<void> report = reports.Expect(m_nSerial);
        m_nPid = ::vfork();
        if (m_nPid == 0) {
            (void)::execve(m_Image.szPath, m_Image.argv, m_Image.envp);
            ::_exit(127);
        }
        report.wait();
    }

    void End() const {
        (void)::kill(m_nPid, SIGTERM);
        while (::waitpid(m_nPid, nullptr, 0) < 0 && errno == EINTR) continue;
    }

private:
    const std::string m_strProgram;
    const int m_nSerial;
    vok::ExecImage m_Image;
    volatile pid_t m_nPid = 0;  // volatile: a vfork returns twice
};

class CStarter {
public:
    explicit CStarter(CReports& reports) : m_Reports(reports) {
        const char* const szPath = std::getenv("LD_LIBRARY_PATH");
        m_strLibraryPath = std::string("LD_LIBRARY_PATH=") + (szPath == nullptr ? "" : szPath);
    }

    std::chrono::nanoseconds Start(const std::string& strEmps) {
        std::vector<std::unique_ptr<CBareEmp>> emps;
        std::istringstream names{strEmps};
        for (std::string strEmp; names >> strEmp;)
            emps.push_back(std::make_unique<CBareEmp>(strEmp, NextSerial(), m_strLibraryPath));
        const auto taken = emps.size() == 1 ? StartOne(*emps.front()) : StartAtOnce(emps);
        for (const auto& pEmp : emps) pEmp->End();
        return taken;
    }

private:
    /// They have five digits at most, which is what an EMP is given.
    int NextSerial() { return m_nSerial = m_nSerial % 99'999 + 1; }

    std::chrono::nanoseconds StartOne(CBareEmp& emp) {
        vok::bench::Settle();
        const Clock::time_point begin = Clock::now();
        emp.StartAndAwait(m_Reports);
        return Clock::now() - begin;
    }

    std::chrono::nanoseconds StartAtOnce(std::vector<std::unique_ptr<CBareEmp>>& emps) {
        std::atomic<std::size_t> nWaiting{0};
        std::promise<void> go;
        const std::shared_future<void> gone{go.get_future()};
        std::vector<std::thread> threads;
        for (const auto& pEmp : emps) {
            threads.emplace_back([&, pEmp = pEmp.get()] {
                ++nWaiting;
                gone.wait();
                pEmp->StartAndAwait(m_Reports);
            });
        }
        while (nWaiting < emps.size()) std::this_thread::yield();
        vok::bench::Settle();
        const Clock::time_point begin = Clock::now();
        go.set_value();
        for (std::thread& thread : threads) thread.join();
        return Clock::now() - begin;
    }

    CReports& m_Reports;
    std::string m_strLibraryPath;
    int m_nSerial = 0;
};

}  // namespace

int main() {
    try {
        vok::SetCloseOnExec(vok::bench::kOrders);
        const auto pReports = std::make_shared<CReports>();
        const vok::test::CFakeServer server{std::make_shared<vok::VokBrokerProcessor>(pReports),
                                            vok::kBrokerPort};
        CStarter starter{*pReports};
        for (std::string strEmps; vok::bench::ReceiveLine(vok::bench::kOrders, strEmps);)
            vok::bench::SendLine(vok::bench::kOrders,
                                 std::to_string(starter.Start(strEmps).count()));
        return EXIT_SUCCESS;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "vok-bench-bare-start: %s\n", error.what());
        return EXIT_FAILURE;
    }
}
