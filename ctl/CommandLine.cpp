#include "ctl/CommandLine.h"

#include <CLI/CLI.hpp>

#include <cmath>
#include <cstdint>
#include <utility>

#include "ctl/Failure.h"
#include "ctl/Version.h"
#include "platform/Limits.h"

namespace vok::ctl {

namespace {

constexpr char kDescription[] =
    "Asks a vok-broker: opens EMPs through it, tells what it knows, and where time went.";

constexpr char kFooter[] =
    "Options of all commands may stand before or after the command; those of \"call\" and "
    "\"execute\"\n"
    "stand before what is passed on. Whatever begins with a dash goes after \"--\".\n"
    "\n"
    "Exit status: 0 done, 1 refused or failed, 2 wrong usage, 3 no broker serves, 4 takes root,\n"
    "5 no answer in time (5 s for a call, 25 s for an open, unless --timeout says otherwise).\n"
    "\n"
    "\"vokctl COMMAND --help\" tells more. See also vokctl(1) and docs/VOKCTL.md.";

constexpr char kHint[] = " (vokctl --help tells what there is)";

constexpr double kLongestSeconds = 86'400;
constexpr int kMostExecuteArguments = 4;

std::chrono::milliseconds Milliseconds(double dSeconds) {
    return std::chrono::milliseconds(std::llround(std::ceil(dSeconds * 1000)));
}

/// The commands and their options. CLI11 keeps pointers to what it fills: nothing here moves.
class CParser {
public:
    CParser();
    CParser(const CParser&) = delete;
    CParser& operator=(const CParser&) = delete;

    ParseResult Parse(int nArguments, const char* const* pArguments);

private:
    CLI::App* Add(CLI::App& parent, const char* szName, const char* szText, eCommand command);
    void AddClientCommands();
    void AddCall();
    void AddExecute();
    void AddLauncher();
    void AddViews();
    void AddBlame();
    void AddWatch();
    void AddAdminCommands();

