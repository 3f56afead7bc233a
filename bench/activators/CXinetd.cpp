#include "bench/activators/CXinetd.h"

#include <poll.h>
#include <pwd.h>
#include <sys/syscall.h>
#include <thrift/TToString.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TSocket.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <fstream>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "VokEmp.h"
#include "rpc/CallOnce.h"

namespace vok::bench {
namespace {

using apache::thrift::protocol::TBinaryProtocol;
using apache::thrift::transport::TBufferedTransport;
using apache::thrift::transport::TSocket;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::steady_clock;

constexpr milliseconds kPatience{10'000};

std::string ReadFile(const std::string& strPath) {
    std::ifstream file{strPath};
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

/// True when somebody listens on the loopback port. Asked without a connection: that would be the
/// first one.
bool IsListening(int nPort) {
    char szLocal[16];
    (void)std::snprintf(szLocal, sizeof szLocal, "0100007F:%04X", static_cast<unsigned>(nPort));
    std::ifstream table{"/proc/self/net/tcp"};
    for (std::string strLine; std::getline(table, strLine);) {
        std::istringstream fields{strLine};
        std::string strSlot;
        std::string strLocal;
        std::string strRemote;
        std::string strState;
        fields >> strSlot >> strLocal >> strRemote >> strState;
        if (strLocal == szLocal && strState == "0A") return true;
    }
    return false;
}

/// True where root cannot give up its groups: in a user namespace that an ordinary user has made.
/// xinetd as root wants to, and tries again and again.
bool AreGroupsFixed() {
    return ReadFile("/proc/self/setgroups").rfind("deny", 0) == 0;
}

const passwd& Nobody() {
    const passwd* const pUser = ::getpwnam("nobody");
    if (pUser == nullptr) throw std::runtime_error("xinetd: there is no user nobody");
    return *pUser;
}

/// Whom xinetd runs as, and the EMP, too.
std::string UserName() {
    if (AreGroupsFixed()) return Nobody().pw_name;
    const passwd* const pUser = ::getpwuid(::geteuid());
    if (pUser == nullptr) throw std::runtime_error("xinetd: this user has no name");
    return pUser->pw_name;
}

/// What /proc/PID/stat calls the state; '\0' when there is no such process.
char StateOf(pid_t nPid) {
    const std::string strStat = ReadFile("/proc/" + std::to_string(nPid) + "/stat");
    const std::size_t nEndOfName = strStat.rfind(')');
    return nEndOfName == std::string::npos ? '\0' : strStat[nEndOfName + 2];
}

}  // namespace

CXinetd::CXinetd(int nPort, const std::string& strEmpProgram) : m_nPort(nPort) {
    if (::access(strEmpProgram.c_str(), X_OK) != 0)
        throw std::runtime_error("xinetd: no such program: " + strEmpProgram);
    if (IsListening(nPort))
        throw std::runtime_error("xinetd: port " + std::to_string(nPort) + " is taken");
    const std::string strConfiguration = WriteConfiguration(strEmpProgram);
    std::vector<std::string> arguments{"xinetd",         "-dontfork",         "-f",
                                       strConfiguration, "-pidfile",          m_Folder.Path("pid"),
                                       "-filelog",       m_Folder.Path("log")};
    if (AreGroupsFixed())
        arguments.insert(arguments.begin(),
                         {"unshare", "--user", "--map-user=" + std::to_string(Nobody().pw_uid),
                          "--map-group=" + std::to_string(Nobody().pw_uid)});
    m_pDaemon = std::make_unique<CChildProcess>(arguments, m_Folder.Path("output"));
    AwaitListening();
}

CXinetd::~CXinetd() {
    try {
        EndEmp();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
    }
}

void CXinetd::Fail(const std::string& strWhat) const {
    throw std::runtime_error("xinetd: " + strWhat + "\n" + ReadFile(m_Folder.Path("output")) +
                             ReadFile(m_Folder.Path("log")));
}

std::string CXinetd::WriteConfiguration(const std::string& strEmpProgram) const {
    const std::string strFile = m_Folder.Path("xinetd.conf");
    std::ofstream file{strFile};
    file << "service emp\n{\n  type = UNLISTED\n  socket_type = stream\n  protocol = tcp\n"
         << "  bind = 127.0.0.1\n  port = " << m_nPort << "\n  wait = yes\n"
         << "  user = " << UserName() << "\n  server = " << strEmpProgram
         << "\n"
         // However often it is started, it is no runaway.
         << "  cps = 1000000 1\n  instances = UNLIMITED\n  disable = no\n}\n";
    if (!file.flush()) throw std::runtime_error("cannot write " + strFile);
    return strFile;
}

/// Nothing tells of it: the pid file is written before, and a connection would start the EMP.
void CXinetd::AwaitListening() const {
    const auto deadline = steady_clock::now() + kPatience;
    while (!IsListening(m_nPort) || StateOf(m_pDaemon->Pid()) != 'S') {
        if (!m_pDaemon->IsRunning()) Fail("has ended by itself");
        if (steady_clock::now() > deadline) Fail("does not listen");
        (void)::poll(nullptr, 0, 1);
    }
}

nanoseconds CXinetd::FirstAnswer() {
    std::string strAnswer;
    const auto begin = steady_clock::now();
    // Connected as the broker's clients here are: a numeric address needs no resolver.
    const auto spTransport = std::make_shared<TBufferedTransport>(
        vok::MakeRpcSocket({vok::kBrokerAddress, m_nPort, {}, 0}));
    VokEmpClient emp{std::make_shared<TBinaryProtocol>(spTransport)};
    try {
        spTransport->open();
        emp.Execute(strAnswer, "", "Ping", "", "", "", "");
        const nanoseconds time = steady_clock::now() - begin;
        if (m_nEmp != 0) return time;
        emp.Execute(strAnswer, "", "Pid", "", "", "", "");
        m_nEmp = std::stoi(strAnswer);
        m_Emp = OpenProcess(m_nEmp);
        return time;
    } catch (const apache::thrift::TException& error) {
        Fail(std::string("the EMP does not answer: ") + error.what());
    }
}

void CXinetd::EndEmp() {
    if (m_nEmp == 0) return;
    (void)::syscall(SYS_pidfd_send_signal, m_Emp.Get(), SIGTERM, nullptr, 0);
    if (!AwaitEnd(m_Emp, kPatience)) Fail("the EMP does not end");
    m_Emp.Reset();
}

void CXinetd::Release() {
    if (m_nEmp == 0) throw std::runtime_error("xinetd: no EMP runs that could be ended");
    EndEmp();
    AwaitReaping();
    m_nEmp = 0;
}

/// xinetd takes the next connection for a first one as soon as it has reaped the EMP and waits
/// again, and it tells nobody.
void CXinetd::AwaitReaping() const {
    const auto deadline = steady_clock::now() + kPatience;
    while (StateOf(m_nEmp) != '\0' || StateOf(m_pDaemon->Pid()) != 'S') {
        if (!m_pDaemon->IsRunning()) Fail("has ended by itself");
        if (steady_clock::now() > deadline) Fail("does not reap the EMP");
        (void)::poll(nullptr, 0, 1);
    }
}

}  // namespace vok::bench
