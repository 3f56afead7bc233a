/// What the command line asks for.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace vok::ctl {

enum class eCommand {
    Open,
    Close,
    Call,
    Version,
    Execute,
    LauncherRegister,
    LauncherUnregister,
    LauncherAddEmp,
    LauncherRemoveEmp,
    Status,
    List,
    Show,
    Where,
    Blame,
    Watch,
    Doctor,
    DebugLevel,
    Ping,
    Sweep,
    CloseAll,
};

/// Of each command only its own members count; docs/VOKCTL.md says which.
struct Options {
    eCommand command = eCommand::Status;
    bool bJson = false;
    std::optional<std::chrono::milliseconds> timeout;

    std::string strName;  // of an EMP, launcher or application
    std::string strPort;  // of an EMP's server, or a launcher's
    std::string strClientPort;
    std::string strVersion = "1.0";
    std::string strApp = "vokctl";
    bool bHold = false;
    bool bUntilEof = false;
    bool bForce = false;

    std::string strCmd;
    std::string strArg1;
    std::vector<std::string> arguments;
    bool bAsList = false;

    std::string strWidget;
    int nLevel = 0;
    bool bEnable = false;
    bool bNames = false;
    std::chrono::milliseconds interval{1000};
    int nFrames = 0;  // 0: until the end
    std::string strSvg;
    int nMost = 0;  // 0: all
};

/// Options, or what to say instead of doing anything, and the exit status for it: 0 for help.
struct ParseResult {
    std::optional<Options> options;
    int nExit = 0;
    std::string strText;
};

ParseResult ParseCommandLine(int nArguments, const char* const* pArguments);

}  // namespace vok::ctl
