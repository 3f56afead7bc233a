// An EMP that does what a test tells it to.
//
// The broker gives it nothing but its arguments, so what it is to do stands in the file "behaviour"
// beside its program, one "key value" a line:
//
//   option TEXT         option code that it reports (default: 0001; may be empty)
//   report N            how often it reports its start (default: 1; 0: never)
//   await PATH          reports once this file exists
//   serial TEXT         reports this serial instead of its own
//   pid TEXT            reports this process id instead of its own
//   portandpid TEXT     reports this text instead of its port and process id
//   status TEXT         reports this status
//   close N             answers this to every Close instead of the number of clients
//   sigterm ignore      is not ended by SIGTERM
//   exit now            ends before it has done anything
//   record PATH         writes down what it was started with (see RecordStart)
//
// Commands that clients can give it: "Ping", "Pid", "Serial", "Clients" (the ids of those that have
// not left, with blanks between) and "ReportStop" (it reports its stop with `arg3` as its type).
#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/resource.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/server/TThreadedServer.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TServerSocket.h>
#include <thrift/transport/TSocket.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "VokBroker.h"
#include "VokEmp.h"

extern char** environ;

namespace {

using apache::thrift::protocol::TBinaryProtocol;
using apache::thrift::protocol::TBinaryProtocolFactory;
using apache::thrift::server::TServerEventHandler;
using apache::thrift::server::TThreadedServer;
using apache::thrift::transport::TBufferedTransport;
using apache::thrift::transport::TBufferedTransportFactory;
using apache::thrift::transport::TServerSocket;
using apache::thrift::transport::TSocket;

class CBehaviour {
public:
    explicit CBehaviour(const std::string& strFile) {
        std::ifstream file(strFile);
        for (std::string strLine; std::getline(file, strLine);) {
            const std::size_t nBlank = strLine.find(' ');
            if (nBlank != std::string::npos)
                m_mapValues[strLine.substr(0, nBlank)] = strLine.substr(nBlank + 1);
        }
    }

    bool Has(const std::string& strKey) const { return m_mapValues.count(strKey) != 0; }
    std::string Get(const std::string& strKey, const std::string& strDefault) const {
        const auto it = m_mapValues.find(strKey);
        return it == m_mapValues.end() ? strDefault : it->second;
    }

private:
    std::map<std::string, std::string> m_mapValues;
};

std::string BehaviourFile() {
    char szProgram[4096];
    const ssize_t nLength = ::readlink("/proc/self/exe", szProgram, sizeof szProgram);
    const std::string strProgram(szProgram, nLength < 0 ? 0 : static_cast<std::size_t>(nLength));
    return strProgram.substr(0, strProgram.rfind('/') + 1) + "behaviour";
}

/// "argument TEXT", "environment TEXT", "descriptor N", "SigBlk: SET" and "SigIgn: SET" in
/// hexadecimal, "limit SOFT HARD", each on a line of its own. The file appears complete.
void RecordStart(const std::string& strFile, int argc, char** argv) {
    const std::string strUnfinished = strFile + ".unfinished";
    {
        std::set<int> descriptors;
        if (DIR* const pFolder = ::opendir("/proc/self/fd")) {
            while (const dirent* pEntry = ::readdir(pFolder)) {
                if (pEntry->d_name[0] != '.') descriptors.insert(std::atoi(pEntry->d_name));
            }
            descriptors.erase(::dirfd(pFolder));
            ::closedir(pFolder);
        }
        std::ofstream file(strUnfinished);
        for (int i = 0; i < argc; ++i) file << "argument " << argv[i] << '\n';
        for (char** ppEntry = environ; *ppEntry != nullptr; ++ppEntry)
            file << "environment " << *ppEntry << '\n';
        for (const int nFd : descriptors) file << "descriptor " << nFd << '\n';

        std::ifstream status("/proc/self/status");
        for (std::string strLine; std::getline(status, strLine);) {
            if (strLine.rfind("SigBlk:", 0) == 0 || strLine.rfind("SigIgn:", 0) == 0)
                file << strLine.substr(0, 7) << ' ' << strLine.substr(8) << '\n';
        }
        rlimit limit{};
        ::getrlimit(RLIMIT_NOFILE, &limit);
        file << "limit " << limit.rlim_cur << ' ' << limit.rlim_max << '\n';
    }
    std::rename(strUnfinished.c_str(), strFile.c_str());
}

void TellBroker(const std::string& strArg1, const std::string& strCmd, const std::string& strArg3,
                const std::string& strArg4, const std::string& strArg5,
                const std::string& strArg6) {
    const auto spTransport =
        std::make_shared<TBufferedTransport>(std::make_shared<TSocket>("127.0.0.1", 50000));
    vok::VokBrokerClient broker(std::make_shared<TBinaryProtocol>(spTransport));
    std::string strAnswer;
    try {
        spTransport->open();
        broker.Execute(strAnswer, strArg1, strCmd, strArg3, strArg4, strArg5, strArg6);
        spTransport->close();
    } catch (const apache::thrift::TException&) {
        // A report that the broker cannot read is answered with an error: some tests want just
        // that.
    }
}

class CFakeEmp : public vok::VokEmpIf {
public:
    CFakeEmp(std::string strName, std::string strSerial, const CBehaviour& behaviour)
        : m_strName(std::move(strName)),
          m_strSerial(std::move(strSerial)),
          m_strClose(behaviour.Get("close", "")) {}

