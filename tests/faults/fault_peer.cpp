// A peer of the broker that fails at one point of its life, as a test tells it to.
//
//   fault-peer EMP -DSINGLE_PROCESS SERIAL CLIENT 0 GROUP   an EMP, or a grouping process
//   fault-peer --launcher NAME EMP                          a register launcher
//
// Which point and which fault stand in the file kScript, "STEP FAULT", looked at each time that a
// step is reached; without it the peer is an orderly one. Steps: "start", "report", "launcher" (it
// has been asked to open an EMP) and "close" (it has been told that a client leaves). Faults:
//
//   killed     SIGKILL, in the middle of its message if it has one to send
//   stopped    SIGSTOP, in the middle of its message; goes on when it is continued
//   garbage    sends bytes that are no message, and keeps the connection
//   closes     sends half of its message, and closes the connection
//   silent     says nothing, keeps the connection, and does not go on
//
// Each process adds its id to kPids when it starts, and makes the file kReached when it has come to
// its fault. "backlog" as the script's step makes its servers listen with the shortest queue.
#include <sys/resource.h>
#include <thrift/Thrift.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TServerSocket.h>
#include <thrift/transport/TSocket.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "VOKEmpLauncher.h"
#include "VokBroker.h"
#include "VokEmp.h"
#include "tests/faults/FaultPeer.h"

namespace {

using apache::thrift::TException;
using apache::thrift::TProcessor;
using apache::thrift::protocol::TBinaryProtocol;
using apache::thrift::transport::TBufferedTransport;
using apache::thrift::transport::TMemoryBuffer;
using apache::thrift::transport::TServerSocket;
using apache::thrift::transport::TSocket;
using apache::thrift::transport::TTransport;
using vok::test::kPids;
using vok::test::kReached;
using vok::test::kScript;

[[noreturn]] void Rest() {
    for (;;) ::pause();
}

std::string ScriptedFault(const std::string& strStep) {
    std::ifstream file(kScript);
    std::string strScripted;
    std::string strFault;
    return file >> strScripted >> strFault && strScripted == strStep ? strFault : "";
}

/// The fault of this step, which has been announced; "" when there is none.
std::string ReachFault(const std::string& strStep) {
    const std::string strFault = ScriptedFault(strStep);
    if (!strFault.empty()) std::ofstream(kReached).flush();
    return strFault;
}

void Send(TTransport& connection, const std::string& strBytes) {
    connection.write(reinterpret_cast<const uint8_t*>(strBytes.data()),
                     static_cast<uint32_t>(strBytes.size()));
    connection.flush();
}

/// Until the other side closes.
void Keep(TTransport& connection) {
    uint8_t cByte = 0;
    try {
        while (connection.read(&cByte, 1) > 0) continue;
    } catch (const TException&) {
        // Reset: gone as well.
    }
}

/// Sends the message, or what the fault makes of it. False: the connection is of no more use.
bool SendFaultily(TTransport& connection, const std::string& strMessage,
                  const std::string& strFault) {
    const std::size_t nHalf = strMessage.size() / 2;
    if (strFault == "silent") {
        Keep(connection);
        return false;
    }
    if (strFault == "garbage") {
        Send(connection, std::string(64, '\xff'));
        Keep(connection);
        return false;
    }
    Send(connection, strMessage.substr(0, nHalf));
    if (strFault == "closes") {
        connection.close();
        return false;
    }
    if (strFault == "killed") (void)std::raise(SIGKILL);
    if (strFault == "stopped") (void)std::raise(SIGSTOP);
    Send(connection, strMessage.substr(nHalf));
    return true;
}

/// The fault of the call that this thread is answering.
thread_local std::string t_strFault;

/// Serves on a free port of the loopback interface from the constructor on, for ever.
class CServer {
public:
    explicit CServer(std::shared_ptr<TProcessor> pProcessor)
        : m_pProcessor(std::move(pProcessor)), m_Socket("127.0.0.1", 0) {
        if (!ScriptedFault("backlog").empty()) m_Socket.setAcceptBacklog(0);
        m_Socket.listen();
        std::thread([this] { Accept(); }).detach();
    }

    std::string Port() const { return std::to_string(m_Socket.getPort()); }

private:
    void Accept() {
        for (;;) {
            std::shared_ptr<TTransport> pConnection = m_Socket.accept();
            std::thread([this, pConnection] { Serve(pConnection); }).detach();
        }
    }

    void Serve(const std::shared_ptr<TTransport>& pConnection) {
        const auto pAnswer = std::make_shared<TMemoryBuffer>();
        const auto pRead =
            std::make_shared<TBinaryProtocol>(std::make_shared<TBufferedTransport>(pConnection));
        const auto pWrite = std::make_shared<TBinaryProtocol>(pAnswer);
        try {
            do {
                pAnswer->resetBuffer();
                t_strFault.clear();
                if (!m_pProcessor->process(pRead, pWrite, nullptr)) return;
            } while (SendFaultily(*pConnection, pAnswer->getBufferAsString(), t_strFault));
        } catch (const TException&) {
            // The caller has gone.
        }
    }

