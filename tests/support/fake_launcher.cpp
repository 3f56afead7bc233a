// A register launcher that does what a test tells it to.
//
//   fake-launcher LAUNCHER EMP=BEHAVIOUR...
//
//   serve    starts the EMP, reports it and answers 1
//   refuse   answers 0
//   silent   answers 1, and reports nothing
//   hang     never answers
//
// It prints "serving LAUNCHER port=PORT" once it and its EMPs are registered, and "open EMP" when
// it is asked for one. SIGTERM ends it without a word to the broker.
#include <pthread.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>

#include "examples/emp.h"

namespace {

/// A line of its own, also when several threads write.
void Say(const std::string& strLine) {
    std::fputs((strLine + '\n').c_str(), stdout);
    std::fflush(stdout);
}

class CLauncher : public vok::VOKEmpLauncherIf {
public:
    explicit CLauncher(std::map<std::string, std::string> mapBehaviour)
        : m_mapBehaviour(std::move(mapBehaviour)) {}

    int32_t Open(const std::string& strName, int32_t nTicketSerial,
                 const std::string& strCbSrvPath) override {
        Say("open " + strName);
        const std::string strBehaviour = m_mapBehaviour.at(strName);
        while (strBehaviour == "hang") ::pause();
        if (strBehaviour == "serve") return m_Host.Open(strName, nTicketSerial, strCbSrvPath);
        return strBehaviour == "silent" ? 1 : 0;
    }

private:
    const std::map<std::string, std::string> m_mapBehaviour;
    example::CHost m_Host{"0001", example::kInRegisterLauncher};
};

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return EXIT_FAILURE;
    const sigset_t setStop = example::BlockStopSignals();
    std::map<std::string, std::string> mapBehaviour;
    for (int i = 2; i < argc; ++i) {
        const std::string strArgument = argv[i];
        const std::size_t nEnd = strArgument.find('=');
        mapBehaviour[strArgument.substr(0, nEnd)] = strArgument.substr(nEnd + 1);
    }
    const example::CServer server(
        std::make_shared<vok::VOKEmpLauncherProcessor>(std::make_shared<CLauncher>(mapBehaviour)));
    example::TellBroker("1", "__BROKER_CMD_NOTIFY_REGISTEREMP_SERVER", argv[1], server.Port());
    for (const auto& [strEmp, strBehaviour] : mapBehaviour)
        example::TellBroker("", "__BROKER_CMD_NOTIFY_REGISTER_EMP", strEmp, server.Port());
    Say(std::string("serving ") + argv[1] + " port=" + server.Port());
    example::AwaitStop(setStop);
    ::_exit(EXIT_SUCCESS);  // some calls may hang
}
