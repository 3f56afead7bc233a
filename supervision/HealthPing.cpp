// Is the broker alive, and are the EMPs?
#include <netinet/in.h>
#include <sys/socket.h>
#include <thrift/Thrift.h>
#include <thrift/transport/TBufferTransports.h>

#include <cstring>

#include "broker/CBroker.h"
#include "platform/Log.h"
#include "rpc/CallOnce.h"

namespace vok {

namespace {

/// True when both ends of a connection are one socket. A connect to a local port that nobody serves
/// may be given that very port as its own, and then reaches itself (the port lies in the kernel's
/// range of ephemeral ones).
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

bool CBroker::IsBrokerServerRunning() {
    try {
        const auto pSocket =
            MakeRpcSocket({GetProcessIP(PROCESSTYPE_CLIENT), kBrokerPort, std::string()});
        apache::thrift::transport::TBufferedTransport transport{pSocket, kRpcBuffer, kRpcBuffer};
        transport.open();
        const bool bItself = IsConnectedToItself(static_cast<int>(pSocket->getSocketFD()));
        transport.close();
        if (!bItself) return true;

        VOK_LOG(LEVEL_TRACE, "Broker is not running now. Maybe, Server is preparing to run. [%s]",
                "connected to itself");
    } catch (const apache::thrift::TException& e) {
        VOK_LOG(LEVEL_TRACE, "Broker is not running now. Maybe, Server is preparing to run. [%s]",
                e.what());
    } catch (...) {
        VOK_LOG(LEVEL_TRACE, "Broker is not running now. Maybe, Server is preparing to run. ");
    }
    return false;
}

void* CBroker::PingTestWorker(void*) {
    VOK_LOG(LEVEL_DETAIL, "EMPs are not pinged yet.");
    return nullptr;
}

void CBroker::PingTest() {
    VOK_LOG(LEVEL_DETAIL, "EMPs are not pinged yet.");
}

}  // namespace vok
