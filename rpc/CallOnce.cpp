#include "rpc/CallOnce.h"

#include "platform/Descriptors.h"

namespace vok {

using apache::thrift::transport::TSocket;

namespace {

/// Close-on-exec as soon as there is a descriptor; the library opens it without.
class CRpcSocket : public TSocket {
public:
    using TSocket::TSocket;

    void open() override {
        TSocket::open();
        SetCloseOnExec(static_cast<int>(getSocketFD()));
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