    CLI::App m_App{kDescription, "vokctl"};
    const char* m_szGroup = "";  // of the commands that are added, in the help
    Options m_Options;
    double m_dTimeout = 0;
    double m_dInterval = 1;
    std::string m_strSwitch;
};

CParser::CParser() {
    m_App.footer(kFooter);
    m_App.require_subcommand(1);
    m_App.get_formatter()->label("SUBCOMMAND", "COMMAND");
    m_App.get_formatter()->label("REQUIRED", "");
    m_App.get_formatter()->label("TEXT", "");
    m_App.set_version_flag("--version", std::string("vokctl ") + kVersion,
                           "Print vokctl's own version and exit");
    m_App.add_flag("--json", m_Options.bJson, "Print JSON");
    m_App.add_option("--timeout", m_dTimeout, "How long to wait for each answer, in seconds")
        ->check(CLI::Range(0.001, kLongestSeconds).description(""))
        ->type_name("SECONDS");
    m_szGroup = "What there is";
    AddViews();
    AddBlame();
    AddWatch();
    m_szGroup = "As a client";
    AddClientCommands();
    AddCall();
    m_szGroup = "As a launcher, or anybody";
    AddExecute();
    AddLauncher();
    m_szGroup = "Looking after it, as root";
    AddAdminCommands();
}

CLI::App* CParser::Add(CLI::App& parent, const char* szName, const char* szText, eCommand command) {
    CLI::App* const pCommand = parent.add_subcommand(szName, szText);
    pCommand->fallthrough();
    pCommand->group(m_szGroup);
    pCommand->footer(
        "\"vokctl --help\" tells of the options of all commands, and the exit statuses.");
    pCommand->callback([this, command] { m_Options.command = command; });
    return pCommand;
}

void CParser::AddClientCommands() {
    CLI::App* pOpen =
        Add(m_App, "open", "Open an EMP, tell where it serves, and close it again", eCommand::Open);
    pOpen->add_option("NAME", m_Options.strName, "The EMP")->required();
    pOpen->add_option("--version", m_Options.strVersion, "The version to ask for")
        ->capture_default_str();
    pOpen->add_option("--app", m_Options.strApp, "The application that opens it")
        ->capture_default_str();
    CLI::Option* const pHold = pOpen->add_flag(
        "--hold", m_Options.bHold, "Keep it open and print its events, until Ctrl-C or SIGTERM");
    pOpen->add_flag("--until-eof", m_Options.bUntilEof, "With --hold: end when the input ends, too")
        ->needs(pHold);

    CLI::App* pClose =
        Add(m_App, "close", "Close a connection that \"list\" shows", eCommand::Close);
    pClose->add_option("NAME", m_Options.strName, "The EMP")->required();
    pClose->add_option("PORT", m_Options.strPort, "Where the EMP serves")->required();
    pClose->add_option("CLIENTPORT", m_Options.strClientPort, "Its client's address")->required();

    (void)Add(m_App, "version", "Tell the broker's version, and vokctl's", eCommand::Version);
}

void CParser::AddCall() {
    CLI::App* pCall =
        Add(m_App, "call", "Open an EMP, send it one command, and close it again", eCommand::Call);
    pCall->positionals_at_end();
    pCall->add_option("NAME", m_Options.strName, "The EMP")->required();
    pCall->add_option("CMD", m_Options.strCmd, "The command word")->required();
    pCall->add_option("ARGS", m_Options.arguments,
                      "Its arguments; more than four travel as a list");
    pCall->add_flag("--list", m_Options.bAsList, "Send the arguments as a list in any case");
    pCall->add_option("--version", m_Options.strVersion, "The version to ask for")
        ->capture_default_str();
    pCall->add_option("--app", m_Options.strApp, "The application that opens it")
        ->capture_default_str();
}

void CParser::AddExecute() {
    CLI::App* pExecute =
        Add(m_App, "execute", "Send the broker itself a command", eCommand::Execute);
    pExecute->positionals_at_end();
    pExecute->add_option("CMD", m_Options.strCmd, "The command word")->required();
    pExecute->add_option("ARGS", m_Options.arguments, "The arguments after the command word")
        ->expected(0, kMostExecuteArguments);
    pExecute->add_option("--arg1", m_Options.strArg1, "The argument before the command word");
}

void CParser::AddLauncher() {
    CLI::App* const pLauncher =
        m_App.add_subcommand("launcher", "Register launchers and their EMPs");
    pLauncher->require_subcommand(1);
    pLauncher->group(m_szGroup);
    pLauncher->footer("");
    pLauncher->fallthrough();
    m_szGroup = "Commands";
    const auto addCommand = [&](const char* szName, const char* szText, eCommand command,
                                const char* szWhat) {
        CLI::App* const pCommand = Add(*pLauncher, szName, szText, command);
        pCommand->add_option("NAME", m_Options.strName, szWhat)->required();
        pCommand->add_option("PORT", m_Options.strPort, "The launcher's port")->required();
    };
    addCommand("register", "Add a launcher; one of that name is replaced",
               eCommand::LauncherRegister, "The launcher");
    addCommand("unregister", "Close all connections of a launcher's EMPs, and forget it",
               eCommand::LauncherUnregister, "The launcher");
    addCommand("add-emp", "Let a launcher serve one more EMP", eCommand::LauncherAddEmp, "The EMP");
    addCommand("remove-emp", "Let a launcher no longer serve an EMP", eCommand::LauncherRemoveEmp,
               "The EMP");
}

void CParser::AddViews() {
    (void)Add(m_App, "status", "What the broker knows, on one screen", eCommand::Status);
    Add(m_App, "list", "EMPs and who is connected to them", eCommand::List)
        ->add_flag("--names", m_Options.bNames,
                   "Only the names of the EMPs, installed ones too; works without a broker");
    Add(m_App, "show", "All about one EMP that the broker knows", eCommand::Show)
        ->add_option("NAME", m_Options.strName, "The EMP")
        ->required();
    Add(m_App, "where", "Where an EMP lives, why, and what serves it now", eCommand::Where)
        ->add_option("NAME", m_Options.strName, "The EMP, known or not")
        ->required();
    (void)Add(m_App, "doctor", "Look for what keeps a broker from serving; works without one",
              eCommand::Doctor);
}

void CParser::AddBlame() {
    CLI::App* pBlame =
        Add(m_App, "blame", "Where the time of the last opens went", eCommand::Blame);
    pBlame->add_option("NAME", m_Options.strName, "Opens of this EMP only");
    pBlame->add_option("--most", m_Options.nMost, "Show no more than the N longest")
        ->check(CLI::PositiveNumber)
        ->type_name("N");
    pBlame->add_option("--svg", m_Options.strSvg, "Draw them into a file")->type_name("FILE");
}

void CParser::AddWatch() {
    CLI::App* pWatch =
        Add(m_App, "watch", "Status, refreshed in place until Ctrl-C", eCommand::Watch);
    pWatch->add_option("--interval", m_dInterval, "Seconds from one look to the next")
        ->check(CLI::Range(0.05, kLongestSeconds).description(""))
        ->capture_default_str()
        ->type_name("SECONDS");
    pWatch->add_option("--count", m_Options.nFrames, "End after N looks")
        ->check(CLI::PositiveNumber)
        ->type_name("N");
}

void CParser::AddAdminCommands() {
    Add(m_App, "debug-level", "Set how much the broker, EMPs and clients log", eCommand::DebugLevel)
        ->add_option("LEVEL", m_Options.nLevel, "0 errors to 4 every step")
        ->check(CLI::Range(0, UINT16_MAX))
        ->required();
    Add(m_App, "ping", "Switch the pinging of EMPs on or off", eCommand::Ping)
        ->add_option("SWITCH", m_strSwitch, "on or off")
        ->check(CLI::IsMember({"on", "off"}))
        ->required();
    (void)Add(m_App, "sweep", "Close the connections of clients that no longer answer",
              eCommand::Sweep);
    CLI::App* pCloseAll =
        Add(m_App, "close-all", "Close every connection of an application", eCommand::CloseAll);
    pCloseAll->add_option("APP", m_Options.strName, "The application's id")->required();
    pCloseAll->add_option("WIDGET", m_Options.strWidget, "Its widget's id");
}

/// CLI11 takes "[a,b]" for a list of texts, which it is not here: such an argument travels behind a
/// character that nobody types.
constexpr char kNoList = '\x1f';

/// What CLI11 gets, in the order in which it wants it: the last one first.
std::vector<std::string> Disguise(int nArguments, const char* const* pArguments) {
    std::vector<std::string> arguments;
    for (int n = nArguments - 1; n > 0; --n) {
        arguments.emplace_back(pArguments[n]);
        if (pArguments[n][0] == '[') arguments.back().insert(0, 1, kNoList);
    }
    return arguments;
}

void Undisguise(std::string& strText) {
    if (!strText.empty() && strText.front() == kNoList) strText.erase(0, 1);
}

void Undisguise(Options& options) {
    for (std::string* const pText :
         {&options.strName, &options.strPort, &options.strClientPort, &options.strVersion,
          &options.strApp, &options.strCmd, &options.strArg1, &options.strWidget, &options.strSvg})
        Undisguise(*pText);
    for (std::string& strArgument : options.arguments) Undisguise(strArgument);
}

/// CLI11 takes its time-outs and switches as it can; here they get their types.
ParseResult CParser::Parse(int nArguments, const char* const* pArguments) {
    ParseResult result;
    try {
        m_App.parse(Disguise(nArguments, pArguments));
    } catch (const CLI::CallForVersion& version) {
        result.strText = std::string(version.what()) + '\n';
        return result;
    } catch (const CLI::CallForHelp&) {
        result.strText = m_App.help() + '\n';
        return result;
    } catch (const CLI::RequiredError& error) {
        result.nExit = EXIT_USAGE;
        // The library's word for what everybody else calls a command.
        result.strText = std::string(error.what()).find("subcommand") != std::string::npos
                             ? std::string("which command?")
                             : error.what();
        result.strText += kHint;
        return result;
    } catch (const CLI::ParseError& error) {
        result.nExit = EXIT_USAGE;
        result.strText = error.what() + std::string(kHint);
        return result;
    }
    if (m_dTimeout > 0) m_Options.timeout = Milliseconds(m_dTimeout);
    m_Options.interval = Milliseconds(m_dInterval);
    m_Options.bEnable = m_strSwitch == "on";
    Undisguise(m_Options);
    result.options = std::move(m_Options);
    return result;
}

}  // namespace

ParseResult ParseCommandLine(int nArguments, const char* const* pArguments) {
    return CParser{}.Parse(nArguments, pArguments);
}

}  // namespace vok::ctl
