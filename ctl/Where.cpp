#include "ctl/Where.h"

#include <algorithm>

#include "ctl/StateView.h"
#include "ctl/Table.h"
#include "platform/EmpPaths.h"

namespace vok::ctl {

namespace {

constexpr char kImage[] = "image";
constexpr char kPreinstalled[] = "preinstalled program";
constexpr char kDownloaded[] = "downloaded program";
/// The port of a grouping process that does not run.
constexpr char kNotRunning[] = "N/A";

const admin::FileState* FindFile(const admin::Whereabouts& whereabouts, const char* szRole) {
    for (const admin::FileState& file : whereabouts.files)
        if (file.role == szRole && file.exists) return &file;
    return nullptr;
}

std::string LauncherAt(const admin::LauncherState& launcher) {
    return launcher.name + " at port " + launcher.port;
}

bool IsListed(const admin::Whereabouts& whereabouts) {
    return !whereabouts.launchers.empty() || !whereabouts.groups.empty();
}

/// The order in which an open chooses its program: what is mounted, the image, what is
/// preinstalled.
std::string DecisionByFiles(const admin::Whereabouts& whereabouts) {
    const admin::FileState* const pImage = FindFile(whereabouts, kImage);
    const admin::FileState* const pMounted = FindFile(whereabouts, kDownloaded);
    const admin::FileState* const pPreinstalled = FindFile(whereabouts, kPreinstalled);
    std::string strText = "An open of " + whereabouts.empName + " starts ";
    if (pMounted != nullptr)
        strText +=
            pMounted->path + (pImage != nullptr ? ", the program of its image, which is mounted"
                                                : ", because it is there");
    else if (pImage != nullptr)
        strText += "the program of its image, which it mounts first: " + pImage->path + " exists";
    else
        strText += (pPreinstalled != nullptr ? pPreinstalled->path : "its preinstalled program") +
                   ", because it has no image";
    if (pPreinstalled != nullptr && (pMounted != nullptr || pImage != nullptr))
        strText += "; " + pPreinstalled->path + " counts only without one";
    if (IsListed(whereabouts))
        strText += "; an EMP with files of its own is not asked of a launcher";
    return strText + '.';
}

std::string DecisionByGroup(const admin::Whereabouts& whereabouts) {
    const std::string strWhy =
        " has no files of its own, and the configuration of the grouping process ";
    if (whereabouts.groups.empty())
        return whereabouts.empName + " has no files of its own; a grouping process hosts it.";
    const admin::LauncherState& group = whereabouts.groups.front();
    std::string strText = whereabouts.empName + strWhy + group.name + " lists it: an open ";
    strText += group.port == kNotRunning ? "starts " + group.name + ", which does not run"
                                         : "is handed to it at port " + group.port;
    if (!whereabouts.launchers.empty())
        strText += "; a grouping process comes before a register launcher";
    return strText + '.';
}

std::string DecisionByLauncher(const admin::Whereabouts& whereabouts) {
    const std::string strText = whereabouts.empName + " has no files of its own, and ";
    if (whereabouts.launchers.empty()) return strText + "a register launcher serves it.";
    return strText + "the register launcher " + LauncherAt(whereabouts.launchers.front()) +
           " lists it: an open is handed to it.";
}

std::string DecisionWithoutAny(const admin::Whereabouts& whereabouts) {
    const std::string& strEmp = whereabouts.empName;
    std::string strText = "An open of " + strEmp +
                          " is refused: there is neither an image nor a "
                          "preinstalled program, and no grouping process or launcher lists it.";
    if (!paths::IsFileName(strEmp)) return strText + " A name that leaves its folder has no files.";
    if (FindFile(whereabouts, kDownloaded) != nullptr)
        strText += " The program below its mount point does not count without an image.";
    return strText +
           " Install one of the files below, or let a launcher serve it: \"vokctl launcher "
           "add-emp " +
           strEmp + " PORT\".";
}

std::string ClientsText(const admin::ServerState& server) {
    std::vector<std::string> texts;
    for (std::size_t i = 0; i < server.clientPorts.size(); ++i) {
        const std::string strAge =
            i < server.clientAgesMs.size() ? " for " + AgeText(server.clientAgesMs, i) : "";
        texts.push_back(server.clientPorts[i] + strAge);
    }
    return texts.empty() ? "none" : Join(texts, ", ");
}

std::string FileTable(const admin::Whereabouts& whereabouts, const Style& style) {
    CTable table{{{"THERE"}, {"FILE"}, {"ROLE"}}};
    for (const admin::FileState& file : whereabouts.files) {
        const char* const szYes = style.bUtf8 ? "\u2713" : "yes";
        const char* const szNo = style.bUtf8 ? "\u2717" : "no";
        table.Add({file.exists ? Cell(szYes, eColour::Green) : Cell(szNo, eColour::Faint),
                   file.path, file.role});
    }
    return table.IsEmpty() ? "" : '\n' + table.Render(style);
}

std::string ListedTable(const admin::Whereabouts& whereabouts, const Style& style) {
    CTable table{{{"LISTED BY"}, {"KIND"}, {"PORT"}}};
    for (const admin::LauncherState& group : whereabouts.groups)
        table.Add({group.name, "grouping process",
                   group.port == kNotRunning ? "not running" : group.port});
    for (const admin::LauncherState& launcher : whereabouts.launchers)
        table.Add({launcher.name, "register launcher", launcher.port});
    if (table.IsEmpty())
        return '\n' + Line("Listed by no grouping process and no launcher.", style);
    return '\n' + table.Render(style);
}

/// What a grouping process or a launcher of that name does.
std::string HostTable(const admin::Whereabouts& whereabouts, const Style& style) {
    CTable table{{{"IS ITSELF A"}, {"PORT"}, {"SERVES"}}};
    for (const admin::LauncherState& group : whereabouts.ownGroups)
        table.Add({"grouping process", group.port == kNotRunning ? "not running" : group.port,
                   Join(group.emps, ", ")});
    for (const admin::LauncherState& launcher : whereabouts.ownLaunchers)
        table.Add({"register launcher", launcher.port, Join(launcher.emps, ", ")});
    return table.IsEmpty() ? "" : '\n' + table.Render(style);
}

bool RunsAsHost(const admin::Whereabouts& whereabouts) {
    const auto& groups = whereabouts.ownGroups;
    return !whereabouts.ownLaunchers.empty() ||
           std::any_of(groups.begin(), groups.end(),
                       [](const admin::LauncherState& group) { return group.port != kNotRunning; });
}

std::string ServerTable(const admin::Whereabouts& whereabouts, const Style& style) {
    if (whereabouts.servers.empty() && RunsAsHost(whereabouts)) return {};
    if (whereabouts.servers.empty())
        return '\n' +
               Line("Nothing serves it now" +
                        (whereabouts.status == 0
                             ? std::string(".")
                             : "; its status is \"" + StatusText(whereabouts.status) + "\"."),
                    style);
    CTable table{{{"SERVED AT"}, {"PID", true}, {"PROGRAM"}, {"CLIENTS"}}};
    for (const admin::ServerState& server : whereabouts.servers)
        table.Add({server.port, PidText(server.pid), server.program.empty() ? "-" : server.program,
                   ClientsText(server)});
    return '\n' + table.Render(style);
}

std::string MountLines(const admin::Whereabouts& whereabouts, const Style& style) {
    if (whereabouts.mountPoint.empty() && whereabouts.mount.count == 0 &&
        !whereabouts.mount.mounted)
        return {};
    std::string strText;
    if (!whereabouts.mountSource.empty())
        strText = "Mounted on " + whereabouts.mountPoint + ": " + whereabouts.mountSource + ", " +
                  whereabouts.fileSystem;
    else
        strText = "Nothing is mounted on " + whereabouts.mountPoint;
    if (whereabouts.mounts > 1)
        strText += ", the topmost of " + std::to_string(whereabouts.mounts) + " mounts there";
    strText += "; " + Count(whereabouts.mount.count, "open relies", "opens rely") + " on the image";
    if (!whereabouts.mount.image.empty() && whereabouts.mount.image != whereabouts.empName)
        strText += " of " + whereabouts.mount.image;
    return '\n' + Line(strText + '.', style);
}

/// Nothing for none.
std::string Sentence(const std::string& strText, const Style& style) {
    return strText.empty() ? strText : Line(strText, style);
}

}  // namespace

std::string Decision(const admin::Whereabouts& whereabouts) {
    switch (whereabouts.location) {
        case LOCATION_FILES:
            return DecisionByFiles(whereabouts);
        case LOCATION_GROUP:
            return DecisionByGroup(whereabouts);
        case LOCATION_LAUNCHER:
            return DecisionByLauncher(whereabouts);
        default:
            return DecisionWithoutAny(whereabouts);
    }
}

std::string FurtherOpen(const admin::Whereabouts& whereabouts) {
    const auto& servers = whereabouts.servers;
    if (servers.empty() || whereabouts.location == LOCATION_UNKNOWN) return {};
    if (whereabouts.option == kSingleton)
        return "It runs already, and is a singleton: a further client gets the server at port " +
               servers.front().port + '.';
    if (whereabouts.option == kOneConnection)
        return "It runs already, and takes one connection only: as long as its server is there, a "
               "further client is refused.";
    // Its record has gone: an open makes a new one, and a start.
    if (whereabouts.status == 0)
        return "A server of it runs, but the broker no longer knows it: a further client gets a "
               "server of its own.";
    return "It runs already, and is no singleton: a further client gets a server of its own.";
}

std::string WhereReport(const admin::Whereabouts& whereabouts, const Style& style) {
    // Not cut: a path is of use only whole, and so is the list of clients.
    Style whole = style;
    whole.nWidth = 0;
    return Sentence(Decision(whereabouts), whole) + Sentence(FurtherOpen(whereabouts), whole) +
           FileTable(whereabouts, whole) + ListedTable(whereabouts, whole) +
           HostTable(whereabouts, whole) + ServerTable(whereabouts, whole) +
           MountLines(whereabouts, whole);
}

}  // namespace vok::ctl
