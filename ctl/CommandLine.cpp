#include "ctl/CommandLine.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <limits>
#include <utility>
#include <vector>

#include "ctl/Failure.h"
#include "ctl/Version.h"
#include "platform/Limits.h"

namespace vok::ctl {

namespace {

constexpr char kDescription[] =
    "Asks a vok-broker: opens EMPs through it, tells what it knows, and where time went.";

constexpr char kFooter[] =
    "Options of all commands may stand before or after the command. Of \"call\" and \"execute\" "
    "they stand\n"
    "before CMD: what follows it is passed on as it is. Elsewhere, what begins with a dash and is "
    "no\n"
    "option goes after \"--\".\n"
    "\n"
    "Exit status: 0 done, 1 refused or failed, 2 wrong usage, 3 no broker serves, 4 takes root,\n"
    "5 no answer in time (5 s for a call, 25 s for an open, unless --timeout says otherwise).\n"
    "\n"
    "\"vokctl COMMAND --help\" tells more. See also vokctl(1).";

/// As peers write it: a number of 1 to 65535, and nothing else.
std::string TroubleOfPort(const std::string& strPort) {
    const bool bNumber = !strPort.empty() && strPort.size() <= 5 && strPort.front() != '0' &&
                         strPort.find_first_not_of("0123456789") == std::string::npos;
    if (bNumber && std::stoi(strPort) <= UINT16_MAX) return {};
    return "a port is a number of 1 to 65535, not \"" + strPort + '"';
}

constexpr double kLongestSeconds = 86'400;
constexpr int kMostExecuteArguments = 4;

std::chrono::milliseconds Milliseconds(double dSeconds) {
    return std::chrono::milliseconds(std::llround(std::ceil(dSeconds * 1000)));
}

// ---- What values must be ----

CLI::Validator NotEmpty() {
    return {[](const std::string& strValue) {
                return strValue.empty() ? std::string("may not be empty") : std::string();
            },
            ""};
}

CLI::Validator AtLeastOne() {
    return {[](const std::string& strValue) {
                const char* const pEnd = strValue.data() + strValue.size();
                int nValue = 0;
                const auto result = std::from_chars(strValue.data(), pEnd, nValue);
                // The library would take 010 for eight.
                const bool bDecimal = !strValue.empty() && strValue.front() != '0';
                if (bDecimal && result.ec == std::errc() && result.ptr == pEnd && nValue >= 1)
                    return std::string();
                return strValue + " is no number from 1 to " +
                       std::to_string(std::numeric_limits<int>::max());
            },
            ""};
}

// ---- Help and complaints ----

/// Of an option its name and what it takes, of a positional its name.
class CHelpFormatter : public CLI::Formatter {
public:
    std::string make_option_opts(const CLI::Option* pOption) const override {
        if (pOption->get_positional() || pOption->get_type_size() == 0) return {};
        return ' ' + pOption->get_type_name();
    }
    std::string make_option_usage(const CLI::Option* pOption) const override {
        std::string strUsage = make_option_name(pOption, true);
        if (pOption->get_expected_max() > 1) strUsage += "...";
        return pOption->get_required() ? strUsage : '[' + strUsage + ']';
    }
};

/// How many letters have to be changed, added, left out or swapped with their neighbour.
int EditDistance(const std::string& strLeft, const std::string& strRight) {
    std::vector<std::vector<int>> costs(strLeft.size() + 1,
                                        std::vector<int>(strRight.size() + 1, 0));
    for (std::size_t i = 0; i <= strLeft.size(); ++i) costs[i][0] = static_cast<int>(i);
    for (std::size_t j = 0; j <= strRight.size(); ++j) costs[0][j] = static_cast<int>(j);
    for (std::size_t i = 1; i <= strLeft.size(); ++i) {
        for (std::size_t j = 1; j <= strRight.size(); ++j) {
            const int nChange = strLeft[i - 1] == strRight[j - 1] ? 0 : 1;
            costs[i][j] =
                std::min({costs[i - 1][j] + 1, costs[i][j - 1] + 1, costs[i - 1][j - 1] + nChange});
            if (i > 1 && j > 1 && strLeft[i - 1] == strRight[j - 2] &&
                strLeft[i - 2] == strRight[j - 1])
                costs[i][j] = std::min(costs[i][j], costs[i - 2][j - 2] + 1);
        }
    }
    return costs.back().back();
}

/// The command that may have been meant; empty when none is near.
std::string NearestCommand(const CLI::App& app, const std::string& strWord) {
    constexpr std::size_t kLongWord = 5;
    std::string strNearest;
    int nLeast = strWord.size() < kLongWord ? 2 : 3;  // what is as far is another word
    for (const CLI::App* const pCommand : app.get_subcommands(nullptr)) {
        const int nDistance = EditDistance(strWord, pCommand->get_name());
        if (nDistance >= nLeast) continue;
        nLeast = nDistance;
        strNearest = pCommand->get_name();
    }
    return strNearest;
}

/// "vokctl launcher register".
std::string Path(const CLI::App& app) {
    if (app.get_parent() == nullptr) return app.get_name();
    return Path(*app.get_parent()) + ' ' + app.get_name();
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
    void AddOpening(CLI::App& command);
    void AddCall();
    void AddExecute();
    void AddLauncher();
    void AddViews();
    void AddBlame();
    void AddWatch();
    void AddAdminCommands();
    int CountOwn(int nArguments, const char* const* pArguments) const;
    bool TakesValue(const CLI::App& command, const std::string& strOption) const;
    const CLI::App& Deepest() const;
    std::string WhichCommand() const;
    ParseResult WrongUsage(const std::string& strText) const;

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
    m_App.formatter(std::make_shared<CHelpFormatter>());
    m_App.get_formatter()->label("SUBCOMMAND", "COMMAND");
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
    pOpen->add_option("NAME", m_Options.strName, "The EMP")->required()->check(NotEmpty());
    AddOpening(*pOpen);
    CLI::Option* const pHold = pOpen->add_flag(
        "--hold", m_Options.bHold, "Keep it open and print its events, until Ctrl-C or SIGTERM");
    pOpen->add_flag("--until-eof", m_Options.bUntilEof, "With --hold: end when the input ends, too")
        ->needs(pHold);

    CLI::App* pClose =
        Add(m_App, "close", "Close a connection that \"list\" shows", eCommand::Close);
    pClose->add_option("NAME", m_Options.strName, "The EMP")->required()->check(NotEmpty());
    pClose->add_option("PORT", m_Options.strPort, "Where the EMP serves")
        ->required()
        ->check(NotEmpty());
    pClose->add_option("CLIENTPORT", m_Options.strClientPort, "Its client's address")->required();
    pClose->add_flag("--force", m_Options.bForce,
                     "Close it without looking whether there is such a connection");

    (void)Add(m_App, "version", "Tell the broker's version, and vokctl's", eCommand::Version);
}

void CParser::AddOpening(CLI::App& command) {
    command
        .add_option("--version", m_Options.strVersion,
                    "The version to ask for; " + m_Options.strVersion + " unless said")
        ->check(NotEmpty())
        ->type_name("V");
    command
        .add_option("--app", m_Options.strApp,
                    "The application that opens it; " + m_Options.strApp + " unless said")
        ->check(NotEmpty())
        ->type_name("INFO");
}

void CParser::AddCall() {
    CLI::App* pCall =
        Add(m_App, "call", "Open an EMP, send it one command, and close it again", eCommand::Call);
    pCall->add_option("NAME", m_Options.strName, "The EMP")->required()->check(NotEmpty());
    pCall->add_option("CMD", m_Options.strCmd, "The command word")->required()->check(NotEmpty());
    pCall->add_option("ARGS", m_Options.arguments,
                      "Its arguments, as they are; more than four travel as a list");
    pCall->add_flag("--list", m_Options.bAsList, "Send the arguments as a list in any case");
    AddOpening(*pCall);
}

void CParser::AddExecute() {
    CLI::App* pExecute =
        Add(m_App, "execute", "Send the broker itself a command", eCommand::Execute);
    pExecute->add_option("CMD", m_Options.strCmd, "The command word")
        ->required()
        ->check(NotEmpty());
    pExecute
        ->add_option("ARGS", m_Options.arguments,
                     "Up to four arguments after the command word, as they are")
        ->expected(0, kMostExecuteArguments);
    pExecute->add_option("--arg1", m_Options.strArg1, "The argument before the command word")
        ->type_name("ARG");
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
        pCommand->add_option("NAME", m_Options.strName, szWhat)->required()->check(NotEmpty());
        // One that was registered without this tool may have any text for a port.
        CLI::Option* const pPort =
            pCommand->add_option("PORT", m_Options.strPort, "The launcher's port")
                ->required()
                ->check(NotEmpty());
        if (command == eCommand::LauncherRegister) pPort->check(&TroubleOfPort);
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
    Add(m_App, "show", "All about one EMP, grouping process or launcher", eCommand::Show)
        ->add_option("NAME", m_Options.strName, "The EMP")
        ->required()
        ->check(NotEmpty());
    Add(m_App, "where", "Where an EMP lives, why, and what serves it now", eCommand::Where)
        ->add_option("NAME", m_Options.strName, "The EMP, known or not")
        ->required()
        ->check(NotEmpty());
    (void)Add(m_App, "doctor", "Look for what keeps a broker from serving; works without one",
              eCommand::Doctor);
}

void CParser::AddBlame() {
    CLI::App* pBlame =
        Add(m_App, "blame", "Where the time of the last opens went", eCommand::Blame);
    pBlame->add_option("NAME", m_Options.strName, "Opens of this EMP only")->check(NotEmpty());
    pBlame->add_option("--most", m_Options.nMost, "Show no more than the N longest")
        ->check(AtLeastOne())
        ->type_name("N");
    pBlame->add_option("--svg", m_Options.strSvg, "Draw them into a file; -: the standard output")
        ->check(NotEmpty())
        ->type_name("FILE");
}

void CParser::AddWatch() {
    CLI::App* pWatch =
        Add(m_App, "watch", "Status, refreshed in place until Ctrl-C", eCommand::Watch);
    pWatch->add_option("--interval", m_dInterval, "From one look to the next; 1 unless said")
        ->check(CLI::Range(0.05, kLongestSeconds).description(""))
        ->type_name("SECONDS");
    pWatch->add_option("--count", m_Options.nFrames, "End after N looks")
        ->check(AtLeastOne())
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
    pCloseAll->add_option("APP", m_Options.strName, "The application's id")
        ->required()
        ->check(NotEmpty());
    pCloseAll->add_option("WIDGET", m_Options.strWidget, "Its widget's id");
}

/// How many of a command's names come before what it passes on; 0: it passes nothing on.
int NamesBeforeRest(const std::string& strCommand) {
    if (strCommand == "call") return 2;
    return strCommand == "execute" ? 1 : 0;
}

bool CParser::TakesValue(const CLI::App& command, const std::string& strOption) const {
    const CLI::Option* pOption = command.get_option_no_throw(strOption);
    if (pOption == nullptr) pOption = m_App.get_option_no_throw(strOption);
    return pOption != nullptr && pOption->get_items_expected_min() > 0;
}

/// How many arguments are vokctl's own: the rest is passed on, whatever it looks like.
int CParser::CountOwn(int nArguments, const char* const* pArguments) const {
    const CLI::App* pCommand = nullptr;
    int nNames = 0;
    bool bOptions = true;
    for (int i = 1; i < nArguments; ++i) {
        const std::string strArgument = pArguments[i];
        if (bOptions && strArgument == "--") {
            bOptions = false;
        } else if (bOptions && strArgument.rfind("--", 0) == 0) {
            if (TakesValue(pCommand == nullptr ? m_App : *pCommand, strArgument)) ++i;
        } else if (bOptions && strArgument == "-h") {
            continue;
        } else if (pCommand == nullptr) {
            if (NamesBeforeRest(strArgument) == 0) return nArguments;
            pCommand = m_App.get_subcommand(strArgument);
        } else if (++nNames == NamesBeforeRest(pCommand->get_name())) {
            return i + 1;
        }
    }
    return nArguments;
}

/// CLI11 takes "[a,b]" for a list of texts, and what begins with a dash for an option. What is
/// neither here travels behind a character that nobody types.
constexpr char kAsItIs = '\x1f';

/// What CLI11 gets, in the order in which it wants it: the last one first.
std::vector<std::string> Disguise(int nArguments, const char* const* pArguments, int nOwn) {
    std::vector<std::string> arguments;
    for (int n = nArguments - 1; n > 0; --n) {
        arguments.emplace_back(pArguments[n]);
        if (n >= nOwn || pArguments[n][0] == '[') arguments.back().insert(0, 1, kAsItIs);
    }
    return arguments;
}

void Undisguise(std::string& strText) {
    if (!strText.empty() && strText.front() == kAsItIs) strText.erase(0, 1);
}

void Undisguise(Options& options) {
    for (std::string* const pText :
         {&options.strName, &options.strPort, &options.strClientPort, &options.strVersion,
          &options.strApp, &options.strCmd, &options.strArg1, &options.strWidget, &options.strSvg})
        Undisguise(*pText);
    for (std::string& strArgument : options.arguments) Undisguise(strArgument);
}

/// The command that has been recognized so far, or vokctl itself.
const CLI::App& CParser::Deepest() const {
    const CLI::App* pApp = &m_App;
    while (!pApp->get_subcommands().empty()) pApp = pApp->get_subcommands().back();
    return *pApp;
}

/// What to say where a command is missing: CLI11 tells of that before it tells of words that it
/// does not know.
std::string CParser::WhichCommand() const {
    const std::vector<std::string> words = m_App.remaining(true);
    if (words.empty() || words.front() == "--") return "which command?";
    if (words.front().rfind('-', 0) == 0) return "there is no option \"" + words.front() + '"';
    const std::string strNearest = NearestCommand(Deepest(), words.front());
    return "there is no command \"" + words.front() + '"' +
           (strNearest.empty() ? "" : ": did you mean \"" + strNearest + "\"?");
}

ParseResult CParser::WrongUsage(const std::string& strText) const {
    const bool bCommand = &Deepest() != &m_App;
    ParseResult result;
    result.nExit = EXIT_USAGE;
    result.strText = strText + " (" + Path(Deepest()) + " --help tells " +
                     (bCommand ? "more)" : "what there is)");
    const auto end =
        std::remove(result.strText.begin(), result.strText.end(), kAsItIs);  // not typed
    result.strText.erase(end, result.strText.end());
    return result;
}

/// CLI11 takes its time-outs and switches as it can; here they get their types.
ParseResult CParser::Parse(int nArguments, const char* const* pArguments) {
    ParseResult result;
    try {
        m_App.parse(Disguise(nArguments, pArguments, CountOwn(nArguments, pArguments)));
    } catch (const CLI::CallForVersion& version) {
        result.strText = std::string(version.what()) + '\n';
        return result;
    } catch (const CLI::CallForHelp&) {
        result.strText = m_App.help() + '\n';
        return result;
    } catch (const CLI::RequiredError& error) {
        // The library's word for what everybody else calls a command.
        const bool bCommand = std::string(error.what()).find("subcommand") != std::string::npos;
        return WrongUsage(bCommand ? WhichCommand() : error.what());
    } catch (const CLI::ParseError& error) {
        return WrongUsage(error.what());
    }
    if (m_Options.bJson && m_Options.strSvg == "-")
        return WrongUsage("--json and --svg - cannot both have the standard output");
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
