// A client: opens an EMP through the broker, talks to it and closes it again.
//
// The broker only brings the two together. What the client wants of the EMP it asks the EMP itself,
// at the address that the broker hands out.
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/server/TThreadedServer.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TServerSocket.h>
#include <thrift/transport/TSocket.h>

#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "VokBroker.h"
#include "VokEmp.h"
#include "VokEmpEvent.h"

namespace {

using apache::thrift::TException;
using apache::thrift::protocol::TBinaryProtocol;
using apache::thrift::protocol::TBinaryProtocolFactory;
using apache::thrift::server::TServerEventHandler;
using apache::thrift::server::TThreadedServer;
using apache::thrift::transport::TBufferedTransport;
using apache::thrift::transport::TBufferedTransportFactory;
using apache::thrift::transport::TServerSocket;
using apache::thrift::transport::TSocket;

constexpr char kAddress[] = "127.0.0.1";
constexpr int kBrokerPort = 50000;

constexpr char kUsage[] =
    "Usage: example-client [OPTION]... EMP\n"
    "Opens EMP through the broker, sends it an Echo and closes it again.\n"
    "\n"
    "  --echo TEXT    what to send (default: hello)\n"
    "  --app ID       the application that this client belongs to (default: example)\n"
    "  --hold         keep the EMP open until the standard input ends\n"
    "  --open-only    leave the EMP open; prints what --close-only needs\n"
    "  --close-only CLIENTPORT EMPPORT\n"
    "                 only close what --open-only left open\n"
    "  --help         show this text\n"
    "\n"
    "Exit status: 0 all went well, 1 something was refused or failed, 2 wrong usage.\n";

struct Options {
    std::string strEmp;
    std::string strEcho = "hello";
    std::string strApp = "example";
    bool bHold = false;
    bool bOpenOnly = false;
    std::string strCloseClientPort;  // not empty: only close
    std::string strCloseEmpPort;
};

[[noreturn]] void Usage(std::FILE* pOut, int nStatus) {
    std::fputs(kUsage, pOut);
    std::exit(nStatus);
}

Options Parse(int argc, char** argv) {
    Options options;
    int i = 1;
    const auto next = [&]() -> std::string {
        if (i + 1 >= argc) Usage(stderr, 2);
        return argv[++i];
    };
    for (; i < argc; ++i) {
        const std::string strArg = argv[i];
        if (strArg == "--help") Usage(stdout, 0);
        if (strArg == "--echo") {
            options.strEcho = next();
        } else if (strArg == "--app") {
            options.strApp = next();
        } else if (strArg == "--hold") {
            options.bHold = true;
        } else if (strArg == "--open-only") {
            options.bOpenOnly = true;
        } else if (strArg == "--close-only") {
            options.strCloseClientPort = next();
            options.strCloseEmpPort = next();
        } else if (strArg.empty() || strArg[0] == '-' || !options.strEmp.empty()) {
            Usage(stderr, 2);
        } else {
            options.strEmp = strArg;
        }
    }
    if (options.strEmp.empty()) Usage(stderr, 2);
    return options;
}

/// A connection to a service, open as long as the object lives. Throws TException when it cannot be
/// opened, and so does every call on it that fails.
template <typename Client>
class CConnection {
public:
    CConnection(const std::string& strAddress, int nPort)
        : m_spTransport(
              std::make_shared<TBufferedTransport>(std::make_shared<TSocket>(strAddress, nPort))),
          m_Client(std::make_shared<TBinaryProtocol>(m_spTransport)) {
        m_spTransport->open();
    }

    Client* operator->() { return &m_Client; }

private:
    std::shared_ptr<TBufferedTransport> m_spTransport;
    Client m_Client;
};

using Broker = CConnection<vok::VokBrokerClient>;
using Emp = CConnection<vok::VokEmpClient>;

/// The callback server: where the broker and EMPs send this client their events, and how the broker
/// finds out whether the client still lives. Its port is the client's identity.
class CCallbackServer {
public:
    CCallbackServer()
        : m_spSocket(std::make_shared<TServerSocket>(kAddress, 0)),  // 0: any free port
          m_Server(std::make_shared<vok::VokEmpEventProcessor>(std::make_shared<CEvents>()),
                   m_spSocket, std::make_shared<TBufferedTransportFactory>(),
                   std::make_shared<TBinaryProtocolFactory>()) {
        const auto spListening = std::make_shared<CListening>();
        m_Server.setServerEventHandler(spListening);
        m_Thread = std::thread([this, spListening] {
            try {
                m_Server.serve();
            } catch (...) {
                spListening->m_promise.set_exception(std::current_exception());
            }
        });
        try {
            spListening->m_promise.get_future().get();
        } catch (...) {
            m_Thread.join();
            throw;
        }
    }

