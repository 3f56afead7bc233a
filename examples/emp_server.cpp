// A complete EMP with a process of its own, to copy from, together with emp.h.
//
// The broker starts this program when a client opens the EMP and none is running. From then on:
//
//   1. listen on a free port of the loopback interface;
//   2. report that port to the broker, with the serial that the program was started with; the
//      client's open waits for this report, 10 seconds at most;
//   3. serve the clients, which connect directly;
//   4. when the last client has left, report the stop to the broker, which answers with SIGTERM
//      and unmounts the EMP's image once the process has ended.
//
// The program is started with the descriptors 0 to 2 and these arguments:
//
//   argv[0]  name of the EMP                argv[3]  port of the client's callback server
//   argv[1]  "-DSINGLE_PROCESS"             argv[4]  "0"
//   argv[2]  serial of the start ticket     argv[5]  name of the grouping process, or empty
//
// Its environment is LD_LIBRARY_PATH, GST_REGISTRY and GST_REGISTRY_1_0; nothing else, so no PATH,
// no HOME and no locale.
#include <cstdio>
#include <cstdlib>

#include "emp.h"

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "This is an EMP: the broker starts it when a client opens it.\n");
        return EXIT_FAILURE;
    }
    const sigset_t setStop = example::BlockStopSignals();
    try {
        const example::CEmpServer emp(argv[0], "0001", example::kOwnProcess);
        if (!emp.ReportStart(argv[2])) return EXIT_FAILURE;
        example::AwaitStop(setStop);
        return EXIT_SUCCESS;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: no server: %s\n", argv[0], error.what());
        return EXIT_FAILURE;
    }
}