    const std::shared_ptr<TProcessor> m_pProcessor;
    TServerSocket m_Socket;
};

std::string MessageToBroker(const std::string& strCmd, const std::string& strArg3,
                            const std::string& strArg4, const std::string& strArg5,
                            const std::string& strArg6) {
    const auto pBuffer = std::make_shared<TMemoryBuffer>();
    vok::VokBrokerClient broker(std::make_shared<TBinaryProtocol>(pBuffer));
    broker.send_Execute("1", strCmd, strArg3, strArg4, strArg5, strArg6);
    return pBuffer->getBufferAsString();
}

void TellBroker(const std::string& strMessage, const std::string& strFault) {
    try {
        const auto pSocket = std::make_shared<TSocket>("127.0.0.1", 50000);
        pSocket->open();
        if (!SendFaultily(*pSocket, strMessage, strFault)) return;
        vok::VokBrokerClient broker(std::make_shared<TBinaryProtocol>(pSocket));
        std::string strAnswer;
        broker.recv_Execute(strAnswer);
    } catch (const TException&) {
        // The broker does not take it, which is what some tests want.
    }
}

class CEmp : public vok::VokEmpIf {
public:
    int32_t Open(const std::string&, const std::string&, const std::string&,
                 const std::string&) override {
        return 1;
    }
    int32_t Close(const std::string&, vok::EmpType::type) override {
        t_strFault = ReachFault("close");
        return 0;
    }
    void Execute(std::string& strAnswer, const std::string&, const std::string& strCmd,
                 const std::string&, const std::string&, const std::string&,
                 const std::string&) override {
        if (strCmd == "Ping") strAnswer = "1";
    }
    void ExecuteWithParamList(std::string&, const std::string&, const std::string&,
                              const vok::ParamList&) override {}
};

/// Starts the EMP's server unless it runs, and reports it.
void ServeAndReport(const std::string& strEmp, const std::string& strSerial) {
    static std::mutex s_mtxServers;
    static std::map<std::string, CServer> s_mapServers;
    std::string strPort;
    {
        const std::lock_guard<std::mutex> lock(s_mtxServers);
        const auto pEmp = std::make_shared<CEmp>();
        strPort = s_mapServers.try_emplace(strEmp, std::make_shared<vok::VokEmpProcessor>(pEmp))
                      .first->second.Port();
    }
    const std::string strMessage = MessageToBroker("__BROKER_CMD_NOTIFY_EMP_SERVER_INFO", strSerial,
                                                   strPort + '|' + std::to_string(::getpid()),
                                                   "__SERVER_SUCCESS_TO_RUN", "0001");
    TellBroker(strMessage, ReachFault("report"));
}

class CLauncher : public vok::VOKEmpLauncherIf {
public:
    int32_t Open(const std::string& strEmp, int32_t nSerial, const std::string&) override {
        t_strFault = ReachFault("launcher");
        // The report is another conversation: it does not hold up this one's answer.
        if (t_strFault.empty() || t_strFault == "stopped")
            std::thread([=] { ServeAndReport(strEmp, std::to_string(nSerial)); }).detach();
        return 1;
    }
};

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4) return EXIT_FAILURE;
    // What fails here is no news, and standard error is the broker's.
    apache::thrift::GlobalOutput.setOutputFunction([](const char*) {});
    // The broker may be short of descriptors, and hand its limit on.
    rlimit limit{};
    (void)::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    (void)::setrlimit(RLIMIT_NOFILE, &limit);
    std::ofstream(kPids, std::ios::app) << std::to_string(::getpid()) + '\n' << std::flush;

    if (std::string(argv[1]) == "--launcher") {
        CServer launcher(
            std::make_shared<vok::VOKEmpLauncherProcessor>(std::make_shared<CLauncher>()));
        TellBroker(MessageToBroker("__BROKER_CMD_NOTIFY_REGISTEREMP_SERVER", argv[2],
                                   launcher.Port(), "", ""),
                   "");
        TellBroker(
            MessageToBroker("__BROKER_CMD_NOTIFY_REGISTER_EMP", argv[3], launcher.Port(), "", ""),
            "");
        std::printf("serving %s port=%s\n", argv[2], launcher.Port().c_str());
        std::fflush(stdout);
        Rest();
    }

    const std::string strFault = ReachFault("start");
    if (strFault == "killed") (void)std::raise(SIGKILL);
    if (strFault == "stopped") (void)std::raise(SIGSTOP);
    if (strFault == "silent") Rest();

    const bool bGroup = argc > 5 && argv[5][0] != '\0';
    std::unique_ptr<CServer> pLauncher;
    if (bGroup) {
        pLauncher = std::make_unique<CServer>(
            std::make_shared<vok::VOKEmpLauncherProcessor>(std::make_shared<CLauncher>()));
        TellBroker(MessageToBroker("__BROKER_CMD_NOTIFY_GROUPINGEMP_SERVER", argv[5],
                                   pLauncher->Port(), "", ""),
                   "");
    }
    ServeAndReport(argv[0], argv[2]);
    Rest();
}
