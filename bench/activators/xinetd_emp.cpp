// An EMP that a super-server starts by its first connection: descriptor 0 listens already.
#include <fcntl.h>
#include <sys/socket.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/server/TThreadedServer.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TServerTransport.h>
#include <thrift/transport/TSocket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "VokEmp.h"

namespace {

using apache::thrift::protocol::TBinaryProtocolFactory;
using apache::thrift::server::TThreadedServer;
using apache::thrift::transport::TBufferedTransportFactory;
using apache::thrift::transport::TServerTransport;
using apache::thrift::transport::TSocket;
using apache::thrift::transport::TTransport;
using apache::thrift::transport::TTransportException;

/// The library's own would bind a socket of its own.
class CInheritedSocket : public TServerTransport {
public:
    void close() override {}  // it lives as long as the process

protected:
    std::shared_ptr<TTransport> acceptImpl() override {
        const int nClient = ::accept4(STDIN_FILENO, nullptr, nullptr, SOCK_CLOEXEC);
        if (nClient < 0) throw TTransportException(TTransportException::UNKNOWN, "accept", errno);
        return std::make_shared<TSocket>(nClient);
    }
};

class CEmp : public vok::VokEmpIf {
public:
    int32_t Open(const std::string&, const std::string&, const std::string&,
                 const std::string&) override {
        return 1;
    }
    int32_t Close(const std::string&, vok::EmpType::type) override { return 0; }
    void Execute(std::string& strAnswer, const std::string&, const std::string& strCmd,
                 const std::string&, const std::string&, const std::string&,
                 const std::string&) override {
        strAnswer = strCmd == "Pid" ? std::to_string(::getpid()) : "1";
    }
    void ExecuteWithParamList(std::string&, const std::string&, const std::string&,
                              const vok::ParamList&) override {}
};

bool IsListening() {
    int nListening = 0;
    socklen_t nSize = sizeof nListening;
    return ::getsockopt(STDIN_FILENO, SOL_SOCKET, SO_ACCEPTCONN, &nListening, &nSize) == 0 &&
           nListening != 0;
}

}  // namespace

int main() {
    if (!IsListening()) {
        std::fprintf(stderr, "This is an EMP that xinetd starts: descriptor 0 does not listen.\n");
        return EXIT_FAILURE;
    }
    // The super-server's end of it never blocks.
    (void)::fcntl(STDIN_FILENO, F_SETFL, ::fcntl(STDIN_FILENO, F_GETFL) & ~O_NONBLOCK);
    TThreadedServer server(std::make_shared<vok::VokEmpProcessor>(std::make_shared<CEmp>()),
                           std::make_shared<CInheritedSocket>(),
                           std::make_shared<TBufferedTransportFactory>(),
                           std::make_shared<TBinaryProtocolFactory>());
    server.serve();  // until SIGTERM
    return EXIT_SUCCESS;
}
