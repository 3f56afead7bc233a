// A host: drives a broker of its own inside its process, by libvokbroker.so.
//
//     example-host EMP
//
// The broker keeps its hands off the host's signals: what SIGTERM does is for the host to say, and
// no signal is delivered to a thread of the broker. Its log goes to syslog, or to $VOK_LOG_FILE.
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TSocket.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>

#include "VokEmp.h"
#include "broker/CBroker.h"
#include "broker/vok.h"

namespace {

/// What a client does first with the EMP that it got: the EMP counts it, and learns which
/// application it belongs to.
void Greet(const vok::ConnectionInfo& info) {
    using namespace apache::thrift;
    const auto spTransport = std::make_shared<transport::TBufferedTransport>(
        std::make_shared<transport::TSocket>(info.ip, std::stoi(info.empPort)));
    vok::VokEmpClient emp{std::make_shared<protocol::TBinaryProtocol>(spTransport)};
    spTransport->open();
    std::printf("clients %d\n", emp.Open(info.clientPort, info.empName, "1.0", "example"));
}

/// Opens an EMP and tidies up, as the browser does for its applications.
bool UseBroker(const std::string& strEmp) {
    std::printf("version %s\n", vok_GetVersion().c_str());

    // What clients ask for by RPC, a host may call. The client's callback server would be at 40001.
    vok::ConnectionInfo info;
    vok_GetBroker()->OpenEmp(info, "40001", strEmp, "1.0", "example");
    if (info.empPort.empty() || info.empPort == "-1") {
        std::printf("refused %s\n", strEmp.c_str());
        return false;
    }
    std::printf("opened %s empPort=%s\n", strEmp.c_str(), info.empPort.c_str());
    Greet(info);

    vok_CloseAllEmpWithAppID("example", "");  // when an application has ended
    vok_PingTest_For_Webkit();                // now and then: closes what dead clients left open
    std::printf("swept\n");
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "Usage: example-host EMP\n");
        return 2;
    }
    std::atomic<bool> bEnded{false};
    std::thread serving{[&bEnded] {
        (void)vok_BrokerStart();  // returns when the broker has stopped, or cannot serve
        bEnded = true;
    }};
    while (!vok_IsBrokerServerRunning() && !bEnded)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    const bool bUsed = vok_IsBrokerServerRunning() && UseBroker(argv[1]);

    vok_GetBroker()->Destory();
    serving.join();
    // Waits until no thread works on it any more.
    const std::unique_ptr<vok::CBroker> pBroker{vok_GetBroker()};
    return bUsed ? 0 : 1;
}
