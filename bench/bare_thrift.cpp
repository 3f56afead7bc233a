// What the RPC library costs by itself: its threaded server, as it is, with the broker's service
// and a handler that does nothing but answer.
//
//   vok-bench-bare-thrift PORT [--close|--close-stats] [PATH...]
//
// An open looks at the PATHs with stat, as the broker looks for an EMP's files. With --close, a
// close calls the EMP's: on a connection of its own, as the broker does; with --close-stats it
// looks at the PATHs first. Answers an order once it serves.
#include <sys/stat.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TSocket.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "VokBroker.h"
#include "VokEmp.h"
#include "bench/Lines.h"
#include "tests/support/FakeServer.h"

namespace {

struct Options {
    int nPort = 0;
    bool bCallsEmp = false;
    bool bStatsInClose = false;
    std::vector<std::string> paths;
};

class CBareBroker : public vok::VokBrokerIf {
public:
    explicit CBareBroker(Options options) : m_Options(std::move(options)) {}

    void OpenEmp(vok::ConnectionInfo& result, const std::string& strClientPort,
                 const std::string& strEmp, const std::string& /*strVersion*/,
                 const std::string& /*strAppInfo*/) override {
        LookAtPaths();
        result.empName = strEmp;
        result.clientPort = strClientPort;
        result.empPort = "40000";
        result.serial = 10'000;
        result.ip = "127.0.0.1";
    }

    void Execute(std::string& strResult, const std::string& /*strArg1*/,
                 const std::string& /*strCmd*/, const std::string& /*strArg3*/,
                 const std::string& /*strArg4*/, const std::string& /*strArg5*/,
                 const std::string& /*strArg6*/) override {
        strResult = "5.100";
    }

    bool CloseEmp(const vok::ConnectionInfo& info) override {
        if (m_Options.bStatsInClose) LookAtPaths();
        return !m_Options.bCallsEmp || CallEmp(info) > 0;
    }

private:
    void LookAtPaths() const {
        for (const std::string& strPath : m_Options.paths) {
            struct stat info {};
            (void)::stat(strPath.c_str(), &info);
        }
    }

    static int CallEmp(const vok::ConnectionInfo& info) {
        using apache::thrift::transport::TBufferedTransport;
        using apache::thrift::transport::TSocket;
        const auto pTransport = std::make_shared<TBufferedTransport>(
            std::make_shared<TSocket>("127.0.0.1", std::atoi(info.empPort.c_str())));
        vok::VokEmpClient emp{
            std::make_shared<apache::thrift::protocol::TBinaryProtocol>(pTransport)};
        pTransport->open();
        const int nClients = emp.Close(info.clientPort, vok::EmpType::PROCESS);
        pTransport->close();
        return nClients;
    }

    const Options m_Options;
};

Options Parse(int argc, char** argv) {
    Options options;
    if (argc > 1) options.nPort = std::atoi(argv[1]);
    for (int n = 2; n < argc; ++n) {
        const std::string strArgument = argv[n];
        if (strArgument.rfind("--close", 0) != 0) {
            options.paths.push_back(strArgument);
            continue;
        }
        options.bCallsEmp = true;
        options.bStatsInClose = strArgument == "--close-stats";
    }
    return options;
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = Parse(argc, argv);
    try {
        const vok::test::CFakeServer server{
            std::make_shared<vok::VokBrokerProcessor>(std::make_shared<CBareBroker>(options)),
            options.nPort};
        for (std::string strLine; vok::bench::ReceiveLine(vok::bench::kOrders, strLine);)
            vok::bench::SendLine(vok::bench::kOrders, "serves");
        std::_Exit(EXIT_SUCCESS);  // its clients may still be connected
    } catch (const std::exception& error) {
        std::fprintf(stderr, "vok-bench-bare-thrift: %s\n", error.what());
        return EXIT_FAILURE;
    }
}
