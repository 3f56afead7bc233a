#include "ctl/Doctor.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "ctl/AdminClient.h"
#include "ctl/BrokerClient.h"
#include "ctl/Commands.h"
#include "ctl/Connection.h"
#include "ctl/Failure.h"
#include "ctl/InstalledEmps.h"
#include "ctl/Table.h"
#include "ctl/Waits.h"
#include "platform/CUniqueFd.h"
#include "platform/EmpPaths.h"
#include "platform/Limits.h"

namespace vok::ctl {

namespace {

/// As a broker would ask. The port is bound for a moment and never listened at, which does not keep
/// a broker that starts just now from it.
bool IsPortFree() {
    const CUniqueFd fd{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    const int nOn = 1;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(kBrokerPort);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return fd.IsOpen() && ::setsockopt(fd.Get(), SOL_SOCKET, SO_REUSEADDR, &nOn, sizeof nOn) == 0 &&
           ::bind(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

PortLook LookAtPort(std::chrono::milliseconds patience) {
    if (IsPortFree()) return {PortLook::Free};
    try {
        const std::string strVersion = CBrokerClient{{patience}}.Version();
        if (!strVersion.empty()) return {PortLook::Broker, strVersion};
    } catch (const CFailure& failure) {
        // With lo down, nobody who holds the port can be asked.
        if (failure.Exit() == EXIT_NO_BROKER)
            return {IsLoopbackUp() ? PortLook::Connection : PortLook::Silent};
        if (failure.Exit() == EXIT_NO_ANSWER) return {PortLook::Silent};
    }
    return {PortLook::Other};
}

AdminLook LookAtAdmin(std::chrono::milliseconds patience) {
    struct stat info {};
    if (::lstat(paths::kAdminSocket, &info) != 0) return {AdminLook::Missing};
    if (!S_ISSOCK(info.st_mode)) return {AdminLook::NoSocket};
    try {
        return {AdminLook::Served, CAdminClient{{patience}}.GetStateOfSocket().pid};
    } catch (const CCallError& error) {
        if (error.Trouble() == eTrouble::Forbidden) return {AdminLook::Forbidden};
        if (error.Trouble() == eTrouble::TimedOut) return {AdminLook::Silent};
        return {AdminLook::Refused};
    }
}

/// Of the same network: that of a container has a port of its own. Who may not look assumes so.
bool SharesNetwork(const std::string& strProc, const std::string& strPid) {
    std::array<char, 64> own{};
    std::array<char, 64> other{};
    const std::string strEnd = "/ns/net";
    return ::readlink((strProc + "self" + strEnd).c_str(), own.data(), own.size()) < 0 ||
           ::readlink((strProc + strPid + strEnd).c_str(), other.data(), other.size()) < 0 ||
           own == other;
}

/// A broker in its start holds no port yet, and one that hangs in it never will. A process that has
/// ended, and was not waited for, has no command line.
std::string FindBrokerProcess(const Patient& patient) {
    const std::string strProc = patient.strRoot + "/proc/";
    for (const std::string& strPid : SubFolders(strProc)) {
        if (strPid.find_first_not_of("0123456789") != std::string::npos) continue;
        if (ReadSmallFile(strProc + strPid + "/comm") != "vok-broker\n") continue;
        if (ReadSmallFile(strProc + strPid + "/cmdline").empty()) continue;
        if (SharesNetwork(strProc, strPid)) return strPid;
    }
    return {};
}

const char* LevelText(eFinding level) {
    switch (level) {
        case eFinding::Ok:
            return "ok";
        case eFinding::Warning:
            return "warning";
        case eFinding::Problem:
            return "problem";
    }
    return "";
}

eColour LevelColour(eFinding level) {
    switch (level) {
        case eFinding::Ok:
            return eColour::Green;
        case eFinding::Warning:
            return eColour::Yellow;
        case eFinding::Problem:
            return eColour::Red;
    }
    return eColour::None;
}

std::int64_t CountOf(const Findings& findings, eFinding level) {
    return std::count_if(findings.begin(), findings.end(),
                         [level](const Finding& finding) { return finding.level == level; });
}

Json ToJson(const Findings& findings) {
    Json list = Json::array();
    for (const Finding& finding : findings)
        list.push_back({{"level", LevelText(finding.level)},
                        {"check", finding.strCheck},
                        {"text", finding.strText},
                        {"cure", finding.strCure}});
    return {{"findings", std::move(list)},
            {"warnings", CountOf(findings, eFinding::Warning)},
            {"problems", CountOf(findings, eFinding::Problem)}};
}

}  // namespace

Patient ThisMachine(std::chrono::milliseconds patience) {
    Patient patient;
    patient.loopbackUp = &IsLoopbackUp;
    patient.port = [patience] { return LookAtPort(patience); };
    patient.admin = [patience] { return LookAtAdmin(patience); };
    utsname names{};
    if (::uname(&names) == 0) patient.strKernelRelease = names.release;
    return patient;
}

Findings Examine(const Patient& patient) {
    Findings findings;
    Looks looks;
    looks.port = patient.port();
    looks.admin = patient.admin();
    if (looks.port.holder == PortLook::Free) looks.strStarting = FindBrokerProcess(patient);
    CheckBroker(patient, looks, findings);
    CheckFiles(patient, looks, findings);
    CheckSystem(patient, looks, findings);
    return findings;
}

std::string DoctorReport(const Findings& findings, const Style& style) {
    // Not cut: what is left out could be the cure.
    Style whole = style;
    whole.nWidth = 0;
    CTable table{{{"RESULT"}, {"CHECK"}, {"WHAT IS THERE"}}};
    for (const Finding& finding : findings) {
        std::vector<Span> text{{finding.strText}};
        if (!finding.strCure.empty()) text.push_back({"; cure: " + finding.strCure, eColour::Cyan});
        table.Add({Cell(LevelText(finding.level), LevelColour(finding.level)), finding.strCheck,
                   Cell(std::move(text))});
    }
    return table.Render(whole) + '\n' +
           Line(Count(CountOf(findings, eFinding::Problem), "problem", "problems") + ", " +
                    Count(CountOf(findings, eFinding::Warning), "warning", "warnings"),
                style);
}

bool HasProblem(const Findings& findings) {
    return CountOf(findings, eFinding::Problem) > 0;
}

std::string ReadSmallFile(const std::string& strPath) {
    // A FIFO in a file's place shall not make anybody wait.
    const CUniqueFd fd{::open(strPath.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)};
    struct stat info {};
    if (!fd.IsOpen() || ::fstat(fd.Get(), &info) != 0 || !S_ISREG(info.st_mode)) return {};
    std::string strText;
    std::array<char, 4096> piece;
    ssize_t nRead = 0;
    while (strText.size() <= kMaxTextFile &&
           (nRead = ::read(fd.Get(), piece.data(), piece.size())) > 0)
        strText.append(piece.data(), static_cast<std::size_t>(nRead));
    return strText;
}

ePresence LookFor(const std::string& strPath) {
    // As those who read it do: a FIFO in a file's place shall not make anybody wait.
    const CUniqueFd fd{::open(strPath.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)};
    if (fd.IsOpen()) return ePresence::There;
    if (errno == EACCES || errno == EPERM) return ePresence::OnlyRootMayLook;
    return errno == ENOENT || errno == ENOTDIR ? ePresence::Missing : ePresence::There;
}

int RunDoctor(const Options& options, COutput& output) {
    const Findings findings = Examine(ThisMachine(WaitFor(options).patience));
    if (options.bJson)
        output.AddDocument(ToJson(findings));
    else
        output.Add(DoctorReport(findings, output.GetStyle()));
    return HasProblem(findings) ? EXIT_FAILED : EXIT_DONE;
}

}  // namespace vok::ctl
