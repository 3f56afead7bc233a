/// The RPC library's threaded server, made to survive its clients.
#pragma once

#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/server/TThreadedServer.h>
#include <thrift/transport/TServerSocket.h>

#include <memory>
#include <string>

#include "rpc/CTextTransport.h"

namespace vok {

/// A listening socket, on a TCP address and port or on a Unix domain socket path. What only
/// concerns one client (it has gone again, descriptors or memory are short for a moment) never ends
/// the accepting, as it would in the library. Its descriptors are close-on-exec.
class CRpcServerSocket : public apache::thrift::transport::TServerSocket {
public:
    CRpcServerSocket(const std::string& strAddress, int nPort);
    /// The path must be free; it is not removed at the end.
    explicit CRpcServerSocket(const std::string& strPath);

    void listen() override;

protected:
    std::shared_ptr<apache::thrift::transport::TTransport> acceptImpl() override;
    std::shared_ptr<apache::thrift::transport::TSocket> createSocket(THRIFT_SOCKET client) override;
};

/// How every server of the broker reads what its clients send, and writes what it answers. The
/// protocol's class is for processors made from a template, which call it directly.
using CServerProtocol = apache::thrift::protocol::TBinaryProtocolT<CTextTransport>;
std::shared_ptr<apache::thrift::transport::TTransportFactory> ServerTransports();
std::shared_ptr<apache::thrift::protocol::TProtocolFactory> ServerProtocols();

/// One thread for each client, with kConnectionStack bytes of stack and all signals blocked when
/// the thread that serves has them blocked. A client is dropped when no thread can be made for it,
/// or when memory runs out in one of its calls.
///
/// Connections are limited so that descriptors are left for calls to peers; further clients wait in
/// the backlog until one leaves.
class CRpcServer : public apache::thrift::server::TThreadedServer {
public:
    CRpcServer(const std::shared_ptr<apache::thrift::TProcessor>& pProcessor,
               const std::shared_ptr<CRpcServerSocket>& pSocket,
               const std::shared_ptr<apache::thrift::transport::TTransportFactory>& pTransports,
               const std::shared_ptr<apache::thrift::protocol::TProtocolFactory>& pProtocols);

    /// Serves until stopped. Throws TTransportException when it cannot listen.
    void serve() override;

protected:
    void onClientConnected(
        const std::shared_ptr<apache::thrift::server::TConnectedClient>& pClient) override;
};

/// How many clients may be connected at once when the process may have `nDescriptors` open: a
/// quarter, and at least 64, is left for everything else.
long ConnectionLimit(unsigned long nDescriptors);

}  // namespace vok
