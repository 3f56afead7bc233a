// What an operation of the broker costs in instructions, counted by callgrind: scripts/test guard.
//
// A broker in this process answers calls that come over memory instead of a socket, through the
// transports, the protocol and the processor of the daemon. A close calls an EMP that serves in
// this process on threads of its own, which are not counted. Each operation is run until the
// tables, buffers and the dynamic linker have settled, then counted, and becomes a dump of
// callgrind's.
#include <gnu/libc-version.h>
#include <thrift/config.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>
#include <valgrind/callgrind.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>

#include "VokBroker.h"
#include "bench/support/CBrokerStage.h"
#include "platform/Log.h"
#include "rpc/BrokerProcessor.h"
#include "rpc/CRpcServer.h"
#include "rpc/CallOnce.h"
#include "tests/support/CFakeEmp.h"
#include "tests/support/CPrivateWorld.h"

namespace vok::bench {
namespace {

using apache::thrift::protocol::TBinaryProtocol;
using apache::thrift::protocol::TProtocol;
using apache::thrift::transport::TMemoryBuffer;

/// How often an operation is run before it is counted, and while it is.
constexpr int kWarmUps = 50;
constexpr int kCounted = 200;
/// A filtered log call costs too little to be counted alone.
constexpr int kLogCalls = 1000;

// As many as a large set has.
constexpr int kEmps = 200;
constexpr int kClients = 10;
constexpr int kLaunchers = 10;
constexpr int kEmpsOfLauncher = 5;

constexpr char kEmp[] = "Weather";
constexpr char kClient[] = "40123";

void Expect(bool bTrue, const char* szWhat) {
    if (!bTrue) throw std::runtime_error(std::string("the broker does not do its work: ") + szWhat);
}

/// What this thread does is counted for as long as it lives.
class CCounting {
public:
    explicit CCounting(bool bCount) : m_bCount(bCount) {
        if (m_bCount) CALLGRIND_TOGGLE_COLLECT;
    }
    ~CCounting() {
        if (m_bCount) CALLGRIND_TOGGLE_COLLECT;
    }
    CCounting(const CCounting&) = delete;
    CCounting& operator=(const CCounting&) = delete;

private:
    const bool m_bCount;
};

/// One connection of a client to the broker.
class CMemoryConnection {
public:
    explicit CMemoryConnection(CBroker& broker)
        : m_pProcessor(MakeBrokerProcessor({std::shared_ptr<void>{}, &broker})),
          m_pReader(Served(m_pRequest)),
          m_pWriter(Served(m_pAnswer)),
          m_Client(std::make_shared<TBinaryProtocol>(m_pAnswer),
                   std::make_shared<TBinaryProtocol>(m_pRequest)) {}

    /// Runs one call, of which the broker's part may be counted: to read, to do, to answer it.
    template <typename Send, typename Receive>
    void Call(bool bCount, const Send& send, const Receive& receive) {
        m_pRequest->resetBuffer();
        m_pAnswer->resetBuffer();
        send(m_Client);
        {
            const CCounting counting{bCount};
            Expect(m_pProcessor->process(m_pReader, m_pWriter, nullptr), "process");
        }
        receive(m_Client);
    }

private:
    /// As the daemon serves: see its server.
    static std::shared_ptr<TProtocol> Served(const std::shared_ptr<TMemoryBuffer>& pWire) {
        return ServerProtocols()->getProtocol(ServerTransports()->getTransport(pWire));
    }

    const std::shared_ptr<TMemoryBuffer> m_pRequest = std::make_shared<TMemoryBuffer>();
    const std::shared_ptr<TMemoryBuffer> m_pAnswer = std::make_shared<TMemoryBuffer>();
    const std::shared_ptr<apache::thrift::TProcessor> m_pProcessor;
    const std::shared_ptr<TProtocol> m_pReader;
    const std::shared_ptr<TProtocol> m_pWriter;
    VokBrokerClient m_Client;
};

/// Not inlined: with the arguments as they come in the broker's code.
__attribute__((noinline)) void LogFiltered(const std::string& strEmp, const std::string& strPort) {
    VOK_LOG(LEVEL_DETAIL, "name:[%s], empPort:[%s]", strEmp.c_str(), strPort.c_str());
}

class CGuard {
public:
    CGuard() {
        m_Emp.AnswerClose(kClients);
        m_Stage.AddRunning(kEmps, kClients);
        m_Stage.AddRunning(kEmp, m_Emp.PortText(), kClients);
        m_Stage.AddLaunchers(kLaunchers, kEmpsOfLauncher);
        m_Stage.FillTickets();
    }

