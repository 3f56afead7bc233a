#include "tests/support/CFakeEmp.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TServerSocket.h>

#include <future>
#include <ostream>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace vok::test {
namespace {

using apache::thrift::server::TServerEventHandler;
using apache::thrift::transport::TServerSocket;

/// Tells the port once the server listens.
class CPortTeller : public TServerEventHandler {
public:
    explicit CPortTeller(std::shared_ptr<TServerSocket> pSocket) : m_pSocket(std::move(pSocket)) {}

    int Await() { return m_Port.get_future().get(); }

    void preServe() override { m_Port.set_value(m_pSocket->getPort()); }

private:
    std::shared_ptr<TServerSocket> m_pSocket;
    std::promise<int> m_Port;
};

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
        const std::lock_guard<std::mutex> lock{m_Mutex};
        Record({"Open", {strClientID, strName, strVersion, strCredential}});
        return m_nOpenAnswer;
    }

    int32_t Close(const std::string& strClientID, const EmpType::type eType) override {
        const std::lock_guard<std::mutex> lock{m_Mutex};
        Record({"Close", {strClientID, std::to_string(static_cast<int>(eType))}});
        return m_nCloseAnswer;
    }

    void Execute(std::string& strResult, const std::string& strClientID, const std::string& strCmd,
                 const std::string& strArg3, const std::string& strArg4, const std::string& strArg5,
                 const std::string& strArg6) override {
        const std::lock_guard<std::mutex> lock{m_Mutex};
        Record({"Execute", {strClientID, strCmd, strArg3, strArg4, strArg5, strArg6}});
        strResult = m_mapAnswer[strCmd];
    }

    void ExecuteWithParamList(std::string& strResult, const std::string& strClientID,
                              const std::string& strCmd, const ParamList& params) override {
        const std::lock_guard<std::mutex> lock{m_Mutex};
        EmpCall call{"ExecuteWithParamList", {strClientID, strCmd}};
        call.arguments.insert(call.arguments.end(), params.params.begin(), params.params.end());
        Record(std::move(call));
        strResult = m_mapAnswer[strCmd];
    }

    std::mutex m_Mutex;  // guards all that follows
    int m_nOpenAnswer = 1;
    int m_nCloseAnswer = 0;
    std::map<std::string, std::string> m_mapAnswer{{"Ping", "1"}};
    std::string m_strFailure;
    std::vector<EmpCall> m_Calls;

private:
    void Record(EmpCall call) {
        m_Calls.push_back(std::move(call));
        if (!m_strFailure.empty()) throw std::runtime_error(m_strFailure);
    }
};

CFakeEmp::CFakeEmp() : m_pHandler(std::make_shared<CHandler>()) {
    using apache::thrift::protocol::TBinaryProtocolFactory;
    using apache::thrift::server::TThreadedServer;
    using apache::thrift::transport::TBufferedTransportFactory;

    const auto pSocket = std::make_shared<TServerSocket>("127.0.0.1", 0);
    const auto pTeller = std::make_shared<CPortTeller>(pSocket);
    m_pServer = std::make_unique<TThreadedServer>(
        std::make_shared<VokEmpProcessor>(m_pHandler), pSocket,
        std::make_shared<TBufferedTransportFactory>(), std::make_shared<TBinaryProtocolFactory>());
    m_pServer->setServerEventHandler(pTeller);
    m_Thread = std::thread([this] { m_pServer->serve(); });
    m_nPort = pTeller->Await();
}

CFakeEmp::~CFakeEmp() {
    m_pServer->stop();
    m_Thread.join();
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
    const std::lock_guard<std::mutex> lock{m_pHandler->m_Mutex};
    m_pHandler->m_strFailure = strText;
}

std::vector<EmpCall> CFakeEmp::Calls() const {
    const std::lock_guard<std::mutex> lock{m_pHandler->m_Mutex};
    return m_pHandler->m_Calls;
}

void CFakeEmp::ForgetCalls() {
    const std::lock_guard<std::mutex> lock{m_pHandler->m_Mutex};
    m_pHandler->m_Calls.clear();
}

CRawPeer::CRawPeer(std::string strReply)
    : m_strReply(std::move(strReply)),
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

void CRawPeer::Serve() {
    for (;;) {
        pollfd fds[] = {{m_Stop.Get(), POLLIN, 0}, {m_Listener.Get(), POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) continue;
        if (fds[0].revents) return;
        const CUniqueFd peer{::accept4(m_Listener.Get(), nullptr, nullptr, SOCK_CLOEXEC)};
        if (!peer.IsOpen()) continue;

        char szRequest[4096];
        pollfd fdsPeer[] = {{m_Stop.Get(), POLLIN, 0}, {peer.Get(), POLLIN, 0}};
        (void)::poll(fdsPeer, 2, -1);  // whatever woke it, the test has what it came for
        if (fdsPeer[0].revents) return;
        (void)::recv(peer.Get(), szRequest, sizeof(szRequest), 0);
        (void)::send(peer.Get(), m_strReply.data(), m_strReply.size(), MSG_NOSIGNAL);
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
