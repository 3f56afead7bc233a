// A complete EMP, to copy from.
//
// The broker starts this program when a client opens the EMP and none is running. From then on:
//
//   1. listen on a free port of the loopback interface;
//   2. report that port to the broker, with the serial that the program was started with; the
//      client's open waits for this report, 10 seconds at most;
//   3. serve the clients, which connect directly;
//   4. when the last client has left, report the stop to the broker, which answers with SIGTERM
//      and unmounts the EMP's image once the process has ended.
//
// The program is started with the descriptors 0 to 2 and these arguments:
//
//   argv[0]  name of the EMP                argv[3]  port of the client's callback server
//   argv[1]  "-DSINGLE_PROCESS"             argv[4]  "0"
//   argv[2]  serial of the start ticket     argv[5]  name of the grouping process, or empty
//
// Its environment is LD_LIBRARY_PATH, GST_REGISTRY and GST_REGISTRY_1_0; nothing else, so no PATH,
// no HOME and no locale.
#include <pthread.h>
#include <thrift/TProcessor.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/server/TThreadedServer.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TServerSocket.h>
#include <thrift/transport/TSocket.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include "VokBroker.h"
#include "VokEmp.h"

namespace {

using apache::thrift::TException;
using apache::thrift::TProcessorEventHandler;
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
constexpr int kBrokerTimeoutMs = 10'000;

/// What the broker does when a second client opens this EMP:
/// "0001": hands out this process again; "0002": starts another process; "0003": refuses.
constexpr char kOption[] = "0001";

/// One command to the broker, on a connection of its own. Throws TException when it fails.
std::string TellBroker(const std::string& strArg1, const std::string& strCmd,
                       const std::string& strArg3, const std::string& strArg4,
                       const std::string& strArg5, const std::string& strArg6) {
    const auto spSocket = std::make_shared<TSocket>(kAddress, kBrokerPort);
    spSocket->setConnTimeout(kBrokerTimeoutMs);
    spSocket->setSendTimeout(kBrokerTimeoutMs);
    spSocket->setRecvTimeout(kBrokerTimeoutMs);
    const auto spTransport = std::make_shared<TBufferedTransport>(spSocket);
    vok::VokBrokerClient broker(std::make_shared<TBinaryProtocol>(spTransport));

    std::string strAnswer;
    spTransport->open();
    broker.Execute(strAnswer, strArg1, strCmd, strArg3, strArg4, strArg5, strArg6);
    spTransport->close();
    return strAnswer;
}

/// The EMP itself: who uses it, and what it can do. Thread-safe: every client connection has a
/// thread of its own.
class CExampleEmp : public vok::VokEmpIf {
public:
    /// A client comes. `strClientID` is the port of its callback server; `strCredential` names the
    /// application that it belongs to. The answer is how many clients there are now.
    int32_t Open(const std::string& strClientID, const std::string& /*strName*/,
                 const std::string& /*strVersion*/, const std::string& strCredential) override {
        const std::lock_guard<std::mutex> lock(m_mtxClients);
        m_mapClients[strClientID] = strCredential;
        m_bLastLeft = false;
        return static_cast<int32_t>(m_mapClients.size());
    }

    /// A client leaves: the broker calls this for it. The answer is how many clients remain, so it
    /// must not count a client twice, nor one that the broker sent here but that never called Open.
    int32_t Close(const std::string& strClientID, vok::EmpType::type /*type*/) override {
        const std::lock_guard<std::mutex> lock(m_mtxClients);
        m_mapClients.erase(strClientID);
        if (m_mapClients.empty()) {
            m_bLastLeft = true;
            m_strLastClient = strClientID;
        }
        return static_cast<int32_t>(m_mapClients.size());
    }

    /// Commands. The broker itself sends the first four, which every EMP has to understand; the
    /// rest is between the EMP and its clients. An unknown command gets an empty answer.
    void Execute(std::string& strAnswer, const std::string& strClientID, const std::string& strCmd,
                 const std::string& strArg3, const std::string& strArg4,
                 const std::string& /*strArg5*/, const std::string& /*strArg6*/) override {
        if (strCmd == "GetOption") {
            strAnswer = kOption;
        } else if (strCmd == "Ping") {
            strAnswer = "1";
        } else if (strCmd == "CompareAppID") {
            if (BelongsTo(strClientID, strArg3, strArg4)) strAnswer = "EMP_OWNS_APP_ID";
        } else if (strCmd == "SetDebugLevel") {
            strAnswer = strArg3;  // this EMP writes no log whose level could change
        } else if (strCmd == "Echo") {
            strAnswer = strArg3;
        } else if (strCmd == "CountClients") {
            const std::lock_guard<std::mutex> lock(m_mtxClients);
            strAnswer = std::to_string(m_mapClients.size());
        }
    }

    void ExecuteWithParamList(std::string& strAnswer, const std::string& /*strClientID*/,
                              const std::string& strCmd, const vok::ParamList& params) override {
        if (strCmd != "Echo") return;
        for (const std::string& strParam : params.params) strAnswer += strParam;
    }

