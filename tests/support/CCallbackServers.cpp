#include "tests/support/CCallbackServers.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TSocket.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "VokEmpEvent.h"
#include "platform/Number.h"

namespace vok::test {

namespace {

/// How long a broker may take between connecting and its event.
constexpr int kPatienceMs = 60'000;

void Check(bool bOk, const std::string& strWhat) {
    if (!bOk) throw std::system_error(errno, std::generic_category(), strWhat);
}

CUniqueFd Bind(const std::string& strAddress) {
    const bool bPath = strAddress.front() == '/';
    CUniqueFd fd{
        ::socket(bPath ? AF_UNIX : AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
    Check(fd.IsOpen(), "socket");
    if (bPath) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        strAddress.copy(address.sun_path, sizeof address.sun_path - 1);
        const auto* const pAddress = reinterpret_cast<const sockaddr*>(&address);
        Check(::bind(fd.Get(), pAddress, sizeof address) == 0, strAddress);
    } else {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<in_port_t>(LeadingNumber(strAddress)));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const auto* const pAddress = reinterpret_cast<const sockaddr*>(&address);
        Check(::bind(fd.Get(), pAddress, sizeof address) == 0, strAddress);
    }
    Check(::listen(fd.Get(), 8) == 0, strAddress);
    return fd;
}

/// One client's service, for one connection.
class CHandler : public VokEmpEventIf {
public:
    void Callback(const int32_t nType, const std::string& strA, const std::string& strB) override {
        events.push_back({nType, strA, strB});
    }

    std::vector<ClientEvent> events;
};

}  // namespace

CCallbackServers::CCallbackServers()
    : m_Poll(::epoll_create1(EPOLL_CLOEXEC)), m_Stop(::eventfd(0, EFD_CLOEXEC)) {
    Check(m_Poll.IsOpen() && m_Stop.IsOpen(), "epoll");
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = m_Stop.Get();
    Check(::epoll_ctl(m_Poll.Get(), EPOLL_CTL_ADD, m_Stop.Get(), &event) == 0, "epoll");
    m_Thread = std::thread([this] { Run(); });
}

CCallbackServers::~CCallbackServers() {
    (void)::eventfd_write(m_Stop.Get(), 1);
    m_Thread.join();
}

void CCallbackServers::Serve(const std::string& strAddress) {
    CUniqueFd fd = Bind(strAddress);
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = fd.Get();
    const std::lock_guard<std::mutex> lock{m_Mutex};
    Check(::epoll_ctl(m_Poll.Get(), EPOLL_CTL_ADD, fd.Get(), &event) == 0, strAddress);
    m_mapListener.insert_or_assign(strAddress, std::move(fd));
}

void CCallbackServers::Close(const std::string& strAddress) {
    const std::lock_guard<std::mutex> lock{m_Mutex};
    m_mapListener.erase(strAddress);
}

std::vector<ClientEvent> CCallbackServers::Events(const std::string& strAddress) const {
    const std::lock_guard<std::mutex> lock{m_Mutex};
    const auto it = m_mapEvents.find(strAddress);
    return it == m_mapEvents.end() ? std::vector<ClientEvent>() : it->second;
}

void CCallbackServers::Run() {
    for (;;) {
        epoll_event event{};
        if (::epoll_wait(m_Poll.Get(), &event, 1, -1) < 1) continue;
        if (event.data.fd == m_Stop.Get()) return;
        Answer(event.data.fd);
    }
}

void CCallbackServers::Answer(int nListener) {
    using namespace apache::thrift;
    std::string strAddress;
    int nConnection = -1;
    {
        // Under the lock the listener cannot be closed, and its number be another's.
        const std::lock_guard<std::mutex> lock{m_Mutex};
        for (const auto& [strOne, fd] : m_mapListener) {
            if (fd.Get() != nListener) continue;
            strAddress = strOne;
            nConnection = ::accept4(nListener, nullptr, nullptr, SOCK_CLOEXEC);
        }
    }
    if (nConnection < 0) return;

    const auto spHandler = std::make_shared<CHandler>();
    try {
        const auto spSocket = std::make_shared<transport::TSocket>(nConnection);
        spSocket->setRecvTimeout(kPatienceMs);
        const auto spProtocol = std::make_shared<protocol::TBinaryProtocol>(
            std::make_shared<transport::TBufferedTransport>(spSocket));
        VokEmpEventProcessor processor{spHandler};
        while (processor.process(spProtocol, spProtocol, nullptr)) {
            // Recorded before the sender goes on.
            const std::lock_guard<std::mutex> lock{m_Mutex};
            std::vector<ClientEvent>& events = m_mapEvents[strAddress];
            events.insert(events.end(), spHandler->events.begin(), spHandler->events.end());
            spHandler->events.clear();
        }
    } catch (const TException&) {
        // The sender has gone: the usual end.
    }
}

}  // namespace vok::test
