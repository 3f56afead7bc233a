// What every EMP consists of, wherever it lives: its service, a server on a port of its own, and
// the reports to the broker. emp_server.cpp, register_launcher.cpp and grouping_emp.cpp differ only
// in how the EMP comes to life.
#pragma once

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
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include "VOKEmpLauncher.h"
#include "VokBroker.h"
#include "VokEmp.h"

namespace example {

inline constexpr char kAddress[] = "127.0.0.1";
inline constexpr int kBrokerPort = 50000;
inline constexpr int kBrokerTimeoutMs = 10'000;

/// One command to the broker, on a connection of its own. Throws TException when it fails.
inline std::string TellBroker(const std::string& strArg1, const std::string& strCmd,
                              const std::string& strArg3, const std::string& strArg4,
                              const std::string& strArg5 = "", const std::string& strArg6 = "") {
    using apache::thrift::protocol::TBinaryProtocol;
    using apache::thrift::transport::TBufferedTransport;
    using apache::thrift::transport::TSocket;

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

/// Blocks the signals that ask for the end. To be called before the first thread exists: then they
/// wait for AwaitStop, whichever thread they are sent to. No signal handler, and an orderly end.
inline sigset_t BlockStopSignals() {
    sigset_t setStop;
    sigemptyset(&setStop);
    sigaddset(&setStop, SIGTERM);
    sigaddset(&setStop, SIGINT);
    pthread_sigmask(SIG_BLOCK, &setStop, nullptr);
    return setStop;
}

inline void AwaitStop(const sigset_t& setStop) {
    int nSignal = 0;
    sigwait(&setStop, &nSignal);
}

/// A service on a free port of the loopback interface. It listens when the constructor returns,
/// which throws when that is not possible. The destructor ends all connections and waits for the
/// calls that are being answered.
class CServer {
public:
    explicit CServer(const std::shared_ptr<apache::thrift::TProcessor>& spProcessor)
        : m_spSocket(std::make_shared<apache::thrift::transport::TServerSocket>(kAddress, 0)),
          m_Server(spProcessor, m_spSocket,
                   std::make_shared<apache::thrift::transport::TBufferedTransportFactory>(),
                   std::make_shared<apache::thrift::protocol::TBinaryProtocolFactory>()) {
        const auto spListening = std::make_shared<CListening>();
        m_Server.setServerEventHandler(spListening);
        m_Thread = std::thread([this, spListening] { Serve(*spListening); });
        try {
            spListening->m_promise.get_future().get();
        } catch (...) {
            m_Thread.join();
            throw;
        }
    }

    ~CServer() {
        m_Server.stop();
        m_Thread.join();
    }

    CServer(const CServer&) = delete;
    CServer& operator=(const CServer&) = delete;

    std::string Port() const { return std::to_string(m_spSocket->getPort()); }

private:
    struct CListening : apache::thrift::server::TServerEventHandler {
        void preServe() override { m_promise.set_value(); }
        std::promise<void> m_promise;
    };

    void Serve(CListening& listening) {
        try {
            m_Server.serve();
        } catch (...) {
            try {
                listening.m_promise.set_exception(std::current_exception());
            } catch (const std::future_error&) {
                // It listened before it failed: the constructor has returned already.
            }
        }
    }

    std::shared_ptr<apache::thrift::transport::TServerSocket> m_spSocket;
    apache::thrift::server::TThreadedServer m_Server;
    std::thread m_Thread;
};

/// The EMP itself: who uses it, and what it can do. Thread-safe: every client connection has a
/// thread of its own.
class CEmp : public vok::VokEmpIf {
public:
    explicit CEmp(std::string strOption) : m_strOption(std::move(strOption)) {}

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
            strAnswer = m_strOption;
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

    const std::string m_strOption;
    std::mutex m_mtxClients;
    std::map<std::string, std::string> m_mapClients;  // client id -> application
    bool m_bLastLeft = false;
    std::string m_strLastClient;
};

/// The kinds of EMPs that tell the broker when they have lost their last client.
inline constexpr char kOwnProcess[] = "0";
inline constexpr char kInGroupingProcess[] = "1";
/// One that does not: the EMP of a register launcher, which the broker forgets by itself when Close
/// has answered 0.
inline constexpr char kInRegisterLauncher[] = "2";

/// An EMP and its server.
class CEmpServer {
public:
    /// `strOption`: what the broker does when a second client opens the EMP.
    /// "0001": hands out this server again; "0002": starts another one; "0003": refuses.
    CEmpServer(std::string strName, std::string strOption, std::string strKind)
        : m_strName(std::move(strName)),
          m_strOption(std::move(strOption)),
          m_strKind(std::move(strKind)),
          m_spEmp(std::make_shared<CEmp>(m_strOption)),
          m_Server(MakeProcessor()) {}

    /// Tells the broker where the EMP serves, which is what the client's open waits for. True when
    /// the broker took the report; says why on stderr otherwise.
    bool ReportStart(const std::string& strSerial) const {
        const std::string strPortAndPid = m_Server.Port() + "|" + std::to_string(::getpid());
        try {
            const std::string strAnswer =
                TellBroker("", "__BROKER_CMD_NOTIFY_EMP_SERVER_INFO", strSerial, strPortAndPid,
                           "__SERVER_SUCCESS_TO_RUN", m_strOption);
            if (strAnswer == "ConfirmComplete") return true;
            std::fprintf(stderr, "%s: the broker answers \"%s\" to the start report\n",
                         m_strName.c_str(), strAnswer.c_str());
        } catch (const apache::thrift::TException& error) {
            std::fprintf(stderr, "%s: the broker on %s:%d does not take the start report: %s\n",
                         m_strName.c_str(), kAddress, kBrokerPort, error.what());
        }
        return false;
    }

private:
    /// Tells the broker that the last client has left.
    void ReportStop(const std::string& strLastClient) const {
        try {
            TellBroker(strLastClient, "__BROKER_CMD_NOTIFY_TO_STOP_EMP_SERVER", m_strName,
                       m_Server.Port(), m_strKind);
        } catch (const apache::thrift::TException& error) {
            std::fprintf(stderr, "%s: the broker does not take the stop report: %s\n",
                         m_strName.c_str(), error.what());
            // Without a broker nobody else ends this process.
            if (m_strKind == kOwnProcess) ::kill(::getpid(), SIGTERM);
        }
    }

    /// Reports the stop after the Close of the last client has been answered: the broker waits for
    /// that answer, and may end this process as soon as it has the report.
    struct CStopReport : apache::thrift::TProcessorEventHandler {
        explicit CStopReport(const CEmpServer& emp) : m_Emp(emp) {}

        /// The last thing of every call, on its thread, also when the answer could not be sent.
        void freeContext(void* /*pContext*/, const char* /*szFunction*/) override {
            std::string strLastClient;
            if (m_Emp.m_spEmp->TakeLastLeft(strLastClient)) m_Emp.ReportStop(strLastClient);
        }

        const CEmpServer& m_Emp;  // outlives its server's calls
    };

    std::shared_ptr<apache::thrift::TProcessor> MakeProcessor() const {
        const auto spProcessor = std::make_shared<vok::VokEmpProcessor>(m_spEmp);
        if (m_strKind != kInRegisterLauncher)
            spProcessor->setEventHandler(std::make_shared<CStopReport>(*this));
        return spProcessor;
    }

    const std::string m_strName;
    const std::string m_strOption;
    const std::string m_strKind;
    const std::shared_ptr<CEmp> m_spEmp;
    CServer m_Server;  // last: it uses all the others
};

/// Hosts EMPs as threads of this process, and is the launcher that the broker asks to open them.
/// An EMP keeps its server until the process ends, also while it has no clients. Thread-safe.
class CHost : public vok::VOKEmpLauncherIf {
public:
    CHost(std::string strOption, std::string strKind)
        : m_strOption(std::move(strOption)), m_strKind(std::move(strKind)) {}

    /// Non-zero when the EMP serves and the broker has its report. The client's callback server
    /// (`strCbSrvPath`) is for EMPs that send events.
    int32_t Open(const std::string& strName, int32_t nTicketSerial,
                 const std::string& /*strCbSrvPath*/) override {
        return Start(strName, std::to_string(nTicketSerial)) ? 1 : 0;
    }

    /// Starts the EMP's server unless it runs, and reports it. False, with the reason on stderr,
    /// when either fails.
    bool Start(const std::string& strName, const std::string& strSerial) {
        try {
            return ServerOf(strName).ReportStart(strSerial);
        } catch (const std::exception& error) {
            std::fprintf(stderr, "%s: no server: %s\n", strName.c_str(), error.what());
            return false;
        }
    }

private:
    const CEmpServer& ServerOf(const std::string& strName) {
        const std::lock_guard<std::mutex> lock(m_mtxServers);
        return m_mapServers.try_emplace(strName, strName, m_strOption, m_strKind).first->second;
    }

    const std::string m_strOption;
    const std::string m_strKind;
    std::mutex m_mtxServers;
    std::map<std::string, CEmpServer> m_mapServers;
};

}  // namespace example