    void AskVersion() {
        m_Connection.Call(
            true,
            [](VokBrokerClient& client) {
                client.send_Execute(kClient, "GetVOKVersion", "", "", "", "");
            },
            [](VokBrokerClient& client) {
                std::string strVersion;
                client.recv_Execute(strVersion);
                Expect(strVersion == CBroker::GetFullVersion(), "version");
            });
    }

    /// One client comes and leaves again.
    void OpenAndClose(bool bCountOpen) {
        m_Connection.Call(
            bCountOpen,
            [](VokBrokerClient& client) { client.send_OpenEmp(kClient, kEmp, "1.0", "browser"); },
            [this](VokBrokerClient& client) {
                client.recv_OpenEmp(m_Info);
                Expect(m_Info.empPort == m_Emp.PortText(), "open");
            });
        m_Connection.Call(
            !bCountOpen, [this](VokBrokerClient& client) { client.send_CloseEmp(m_Info); },
            [](VokBrokerClient& client) { Expect(client.recv_CloseEmp(), "close"); });
        m_Emp.ForgetCalls();
    }

    void Log() {
        const std::string strEmp = kEmp;
        const std::string strPort = m_Emp.PortText();
        const CCounting counting{true};
        for (int n = 0; n < kLogCalls; ++n) LogFiltered(strEmp, strPort);
    }

private:
    vok::test::CFakeEmp m_Emp;
    CBrokerStage m_Stage;
    CMemoryConnection m_Connection{m_Stage.broker};
    ConnectionInfo m_Info;
};

template <typename Operation>
void Count(const char* szOperation, const Operation& operation) {
    for (int n = 0; n < kWarmUps; ++n) operation();
    CALLGRIND_ZERO_STATS;
    for (int n = 0; n < kCounted; ++n) operation();
    CALLGRIND_DUMP_STATS_AT(szOperation);
}

int Run() {
    CVOKDebug::SetLogLevel(LEVEL_NOTICE);
    CGuard guard;
    CALLGRIND_START_INSTRUMENTATION;
    Count("version call", [&] { guard.AskVersion(); });
    Count("warm open", [&] { guard.OpenAndClose(true); });
    Count("close", [&] { guard.OpenAndClose(false); });
    Count("1000 filtered log calls", [&] { guard.Log(); });
    CALLGRIND_STOP_INSTRUMENTATION;
    return EXIT_SUCCESS;
}

/// What the counts depend on besides the code.
void PrintBuild() {
    std::printf("GCC %d.%d, %s, %s, glibc %s, Thrift %s\n", __GNUC__, __GNUC_MINOR__, VOK_PROCESSOR,
                VOK_BUILD_TYPE, gnu_get_libc_version(), PACKAGE_VERSION);
}

}  // namespace
}  // namespace vok::bench

/// Without arguments: counts, when run under callgrind. "--build": what it was built with.
/// "--runs": how many runs of an operation a dump holds.
int main(int argc, char** argv) {
    using namespace vok::bench;
    if (argc == 2 && std::strcmp(argv[1], "--build") == 0) {
        PrintBuild();
        return EXIT_SUCCESS;
    }
    if (argc == 2 && std::strcmp(argv[1], "--runs") == 0) {
        std::printf("%d\n", kCounted);
        return EXIT_SUCCESS;
    }
    // The library looks at every network interface before it connects: here there is one.
    return vok::test::CPrivateWorld::Run([] {
        try {
            return Run();
        } catch (const std::exception& error) {
            std::fprintf(stderr, "%s\n", error.what());
            return EXIT_FAILURE;
        }
    });
}
