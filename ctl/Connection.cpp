#include "ctl/Connection.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "platform/CUniqueFd.h"

namespace vok::ctl {

namespace {

using apache::thrift::TApplicationException;
using apache::thrift::transport::TTransportException;

constexpr int kRetryMs = 20;

[[noreturn]] void ThrowErrno(int nErrno) {
    eTrouble trouble = eTrouble::Broken;
    if (nErrno == ENOENT || nErrno == ENOTDIR) trouble = eTrouble::Missing;
    // Nobody serves where there is no way to, either: the loopback interface is down.
    if (nErrno == ECONNREFUSED || nErrno == ENETUNREACH || nErrno == EHOSTUNREACH ||
        nErrno == EADDRNOTAVAIL)
        trouble = eTrouble::Refused;
    if (nErrno == EACCES || nErrno == EPERM) trouble = eTrouble::Forbidden;
    throw CCallError(trouble, std::strerror(nErrno));
}

Socket NewSocket(int nFamily, const CPatience& patience) {
    const int nFd = ::socket(nFamily, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (nFd < 0) ThrowErrno(errno);
    return std::make_shared<CPatientSocket>(nFd, patience);
}

void Connect(int nFd, const sockaddr* pAddress, socklen_t nSize, const CPatience& patience) {
    int nResult = 0;
    // A Unix domain socket whose backlog is full does not tell when that is over.
    while ((nResult = ::connect(nFd, pAddress, nSize)) != 0 && errno == EAGAIN) patience.Pause();
    if (nResult == 0) return;
    if (errno != EINPROGRESS) ThrowErrno(errno);
    patience.Await(nFd, POLLOUT);
    int nError = 0;
    socklen_t nErrorSize = sizeof nError;
    if (::getsockopt(nFd, SOL_SOCKET, SO_ERROR, &nError, &nErrorSize) != 0) nError = errno;
    if (nError != 0) ThrowErrno(nError);
}

/// The kernel may give a connection to a port of its own range that very port: then it is connected
/// to itself, and nobody serves there.
bool IsConnectedToItself(int nFd) {
    sockaddr_in own{};
    sockaddr_in peer{};
    socklen_t nOwn = sizeof own;
    socklen_t nPeer = sizeof peer;
    return ::getsockname(nFd, reinterpret_cast<sockaddr*>(&own), &nOwn) == 0 &&
           ::getpeername(nFd, reinterpret_cast<sockaddr*>(&peer), &nPeer) == 0 &&
           own.sin_port == peer.sin_port && own.sin_addr.s_addr == peer.sin_addr.s_addr;
}

}  // namespace

CPatience::CPatience(std::chrono::milliseconds whole, int nInterrupt)
    : m_Whole(whole),
      m_Deadline(std::chrono::steady_clock::now() + whole),
      m_nInterrupt(nInterrupt) {}

int CPatience::RemainingMs() const {
    // Up, not down: with less than a millisecond left it would not sleep at all.
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(m_Deadline - std::chrono::steady_clock::now());
    return static_cast<int>(std::clamp<std::chrono::milliseconds::rep>(left.count(), 0, 1 << 30));
}

bool CPatience::Poll(int nFd, short nEvents, int nMs) const {
    std::array<pollfd, 2> fds{{{nFd, nEvents, 0}, {m_nInterrupt, POLLIN, 0}}};
    const int nReady = ::poll(fds.data(), fds.size(), nMs);
    if (nReady < 0 && errno != EINTR) ThrowErrno(errno);
    if (nReady > 0 && fds[1].revents != 0) throw CCallError(eTrouble::Interrupted, "interrupted");
    return nReady > 0;
}

void CPatience::Await(int nFd, short nEvents) const {
    while (!Poll(nFd, nEvents, RemainingMs())) {
        if (RemainingMs() == 0) throw CCallError(eTrouble::TimedOut, "no answer in time");
    }
}

void CPatience::Pause() const {
    (void)Poll(-1, 0, std::min(RemainingMs(), kRetryMs));
    if (RemainingMs() == 0) throw CCallError(eTrouble::TimedOut, "no answer in time");
}

CPatientSocket::CPatientSocket(int nFd, const CPatience& patience)
    : TSocket(nFd), m_Patience(patience) {}

uint32_t CPatientSocket::read(uint8_t* pBuffer, uint32_t nSize) {
    m_Patience.Await(getSocketFD(), POLLIN);
    return TSocket::read(pBuffer, nSize);
}

void CPatientSocket::write(const uint8_t* pBuffer, uint32_t nSize) {
    for (uint32_t nSent = 0; nSent < nSize;) {
        m_Patience.Await(getSocketFD(), POLLOUT);
        nSent += write_partial(pBuffer + nSent, nSize - nSent);
    }
}

Socket ConnectTcp(const std::string& strAddress, int nPort, const CPatience& patience) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    if (nPort < 1 || nPort > 65535 ||
        ::inet_pton(AF_INET, strAddress.c_str(), &address.sin_addr) != 1)
        throw CCallError(eTrouble::Broken,
                         strAddress + ':' + std::to_string(nPort) + " is no address");
    address.sin_port = htons(static_cast<in_port_t>(nPort));
    Socket pSocket = NewSocket(AF_INET, patience);
    const int nFd = pSocket->getSocketFD();
    // What is connected to itself lingers for a minute, and is not to keep the port from a broker.
    const int nOn = 1;
    (void)::setsockopt(nFd, SOL_SOCKET, SO_REUSEADDR, &nOn, sizeof nOn);
    Connect(nFd, reinterpret_cast<const sockaddr*>(&address), sizeof address, patience);
    if (IsConnectedToItself(nFd)) ThrowErrno(ECONNREFUSED);
    return pSocket;
}

Socket ConnectUnix(const std::string& strPath, const CPatience& patience) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (strPath.size() >= sizeof address.sun_path) ThrowErrno(ENAMETOOLONG);
    strPath.copy(address.sun_path, sizeof address.sun_path - 1);
    Socket pSocket = NewSocket(AF_UNIX, patience);
    Connect(pSocket->getSocketFD(), reinterpret_cast<const sockaddr*>(&address), sizeof address,
            patience);
    return pSocket;
}

bool IsLoopbackUp() {
    const CUniqueFd fd{::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    if (!fd.IsOpen()) return true;  // not known; what needs a socket next says why there is none
    ifreq request{};
    std::strcpy(request.ifr_name, "lo");
    return ::ioctl(fd.Get(), SIOCGIFFLAGS, &request) == 0 && (request.ifr_flags & IFF_UP) != 0;
}

void ThrowTrouble(const TTransportException& error) {
    switch (error.getType()) {
        case TTransportException::TIMED_OUT:
            throw CCallError(eTrouble::TimedOut, "no answer in time");
        case TTransportException::CORRUPTED_DATA:
            throw CCallError(eTrouble::Garbled, error.what());
        case TTransportException::END_OF_FILE:
            throw CCallError(eTrouble::Broken, "the connection was closed");
        default:
            throw CCallError(eTrouble::Broken, error.what());
    }
}

void ThrowTrouble(const TApplicationException& error) {
    const bool bUnknown = error.getType() == TApplicationException::UNKNOWN_METHOD;
    throw CCallError(bUnknown ? eTrouble::Unknown : eTrouble::Declined, error.what());
}

}  // namespace vok::ctl
