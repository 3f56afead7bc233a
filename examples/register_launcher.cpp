// A register launcher, to copy from, together with emp.h: a process that runs already and offers
// EMPs, which have no files of their own.
//
//   example-register-launcher [--option CODE] LAUNCHER EMP...
//
// It offers the EMPs under the name LAUNCHER until it gets SIGTERM:
//
//   1. serve VOKEmpLauncher on a free port of the loopback interface;
//   2. register that port with the broker, then each EMP. A launcher of the same name that was
//      registered before is replaced, and its EMPs are forgotten;
//   3. on Open, start the EMP's server as a thread of this process and report it as every EMP
//      does: the client's open waits for that, 10 seconds at most;
//   4. on SIGTERM, unregister. The broker refuses it for an EMP that clients hold; when the
//      launcher itself goes, it closes their connections and answers once that is done, so the
//      EMPs have to serve until then.
//
// An EMP answers Close with the number of its remaining clients; at 0 the broker forgets it without
// a further report.
//
// CODE is the option code of the EMPs: 0001, the default, for any number of clients, 0003 for one
// at a time. The exit status is 0 after SIGTERM; 1 when the broker refused or did not answer, 2 for
// a wrong usage.
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "emp.h"

namespace {

constexpr char kRegister[] = "1";
constexpr char kUnregister[] = "0";

struct Options {
    std::string strOption = "0001";
    std::string strLauncher;
    std::vector<std::string> emps;
};

Options Parse(int argc, char** argv) {
    std::vector<std::string> arguments(argv + 1, argv + argc);
    Options options;
    if (arguments.size() > 2 && arguments[0] == "--option") {
        options.strOption = arguments[1];
        arguments.erase(arguments.begin(), arguments.begin() + 2);
    }
    if (arguments.size() < 2 || arguments[0].rfind("--", 0) == 0) {
        std::fprintf(stderr, "Usage: example-register-launcher [--option CODE] LAUNCHER EMP...\n");
        std::exit(2);
    }
    options.strLauncher = arguments[0];
    options.emps.assign(arguments.begin() + 1, arguments.end());
    return options;
}

/// The launcher itself comes or goes.
bool TellLauncher(const char* szRegisterOption, const Options& options,
                  const std::string& strPort) {
    return example::TellBroker(szRegisterOption, "__BROKER_CMD_NOTIFY_REGISTEREMP_SERVER",
                               options.strLauncher, strPort) == "Done";
}

bool Register(const Options& options, const std::string& strPort) {
    if (!TellLauncher(kRegister, options, strPort)) return false;
    for (const std::string& strEmp : options.emps) {
        if (example::TellBroker("", "__BROKER_CMD_NOTIFY_REGISTER_EMP", strEmp, strPort) != "Done")
            return false;
    }
    return true;
}

bool Unregister(const Options& options, const std::string& strPort) {
    for (const std::string& strEmp : options.emps)
        example::TellBroker("", "__BROKER_CMD_NOTIFY_UNREGISTER_EMP", strEmp, strPort);
    return TellLauncher(kUnregister, options, strPort);
}

bool Run(const Options& options, const sigset_t& setStop) {
    const auto spHost =
        std::make_shared<example::CHost>(options.strOption, example::kInRegisterLauncher);
    const example::CServer launcher(std::make_shared<vok::VOKEmpLauncherProcessor>(spHost));
    if (!Register(options, launcher.Port())) {
        std::fprintf(stderr, "%s: the broker refuses\n", options.strLauncher.c_str());
        return false;
    }
    std::printf("serving %s port=%s\n", options.strLauncher.c_str(), launcher.Port().c_str());
    std::fflush(stdout);

    example::AwaitStop(setStop);
    return Unregister(options, launcher.Port());
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = Parse(argc, argv);
    const sigset_t setStop = example::BlockStopSignals();
    try {
        return Run(options, setStop) ? EXIT_SUCCESS : EXIT_FAILURE;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: %s\n", options.strLauncher.c_str(), error.what());
        return EXIT_FAILURE;
    }
}
