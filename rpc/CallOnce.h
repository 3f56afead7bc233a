/// How the broker calls its peers: a fresh connection for every call.
#pragma once

#include <thrift/TConfiguration.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TSocket.h>

#include <memory>
#include <string>

#include "platform/Limits.h"
#include "rpc/CTextTransport.h"

namespace vok {

/// Read and write buffer of every outbound connection, in bytes.
inline constexpr unsigned int kRpcBuffer = 512;

/// The longest text that is read, in bytes. The library takes no longer message, but would first
/// make room for up to 2 GiB that some garbage announces.
inline constexpr int kLongestText = apache::thrift::TConfiguration::DEFAULT_MAX_MESSAGE_SIZE;

/// Where a peer serves: a TCP host and port, or a Unix domain socket path.
struct RpcAddress {
    std::string strHost;
    int nPort = 0;
    std::string strPath;             // not empty: the path counts, host and port do not
    int nTimeoutMs = kRpcTimeoutMs;  // to connect, to send and to receive; 0: none
};

/// A socket to `address`, not open yet, with its time-outs set. It becomes close-on-exec.
///
/// Opening it fails when it reached itself: a connect to a local port that nobody serves may be
/// given that very port as its own (the port lies in the kernel's range of ephemeral ones).
std::shared_ptr<apache::thrift::transport::TSocket> MakeRpcSocket(const RpcAddress& address);

/// Opens a connection to `address`, runs `call(client)` on it, closes it. `Client` is a generated
/// one, e.g. VokEmpClient. Blocks for the whole call; without time-outs, as long as the peer likes.
///
/// True when all of it went well. When the RPC library throws, `onError(szWhat)` is called with the
/// exception's text and the result is false; this includes a failure to close after `call` has
/// returned. Every other exception passes to the caller. The connection is closed in any case.
template <typename Client, typename Call, typename OnError>
bool CallOnce(const RpcAddress& address, Call&& call, OnError&& onError) {
    using apache::thrift::protocol::TBinaryProtocol;

    try {
        const auto pSocket = MakeRpcSocket(address);
        const auto pTransport = std::make_shared<CTextTransport>(pSocket, kRpcBuffer, kRpcBuffer);
        // Containers have no limit; a message without the version word is accepted.
        Client client{std::make_shared<TBinaryProtocol>(pTransport, kLongestText, 0, false, true)};

        pTransport->open();
        call(client);
        pTransport->close();
        return true;
    } catch (const apache::thrift::TException& e) {
        onError(e.what());
        return false;
    }
}

}  // namespace vok
