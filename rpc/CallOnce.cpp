#include "rpc/CallOnce.h"

#include <algorithm>
#include <cstdlib>
#include <limits>

namespace vok {

int PortNumber(const std::string& strPort) {
    const long nPort = std::strtol(strPort.c_str(), nullptr, 10);
    // Not cut to an int: 4294967297 is no port, least of all port 1.
    return static_cast<int>(
        std::clamp<long>(nPort, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
}

std::shared_ptr<apache::thrift::transport::TSocket> MakeRpcSocket(const RpcAddress& address) {
    using apache::thrift::transport::TSocket;

    const auto pSocket = address.strPath.empty()
                             ? std::make_shared<TSocket>(address.strHost, address.nPort)
                             : std::make_shared<TSocket>(address.strPath);
    if (kRpcTimeoutMs > 0) {
        pSocket->setConnTimeout(kRpcTimeoutMs);
        pSocket->setSendTimeout(kRpcTimeoutMs);
        pSocket->setRecvTimeout(kRpcTimeoutMs);
    }
    return pSocket;
}

}  // namespace vok
