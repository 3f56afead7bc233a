#include "rpc/CallOnce.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <optional>

#include "platform/Descriptors.h"

namespace vok {

using apache::thrift::transport::TSocket;
using apache::thrift::transport::TTransportException;

namespace {

/// The library asks the resolver for every host, which asks the kernel for all its addresses: that
/// is most of what a connection within the set costs, and an address needs no resolving.
class CRpcSocket : public TSocket {
public:
    using TSocket::TSocket;

    void open() override {
        if (isOpen()) return;
        const std::optional<sockaddr_in> address = NumericAddress();
        if (address)
            OpenTo(*address);
        else
            TSocket::open();
        SetCloseOnExec(static_cast<int>(getSocketFD()));  // the library opens it without
        if (!path_.empty() || !IsConnectedToItself(address)) return;
        close();
        throw TTransportException(TTransportException::NOT_OPEN, "connected to itself");
    }

private:
    /// None when the host is no IPv4 address of a host, for a path, and for a port that none can
    /// have.
    std::optional<sockaddr_in> NumericAddress() const {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        if (!path_.empty() || port_ < 0 || port_ > UINT16_MAX) return std::nullopt;
        address.sin_port = htons(static_cast<std::uint16_t>(port_));
        if (::inet_pton(AF_INET, host_.c_str(), &address.sin_addr) != 1) return std::nullopt;
        if (address.sin_addr.s_addr == INADDR_ANY) return std::nullopt;
        return address;
    }

    void OpenTo(sockaddr_in address) {
        addrinfo info{};
        info.ai_family = AF_INET;
        info.ai_socktype = SOCK_STREAM;
        info.ai_addr = reinterpret_cast<sockaddr*>(&address);
        info.ai_addrlen = sizeof address;
        try {
            openConnection(&info);
        } catch (const TTransportException&) {
            close();  // what was opened stays open otherwise
            throw;
        }
    }

    /// True when both ends are one socket. `peer`: the other end, when it is known already.
    bool IsConnectedToItself(std::optional<sockaddr_in> peer) {
        const int nFd = static_cast<int>(getSocketFD());
        sockaddr_in own{};
        socklen_t nSize = sizeof own;
        if (::getsockname(nFd, reinterpret_cast<sockaddr*>(&own), &nSize) != 0) return false;
        if (!peer) {
            peer.emplace();
            nSize = sizeof *peer;
            if (::getpeername(nFd, reinterpret_cast<sockaddr*>(&*peer), &nSize) != 0) return false;
        }
        return own.sin_family == AF_INET && own.sin_port == peer->sin_port &&
               own.sin_addr.s_addr == peer->sin_addr.s_addr;
    }
};

}  // namespace

std::shared_ptr<TSocket> MakeRpcSocket(const RpcAddress& address) {
    std::shared_ptr<TSocket> pSocket;
    if (address.strPath.empty())
        pSocket = std::make_shared<CRpcSocket>(address.strHost, address.nPort);
    else
        pSocket = std::make_shared<CRpcSocket>(address.strPath);
    if (address.nTimeoutMs > 0) {
        pSocket->setConnTimeout(address.nTimeoutMs);
        pSocket->setSendTimeout(address.nTimeoutMs);
        pSocket->setRecvTimeout(address.nTimeoutMs);
    }
    return pSocket;
}

}  // namespace vok
