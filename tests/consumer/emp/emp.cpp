// Serves VokEmp on a free port, which it prints, until its standard input ends.
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/server/TThreadedServer.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TServerSocket.h>

#include <cstdio>
#include <memory>
#include <string>
#include <thread>

#include "VokEmp.h"

namespace {

class CEmp : public vok::VokEmpNull {
public:
    void Execute(std::string& strAnswer, const std::string&, const std::string& strCmd,
                 const std::string& strArg3, const std::string&, const std::string&,
                 const std::string&) override {
        if (strCmd == "Echo") strAnswer = strArg3;
    }
};

/// Prints the port once there is one.
class CPrintPort : public apache::thrift::server::TServerEventHandler {
public:
    explicit CPrintPort(apache::thrift::transport::TServerSocket& socket) : m_Socket(socket) {}
    void preServe() override {
        std::printf("%d\n", m_Socket.getPort());
        std::fflush(stdout);
    }

private:
    apache::thrift::transport::TServerSocket& m_Socket;
};

}  // namespace

int main() {
    using namespace apache::thrift;
    const auto spSocket = std::make_shared<transport::TServerSocket>("127.0.0.1", 0);
    server::TThreadedServer server(std::make_shared<vok::VokEmpProcessor>(std::make_shared<CEmp>()),
                                   spSocket,
                                   std::make_shared<transport::TBufferedTransportFactory>(),
                                   std::make_shared<protocol::TBinaryProtocolFactory>());
    server.setServerEventHandler(std::make_shared<CPrintPort>(*spSocket));
    std::thread serving{[&server] { server.serve(); }};
    while (std::getchar() != EOF) {
    }
    server.stop();
    serving.join();
}