    /// True once after the last client has left, unless another one came meanwhile. Then
    /// `strLastClient` is the one that left.
    bool TakeLastLeft(std::string& strLastClient) {
        const std::lock_guard<std::mutex> lock(m_mtxClients);
        if (!std::exchange(m_bLastLeft, false)) return false;
        strLastClient = m_strLastClient;
        return true;
    }

private:
    /// Whether the client belongs to the application, which is named by its application id, its
    /// widget id, or both.
    bool BelongsTo(const std::string& strClientID, const std::string& strAppID,
                   const std::string& strWidgetID) {
        const std::lock_guard<std::mutex> lock(m_mtxClients);
        const auto itClient = m_mapClients.find(strClientID);
        if (itClient == m_mapClients.end() || itClient->second.empty()) return false;
        return itClient->second == strAppID || itClient->second == strWidgetID;
    }

    std::mutex m_mtxClients;
    std::map<std::string, std::string> m_mapClients;  // client id -> application
    bool m_bLastLeft = false;
    std::string m_strLastClient;
};

/// Hands out the port as soon as the server listens: from then on a client can connect.
class CListening : public TServerEventHandler {
public:
    explicit CListening(std::shared_ptr<TServerSocket> spSocket)
        : m_spSocket(std::move(spSocket)) {}

    void preServe() override { m_promisePort.set_value(m_spSocket->getPort()); }

    /// The server could not listen.
    void Failed(std::exception_ptr spReason) {
        try {
            m_promisePort.set_exception(std::move(spReason));
        } catch (const std::future_error&) {
            // It listened before it failed: the port is out already.
        }
    }

    std::future<int> Port() { return m_promisePort.get_future(); }

private:
    std::shared_ptr<TServerSocket> m_spSocket;
    std::promise<int> m_promisePort;
};

/// Reports the stop to the broker, after the Close of the last client has been answered: the broker
/// waits for that answer, and ends this process as soon as it has the report.
class CStopReport : public TProcessorEventHandler {
public:
    CStopReport(std::shared_ptr<CExampleEmp> spEmp, std::shared_ptr<TServerSocket> spSocket,
                std::string strName)
        : m_spEmp(std::move(spEmp)),
          m_spSocket(std::move(spSocket)),
          m_strName(std::move(strName)) {}

    /// The last thing of every call, on its thread, also when the answer could not be sent.
    void freeContext(void* /*pContext*/, const char* /*szFunction*/) override {
        std::string strLastClient;
        if (!m_spEmp->TakeLastLeft(strLastClient)) return;
        try {
            // "0": an EMP with a process of its own.
            TellBroker(strLastClient, "__BROKER_CMD_NOTIFY_TO_STOP_EMP_SERVER", m_strName,
                       std::to_string(m_spSocket->getPort()), "0", "");
        } catch (const std::exception& error) {
            std::fprintf(stderr, "%s: the broker does not take the stop report: %s\n",
                         m_strName.c_str(), error.what());
            ::kill(::getpid(), SIGTERM);  // without a broker nobody else ends this process
        }
    }

private:
    std::shared_ptr<CExampleEmp> m_spEmp;
    std::shared_ptr<TServerSocket> m_spSocket;
    std::string m_strName;
};

/// True when the broker took the report; says why on stderr otherwise.
bool ReportStart(const std::string& strName, const std::string& strSerial, int nPort) {
    const std::string strPortAndPid = std::to_string(nPort) + "|" + std::to_string(::getpid());
    try {
        const std::string strAnswer =
            TellBroker("", "__BROKER_CMD_NOTIFY_EMP_SERVER_INFO", strSerial, strPortAndPid,
                       "__SERVER_SUCCESS_TO_RUN", kOption);
        if (strAnswer == "ConfirmComplete") return true;
        std::fprintf(stderr, "%s: the broker answers \"%s\" to the start report\n", strName.c_str(),
                     strAnswer.c_str());
    } catch (const TException& error) {
        std::fprintf(stderr, "%s: the broker on %s:%d does not take the start report: %s\n",
                     strName.c_str(), kAddress, kBrokerPort, error.what());
    }
    return false;
}

int Run(const std::string& strName, const std::string& strSerial, const sigset_t& setStop) {
    const auto spEmp = std::make_shared<CExampleEmp>();
    const auto spSocket = std::make_shared<TServerSocket>(kAddress, 0);  // 0: any free port
    const auto spProcessor = std::make_shared<vok::VokEmpProcessor>(spEmp);
    spProcessor->setEventHandler(std::make_shared<CStopReport>(spEmp, spSocket, strName));
    const auto spListening = std::make_shared<CListening>(spSocket);
    TThreadedServer server(spProcessor, spSocket, std::make_shared<TBufferedTransportFactory>(),
                           std::make_shared<TBinaryProtocolFactory>());
    server.setServerEventHandler(spListening);

    std::future<int> futurePort = spListening->Port();
    std::thread serving([&] {
        try {
            server.serve();
        } catch (...) {
            spListening->Failed(std::current_exception());
        }
    });

    int nStatus = EXIT_FAILURE;
    try {
        const int nPort = futurePort.get();
        if (ReportStart(strName, strSerial, nPort)) {
            int nSignal = 0;
            sigwait(&setStop, &nSignal);
            nStatus = EXIT_SUCCESS;
        }
        server.stop();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: no server: %s\n", strName.c_str(), error.what());
    }
    serving.join();
    return nStatus;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "This is an EMP: the broker starts it when a client opens it.\n");
        return EXIT_FAILURE;
    }

    // Blocked before the first thread exists, so that SIGTERM waits for sigwait, whichever thread
    // it is sent to: no signal handler, and an orderly end.
    sigset_t setStop;
    sigemptyset(&setStop);
    sigaddset(&setStop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &setStop, nullptr);

    return Run(argv[0], argv[2], setStop);
}
