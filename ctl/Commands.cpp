#include "ctl/Commands.h"

namespace vok::ctl {

namespace {

struct Entry {
    eCommand command;
    int (*pRun)(const Options& options, COutput& output);
};

constexpr Entry kTable[] = {
    {eCommand::Open, &RunOpen},
    {eCommand::Close, &RunClose},
    {eCommand::Call, &RunCall},
    {eCommand::Version, &RunVersion},
    {eCommand::Execute, &RunExecute},
    {eCommand::LauncherRegister, &RunLauncher},
    {eCommand::LauncherUnregister, &RunLauncher},
    {eCommand::LauncherAddEmp, &RunLauncher},
    {eCommand::LauncherRemoveEmp, &RunLauncher},
    {eCommand::Status, &RunStatus},
    {eCommand::List, &RunList},
    {eCommand::Show, &RunShow},
    {eCommand::Where, &RunWhere},
    {eCommand::Blame, &RunBlame},
    {eCommand::Watch, &RunWatch},
    {eCommand::Doctor, &RunDoctor},
    {eCommand::DebugLevel, &RunDebugLevel},
    {eCommand::Ping, &RunPing},
    {eCommand::Sweep, &RunSweep},
    {eCommand::CloseAll, &RunCloseAll},
};

}  // namespace

int RunCommand(const Options& options, COutput& output) {
    for (const Entry& entry : kTable) {
        if (entry.command == options.command) return entry.pRun(options, output);
    }
    return 1;  // no command without an entry: the tests see to it
}

}  // namespace vok::ctl