    ~CCallbackServer() {
        m_Server.stop();
        m_Thread.join();
    }

    CCallbackServer(const CCallbackServer&) = delete;
    CCallbackServer& operator=(const CCallbackServer&) = delete;

    std::string Port() const { return std::to_string(m_spSocket->getPort()); }

private:
    struct CEvents : vok::VokEmpEventIf {
        void Callback(int32_t nType, const std::string& strArg1,
                      const std::string& strArg2) override {
            std::printf("event %d \"%s\" \"%s\"\n", nType, strArg1.c_str(), strArg2.c_str());
        }
    };
    struct CListening : TServerEventHandler {
        void preServe() override { m_promise.set_value(); }
        std::promise<void> m_promise;
    };

    std::shared_ptr<TServerSocket> m_spSocket;
    TThreadedServer m_Server;
    std::thread m_Thread;
};

/// False when the broker refused, which it tells by the EMP's port.
bool OpenEmp(const Options& options, const std::string& strClientPort, vok::ConnectionInfo& info) {
    Broker broker(kAddress, kBrokerPort);
    // The version and the application must not be empty.
    broker->OpenEmp(info, strClientPort, options.strEmp, "1.0", options.strApp);
    if (info.empPort.empty() || info.empPort == "-1") {
        std::printf("refused %s\n", options.strEmp.c_str());
        return false;
    }
    std::printf("opened %s clientPort=%s empPort=%s serial=%d ip=%s\n", info.empName.c_str(),
                info.clientPort.c_str(), info.empPort.c_str(), info.serial, info.ip.c_str());
    return true;
}

/// From here on without the broker.
bool UseEmp(const Options& options, const vok::ConnectionInfo& info) {
    Emp emp(info.ip, std::atoi(info.empPort.c_str()));
    const int nClients = emp->Open(info.clientPort, info.empName, "1.0", options.strApp);
    std::printf("clients %d\n", nClients);
    std::string strAnswer;
    emp->Execute(strAnswer, info.clientPort, "Echo", options.strEcho, "", "", "");
    std::printf("echo %s\n", strAnswer.c_str());
    return strAnswer == options.strEcho;
}

bool CloseEmp(const vok::ConnectionInfo& info) {
    Broker broker(kAddress, kBrokerPort);
    const bool bClosed = broker->CloseEmp(info);
    std::printf("%s %s clientPort=%s empPort=%s\n", bClosed ? "closed" : "not closed",
                info.empName.c_str(), info.clientPort.c_str(), info.empPort.c_str());
    return bClosed;
}

/// The whole life of a connection.
bool Run(const Options& options) {
    if (!options.strCloseClientPort.empty()) {
        vok::ConnectionInfo info;
        info.empName = options.strEmp;
        info.clientPort = options.strCloseClientPort;
        info.empPort = options.strCloseEmpPort;
        return CloseEmp(info);
    }

    const CCallbackServer callbackServer;
    vok::ConnectionInfo info;
    if (!OpenEmp(options, callbackServer.Port(), info)) return false;

    bool bUsed = false;
    try {
        bUsed = UseEmp(options, info);
    } catch (const TException& error) {
        std::fprintf(stderr, "example-client: the EMP does not answer: %s\n", error.what());
    }
    if (options.bOpenOnly) return bUsed;
    if (options.bHold) {
        while (std::getchar() != EOF) {
        }
    }
    return CloseEmp(info) && bUsed;
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = Parse(argc, argv);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);  // line by line, also into a file or a pipe
    try {
        return Run(options) ? EXIT_SUCCESS : EXIT_FAILURE;
    } catch (const TException& error) {
        std::fprintf(stderr, "example-client: %s\n", error.what());
        return EXIT_FAILURE;
    }
}