    void SetPort(int nPort) { m_strPort = std::to_string(nPort); }

    int32_t Open(const std::string& strClientID, const std::string&, const std::string&,
                 const std::string&) override {
        const std::lock_guard<std::mutex> lock(m_mtxClients);
        m_clients.insert(strClientID);
        return static_cast<int32_t>(m_clients.size());
    }

    int32_t Close(const std::string& strClientID, vok::EmpType::type) override {
        const std::lock_guard<std::mutex> lock(m_mtxClients);
        m_clients.erase(strClientID);
        if (!m_strClose.empty()) return std::atoi(m_strClose.c_str());
        return static_cast<int32_t>(m_clients.size());
    }

    void Execute(std::string& strAnswer, const std::string&, const std::string& strCmd,
                 const std::string& strArg3, const std::string&, const std::string&,
                 const std::string&) override {
        if (strCmd == "Ping") {
            strAnswer = "1";
        } else if (strCmd == "Pid") {
            strAnswer = std::to_string(::getpid());
        } else if (strCmd == "Serial") {
            strAnswer = m_strSerial;
        } else if (strCmd == "Clients") {
            const std::lock_guard<std::mutex> lock(m_mtxClients);
            for (const std::string& strClient : m_clients)
                strAnswer += (strAnswer.empty() ? "" : " ") + strClient;
        } else if (strCmd == "ReportStop") {
            TellBroker("", "__BROKER_CMD_NOTIFY_TO_STOP_EMP_SERVER", m_strName, m_strPort, strArg3,
                       "");
        }
    }

    void ExecuteWithParamList(std::string&, const std::string&, const std::string&,
                              const vok::ParamList&) override {}

private:
    const std::string m_strName;
    const std::string m_strSerial;
    const std::string m_strClose;
    std::string m_strPort;  // set before the server is known to anybody
    std::mutex m_mtxClients;
    std::set<std::string> m_clients;
};

struct CListening : TServerEventHandler {
    void preServe() override { m_promise.set_value(); }
    std::promise<void> m_promise;
};

void ReportStart(const CBehaviour& behaviour, const std::string& strSerial, int nPort) {
    if (const std::string strFile = behaviour.Get("await", ""); !strFile.empty()) {
        while (::access(strFile.c_str(), F_OK) != 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    const std::string strPid = behaviour.Get("pid", std::to_string(::getpid()));
    const std::string strPortAndPid =
        behaviour.Get("portandpid", std::to_string(nPort) + "|" + strPid);
    const int nReports = std::atoi(behaviour.Get("report", "1").c_str());
    for (int i = 0; i < nReports; ++i)
        TellBroker("", "__BROKER_CMD_NOTIFY_EMP_SERVER_INFO", behaviour.Get("serial", strSerial),
                   strPortAndPid, behaviour.Get("status", "__SERVER_SUCCESS_TO_RUN"),
                   behaviour.Get("option", "0001"));
}

int Run(const CBehaviour& behaviour, const std::string& strName, const std::string& strSerial,
        const sigset_t& setStop) {
    const auto spEmp = std::make_shared<CFakeEmp>(strName, strSerial, behaviour);
    const auto spSocket = std::make_shared<TServerSocket>("127.0.0.1", 0);
    const auto spListening = std::make_shared<CListening>();
    TThreadedServer server(std::make_shared<vok::VokEmpProcessor>(spEmp), spSocket,
                           std::make_shared<TBufferedTransportFactory>(),
                           std::make_shared<TBinaryProtocolFactory>());
    server.setServerEventHandler(spListening);
    std::thread serving([&server] { server.serve(); });
    spListening->m_promise.get_future().wait();
    spEmp->SetPort(spSocket->getPort());

    // On a thread of its own: an EMP that waits for its report can still be ended.
    std::thread([&, nPort = spSocket->getPort()] {
        ReportStart(behaviour, strSerial, nPort);
    }).detach();
    int nSignal = 0;
    sigwait(&setStop, &nSignal);
    while (behaviour.Has("sigterm")) sigwait(&setStop, &nSignal);
    server.stop();
    serving.join();
    std::fflush(nullptr);
    ::_exit(EXIT_SUCCESS);  // the report's thread may still be at work
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) return EXIT_FAILURE;
    const CBehaviour behaviour(BehaviourFile());
    if (const std::string strFile = behaviour.Get("record", ""); !strFile.empty())
        RecordStart(strFile, argc, argv);
    if (behaviour.Has("exit")) return EXIT_SUCCESS;

    sigset_t setStop;
    sigemptyset(&setStop);
    sigaddset(&setStop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &setStop, nullptr);
    return Run(behaviour, argv[0], argv[2], setStop);
}
