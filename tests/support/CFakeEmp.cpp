#include "tests/support/CFakeEmp.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <system_error>
#include <utility>

#include "VokEmp.h"
#include "tests/support/FakeServer.h"

namespace vok::test {
namespace {

void Check(bool bDone, const char* szWhat) {
    if (!bDone) throw std::system_error(errno, std::generic_category(), szWhat);
}

/// Binds a new TCP socket to a free loopback port.
CUniqueFd BindLoopback(int* pPort) {
    CUniqueFd fd{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    Check(fd.IsOpen(), "socket");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t nSize = sizeof(address);
    Check(::bind(fd.Get(), reinterpret_cast<sockaddr*>(&address), nSize) == 0, "bind");
    Check(::getsockname(fd.Get(), reinterpret_cast<sockaddr*>(&address), &nSize) == 0,
          "getsockname");
    *pPort = ntohs(address.sin_port);
    return fd;
}

}  // namespace

void PrintTo(const EmpCall& call, std::ostream* pStream) {
    *pStream << call.strMethod << '(';
    for (const std::string& strArgument : call.arguments) *pStream << '"' << strArgument << "\",";
    *pStream << ')';
}

class CFakeEmp::CHandler : public VokEmpIf {
public:
    int32_t Open(const std::string& strClientID, const std::string& strName,
                 const std::string& strVersion, const std::string& strCredential) override {
        record.Take({"Open", {strClientID, strName, strVersion, strCredential}});
        const std::lock_guard<std::mutex> lock{m_Mutex};
        return m_nOpenAnswer;
    }

    int32_t Close(const std::string& strClientID, const EmpType::type eType) override {
        record.Take({"Close", {strClientID, std::to_string(static_cast<int>(eType))}});
        const std::lock_guard<std::mutex> lock{m_Mutex};
        return m_nCloseAnswer;
    }

    void Execute(std::string& strResult, const std::string& strClientID, const std::string& strCmd,
                 const std::string& strArg3, const std::string& strArg4, const std::string& strArg5,
                 const std::string& strArg6) override {
        record.Take({"Execute", {strClientID, strCmd, strArg3, strArg4, strArg5, strArg6}});
        const std::lock_guard<std::mutex> lock{m_Mutex};
        strResult = m_mapAnswer[strCmd];
    }

    void ExecuteWithParamList(std::string& strResult, const std::string& strClientID,
                              const std::string& strCmd, const ParamList& params) override {
        EmpCall call{"ExecuteWithParamList", {strClientID, strCmd}};
        call.arguments.insert(call.arguments.end(), params.params.begin(), params.params.end());
        record.Take(call);
        const std::lock_guard<std::mutex> lock{m_Mutex};
        strResult = m_mapAnswer[strCmd];
    }

    CCallRecord<EmpCall> record;
    std::mutex m_Mutex;  // guards all that follows
    int m_nOpenAnswer = 1;
    int m_nCloseAnswer = 0;
    std::map<std::string, std::string> m_mapAnswer{{"Ping", "1"}};
};

CFakeEmp::CFakeEmp()
    : m_pHandler(std::make_shared<CHandler>()),
      m_pServer(std::make_unique<CFakeServer>(std::make_shared<VokEmpProcessor>(m_pHandler))) {}

CFakeEmp::~CFakeEmp() = default;

int CFakeEmp::Port() const {
    return m_pServer->Port();
}

void CFakeEmp::AnswerOpen(int nAnswer) {
    const std::lock_guard<std::mutex> lock{m_pHandler->m_Mutex};
    m_pHandler->m_nOpenAnswer = nAnswer;
}

void CFakeEmp::AnswerClose(int nAnswer) {
    const std::lock_guard<std::mutex> lock{m_pHandler->m_Mutex};
    m_pHandler->m_nCloseAnswer = nAnswer;
}

void CFakeEmp::AnswerExecute(const std::string& strCmd, const std::string& strAnswer) {
    const std::lock_guard<std::mutex> lock{m_pHandler->m_Mutex};
    m_pHandler->m_mapAnswer[strCmd] = strAnswer;
}

void CFakeEmp::FailCalls(const std::string& strText) {
    m_pHandler->record.FailCalls(strText);
}

void CFakeEmp::OnCall(std::function<void(const EmpCall&)> hook) {
    m_pHandler->record.OnCall(std::move(hook));
}

std::vector<EmpCall> CFakeEmp::Calls() const {
    return m_pHandler->record.Calls();
}

void CFakeEmp::ForgetCalls() {
    m_pHandler->record.ForgetCalls();
}

CRawPeer::CRawPeer(std::string strReply)
    : CRawPeer(std::vector<std::string>{std::move(strReply)}) {}

CRawPeer::CRawPeer(std::vector<std::string> replies)
    : m_Replies(std::move(replies)),
      m_Listener(BindLoopback(&m_nPort)),
      m_Stop(::eventfd(0, EFD_CLOEXEC)) {
    Check(m_Stop.IsOpen(), "eventfd");
    Check(::listen(m_Listener.Get(), SOMAXCONN) == 0, "listen");
    m_Thread = std::thread([this] { Serve(); });
}

CRawPeer::~CRawPeer() {
    (void)::eventfd_write(m_Stop.Get(), 1);  // fails only when the counter is full
    m_Thread.join();
}

std::vector<std::string> CRawPeer::Requests() const {
    const std::lock_guard<std::mutex> lock{m_Mutex};
    return m_Requests;
}

void CRawPeer::Record(const char* pData, ssize_t nSize) {
    const std::lock_guard<std::mutex> lock{m_Mutex};
    m_Requests.emplace_back(pData, nSize > 0 ? static_cast<std::size_t>(nSize) : 0);
}

void CRawPeer::Serve() {
    for (std::size_t nPeer = 0;;) {
        pollfd fds[] = {{m_Stop.Get(), POLLIN, 0}, {m_Listener.Get(), POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) continue;
        if (fds[0].revents) return;
        const CUniqueFd peer{::accept4(m_Listener.Get(), nullptr, nullptr, SOCK_CLOEXEC)};
        if (!peer.IsOpen()) continue;

        char szRequest[4096];
        pollfd fdsPeer[] = {{m_Stop.Get(), POLLIN, 0}, {peer.Get(), POLLIN, 0}};
        (void)::poll(fdsPeer, 2, -1);  // whatever woke it, the test has what it came for
        if (fdsPeer[0].revents) return;
        Record(szRequest, ::recv(peer.Get(), szRequest, sizeof(szRequest), 0));
        const std::string& strReply = m_Replies[std::min(nPeer++, m_Replies.size() - 1)];
        (void)::send(peer.Get(), strReply.data(), strReply.size(), MSG_NOSIGNAL);
    }
}

std::string HalfAnAnswer() {
    using namespace std::string_literals;
    return "\x80\x01\x00\x02\x00\x00\x00\x07"
           "Exec"s;
}

std::string Garbage() {
    using namespace std::string_literals;
    return "\xff\xfe garbage"s;
}

CRefusedPort::CRefusedPort() : m_Socket(BindLoopback(&m_nPort)) {}

}  // namespace vok::test
