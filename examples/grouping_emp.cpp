// A grouping process, to copy from, together with emp.h: one process that hosts several EMPs.
//
// The broker knows which EMPs a grouping process G hosts from its configuration file, which it
// reads when it starts: empG.xml in the folder empG below /usr/bin/emps or /opt/down/emps.
//
//   <Emp>
//     <Version>1.0</Version>
//     <GroupingEmps><Name>First</Name><Name>Second</Name></GroupingEmps>
//   </Emp>
//
// It starts this program, empG beside that file or in the image of G, when a client opens one of
// those EMPs and the process does not run. From then on:
//
//   1. serve VOKEmpLauncher on a free port of the loopback interface, and report that port to the
//      broker as that of G: later opens of any of the EMPs come there, with their serials;
//   2. start the server of the EMP that was opened, and report it as every EMP does: the client's
//      open waits for that, 10 seconds at most;
//   3. when the last client of an EMP has left, report the stop of that EMP. The broker forgets the
//      EMP. When G came as an image and was the last that any client held, it also ends the
//      process with SIGTERM and unmounts the image; else the process stays for the next open.
//
// The program is started with the descriptors 0 to 2 and these arguments:
//
//   argv[0]  name of the EMP to open        argv[3]  port of the client's callback server
//   argv[1]  "-DSINGLE_PROCESS"             argv[4]  "0"
//   argv[2]  serial of the start ticket     argv[5]  name of the grouping process
#include <cstdio>
#include <cstdlib>

#include "emp.h"

namespace {

int Run(const std::string& strEmp, const std::string& strSerial, const std::string& strGroup,
        const sigset_t& setStop) {
    const auto spHost = std::make_shared<example::CHost>("0001", example::kInGroupingProcess);
    const example::CServer launcher(std::make_shared<vok::VOKEmpLauncherProcessor>(spHost));
    // First: when the client's open has returned, the broker knows where the next one goes.
    example::TellBroker("", "__BROKER_CMD_NOTIFY_GROUPINGEMP_SERVER", strGroup, launcher.Port());
    if (!spHost->Start(strEmp, strSerial)) return EXIT_FAILURE;

    example::AwaitStop(setStop);
    return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 6) {
        std::fprintf(stderr, "This is a grouping process: the broker starts it.\n");
        return EXIT_FAILURE;
    }
    const sigset_t setStop = example::BlockStopSignals();
    try {
        return Run(argv[0], argv[2], argv[5], setStop);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: %s\n", argv[5], error.what());
        return EXIT_FAILURE;
    }
}
