#include "rpc/CallOnce.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include "platform/Descriptors.h"

namespace vok {

using apache::thrift::transport::TSocket;
using apache::thrift::transport::TTransportException;

namespace {

/// True when both ends of a TCP connection are one socket.
bool IsConnectedToItself(int nFd) {
    sockaddr_in own{};
    sockaddr_in peer{};
    socklen_t nOwn = sizeof own;
    socklen_t nPeer = sizeof peer;
    return ::getsockname(nFd, reinterpret_cast<sockaddr*>(&own), &nOwn) == 0 &&
           ::getpeername(nFd, reinterpret_cast<sockaddr*>(&peer), &nPeer) == 0 &&
           own.sin_family == AF_INET && own.sin_port == peer.sin_port &&
           own.sin_addr.s_addr == peer.sin_addr.s_addr;
}

class CRpcSocket : public TSocket {
public:
    using TSocket::TSocket;

    void open() override {
        TSocket::open();
        const int nFd = static_cast<int>(getSocketFD());
        SetCloseOnExec(nFd);  // the library opens it without
        if (!IsConnectedToItself(nFd)) return;
        close();
        throw TTransportException(TTransportException::NOT_OPEN, "connected to itself");
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
