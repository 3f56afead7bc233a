// vokctl: asks a broker, and looks after it.
#include <thrift/Thrift.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <exception>
#include <string>

#include "ctl/CommandLine.h"
#include "ctl/Commands.h"
#include "ctl/Failure.h"
#include "ctl/Output.h"

namespace {

using namespace vok::ctl;

/// One line, whatever peers have put into it.
void Complain(const std::string& strText, bool bUtf8) {
    if (strText.empty()) return;
    const std::string strLine = "vokctl: " + Printable(strText, bUtf8) + '\n';
    (void)!::write(STDERR_FILENO, strLine.data(), strLine.size());  // nobody else to tell
}

int Run(int nArguments, char** pArguments, COutput& output) {
    const ParseResult parsed = ParseCommandLine(nArguments, pArguments);
    if (!parsed.options) {
        if (parsed.nExit != EXIT_DONE)
            Complain(parsed.strText, output.GetStyle().bUtf8);
        else
            output.Add(parsed.strText);
        output.Flush();
        return parsed.nExit;
    }
    const int nExit = RunCommand(*parsed.options, output);
    output.Flush();
    return nExit;
}

}  // namespace

int main(int argc, char** argv) {
    FillStandardDescriptors();
    (void)std::signal(SIGPIPE,
                      SIG_IGN);  // a peer, or a reader, that has gone is an error of the call
    apache::thrift::GlobalOutput.setOutputFunction(
        [](const char*) {});  // errors are told once, by us
    COutput output{DetectStyle()};
    try {
        return Run(argc, argv, output);
    } catch (const CFailure& failure) {
        Complain(failure.what(), output.GetStyle().bUtf8);
        return failure.Exit();
    } catch (const std::exception& error) {
        Complain(error.what(), output.GetStyle().bUtf8);
        return EXIT_FAILED;
    }
}
