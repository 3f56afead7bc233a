// What is asked of the broker itself, on its port.
#include <array>

#include "ctl/BrokerClient.h"
#include "ctl/Commands.h"
#include "ctl/Failure.h"
#include "ctl/Table.h"
#include "ctl/Version.h"
#include "ctl/Waits.h"

namespace vok::ctl {

namespace {

constexpr char kDone[] = "Done";

/// One of the four things that can be told about launchers.
struct LauncherCommand {
    eCommand command;
    const char* szArg1;
    const char* szWord;
    const char* szDone;
    const char* szCure;
};

constexpr std::array<LauncherCommand, 4> kLauncherCommands{{
    {eCommand::LauncherRegister, "1", "__BROKER_CMD_NOTIFY_REGISTEREMP_SERVER",
     "registered the launcher ", "neither its name nor its port may be empty"},
    {eCommand::LauncherUnregister, "0", "__BROKER_CMD_NOTIFY_REGISTEREMP_SERVER",
     "unregistered the launcher ", "neither its name nor its port may be empty"},
    {eCommand::LauncherAddEmp, "", "__BROKER_CMD_NOTIFY_REGISTER_EMP", "added the EMP ",
     "no launcher has that port: \"vokctl status\" shows them, \"vokctl launcher register\" adds "
     "one"},
    {eCommand::LauncherRemoveEmp, "", "__BROKER_CMD_NOTIFY_UNREGISTER_EMP", "removed the EMP ",
     "the EMP is in use, or no launcher has that port: \"vokctl list\" shows who holds it"},
}};

/// Somebody at a terminal is told what the lack of an answer means; a script gets what there is.
std::string ExecuteText(const std::string& strAnswer, const Style& style) {
    if (!strAnswer.empty() || !style.bTerminal) return AnswerText(strAnswer, style);
    return Line({{"(an empty answer: that of a command that tells nothing, as of one that is "
                  "unknown or lacks an argument, which the broker logs)",
                  eColour::Faint}},
                style);
}

}  // namespace

int RunVersion(const Options& options, COutput& output) {
    const std::string strBroker = CBrokerClient{WaitFor(options)}.Version();
    if (options.bJson)
        output.AddDocument({{"broker", strBroker}, {"vokctl", kVersion}});
    else
        output.Add(
            Line("vok-broker " + strBroker + " (vokctl " + kVersion + ")", output.GetStyle()));
    return EXIT_DONE;
}

int RunExecute(const Options& options, COutput& output) {
    const std::string strAnswer =
        CBrokerClient{WaitFor(options)}.Execute(options.strArg1, options.strCmd, options.arguments);
    if (options.bJson)
        output.AddDocument({{"cmd", options.strCmd}, {"answer", strAnswer}});
    else
        output.Add(ExecuteText(strAnswer, output.GetStyle()));
    return EXIT_DONE;
}

int RunLauncher(const Options& options, COutput& output) {
    for (const LauncherCommand& command : kLauncherCommands) {
        if (command.command != options.command) continue;
        const std::string strAnswer = CBrokerClient{WaitFor(options)}.Execute(
            command.szArg1, command.szWord, {options.strName, options.strPort});
        if (strAnswer != kDone)
            throw CFailure(EXIT_FAILED, "the broker has not " + std::string(command.szDone) +
                                            options.strName + " at port " + options.strPort + ": " +
                                            command.szCure);
        if (options.bJson)
            output.AddDocument({{"answer", strAnswer}});
        else
            output.Add(Line(command.szDone + options.strName + " at port " + options.strPort,
                            output.GetStyle()));
        return EXIT_DONE;
    }
    return EXIT_USAGE;  // the parser lets no other command come here
}

}  // namespace vok::ctl
