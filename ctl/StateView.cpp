#include "ctl/StateView.h"

#include <algorithm>
#include <set>

namespace vok::ctl {

namespace {

constexpr char kNothing[] = "-";

std::string Since(std::int64_t nNow, std::int64_t nEarlier, bool bEarlier) {
    std::string strText = std::to_string(nNow);
    if (bEarlier && nNow > nEarlier) strText += " (+" + std::to_string(nNow - nEarlier) + ")";
    return strText;
}

std::string Head(const admin::BrokerState& state, const Style& style) {
    std::string strText = " " + state.version;
    if (state.pid != 0) strText += ", process " + std::to_string(state.pid);
    strText += ", up " + Duration(std::chrono::milliseconds(state.uptimeMs)) + "; log level " +
               std::to_string(state.debugLevel) + "; pings " + (state.pingEnabled ? "on" : "off");
    return Line({{"vok-broker", eColour::Bold}, {strText}}, style);
}

std::string CounterLine(const admin::BrokerState& state, const Style& style,
                        const admin::BrokerState* pEarlier) {
    const admin::Counters& now = state.counters;
    const admin::Counters before = pEarlier != nullptr ? pEarlier->counters : admin::Counters();
    const auto since = [&](std::int64_t nNow, std::int64_t nEarlier) {
        return Since(nNow, nEarlier, pEarlier != nullptr);
    };
    return Line(since(now.opens, before.opens) + " opens, of them " +
                    since(now.reuses, before.reuses) + " reused, " +
                    since(now.refusals, before.refusals) + " refused, " +
                    since(now.failures, before.failures) + " failed, " +
                    std::to_string(state.waitingTickets.size()) + " waiting for a report; " +
                    since(now.closes, before.closes) + " closes, " +
                    since(now.sweeps, before.sweeps) + " sweeps",
                style);
}

/// Where the servers of an EMP are, and how many clients they have.
struct Servers {
    std::vector<std::string> ports;
    std::size_t nClients = 0;
};

Servers ServersOf(const admin::BrokerState& state, const std::string& strEmp) {
    Servers servers;
    for (const admin::ConnectionState& connection : state.connections) {
        if (connection.empName != strEmp) continue;
        servers.ports.push_back(connection.empPort);
        servers.nClients += connection.clientPorts.size();
    }
    return servers;
}

std::string Titled(const std::string& strTitle, const CTable& table, const Style& style) {
    if (table.IsEmpty()) return {};
    return '\n' + Line({{strTitle, eColour::Faint}}, style) + table.Render(style);
}

std::string EmpTable(const admin::BrokerState& state, const Style& style) {
    CTable table{{{"EMP"},
                  {"STATUS"},
                  {"OPTION"},
                  {"PID", true},
                  {"SERVER"},
                  {"CLIENTS", true},
                  {"LIVES IN"}}};
    for (const admin::EmpState& emp : state.emps) {
        const Servers servers = ServersOf(state, emp.name);
        table.Add({emp.name, Cell(StatusText(emp.status), StatusColour(emp.status)),
                   OptionText(emp.option), PidText(emp.pid),
                   servers.ports.empty() ? kNothing : Join(servers.ports, ","),
                   std::to_string(servers.nClients), LocationText(emp.location)});
    }
    return Titled("EMPs", table, style);
}

std::string ConnectionTable(const admin::BrokerState& state, const Style& style) {
    CTable table{{{"EMP"}, {"SERVER"}, {"CLIENT"}, {"SINCE", true}, {"MISSED PINGS", true}}};
    for (const admin::ConnectionState& connection : state.connections) {
        const std::string strMissed = std::to_string(connection.pendingCount);
        for (std::size_t i = 0; i < connection.clientPorts.size(); ++i)
            table.Add({connection.empName, connection.empPort, connection.clientPorts[i],
                       AgeText(connection.clientAgesMs, i), strMissed});
        if (connection.clientPorts.empty())
            table.Add({connection.empName, connection.empPort, kNothing, kNothing, strMissed});
    }
    return Titled("Connections", table, style);
}

std::string MountTable(const admin::BrokerState& state, const Style& style) {
    CTable table{{{"IMAGE"}, {"OPENS", true}, {"MOUNTED"}}};
    for (const admin::MountState& mount : state.mounts)
        table.Add({mount.image, std::to_string(mount.count), mount.mounted ? "yes" : "no"});
    return Titled("Images", table, style);
}

std::string LauncherTable(const admin::BrokerState& state, const Style& style) {
    CTable table{{{"LAUNCHER"}, {"KIND"}, {"PORT"}, {"EMPS"}}};
    const auto add = [&](const std::vector<admin::LauncherState>& launchers, const char* szKind) {
        for (const admin::LauncherState& launcher : launchers)
            table.Add({launcher.name, szKind,
                       launcher.port == "N/A" ? "not running" : launcher.port,
                       Join(launcher.emps, ", ")});
    };
    add(state.launchers, "register launcher");
    add(state.groups, "grouping process");
    return Titled("Launchers and groups", table, style);
}

/// It serves the EMP, or is called so itself.
bool Concerns(const admin::LauncherState& launcher, const std::string& strEmp) {
    return launcher.name == strEmp ||
           std::find(launcher.emps.begin(), launcher.emps.end(), strEmp) != launcher.emps.end();
}

}  // namespace

std::string PidText(int nPid) {
    return nPid == 0 ? kNothing : std::to_string(nPid);
}

std::string AgeText(const std::vector<std::int64_t>& agesMs, std::size_t i) {
    return i < agesMs.size() ? Duration(std::chrono::milliseconds(agesMs[i])) : kNothing;
}

eColour StatusColour(int nStatus) {
    switch (nStatus) {
        case 2:
            return eColour::Green;
        case 3:
            return eColour::Red;
        default:
            return eColour::Yellow;
    }
}

std::string StatusScreen(const admin::BrokerState& state, const Style& style,
                         const admin::BrokerState* pEarlier) {
    std::string strScreen = Head(state, style) + CounterLine(state, style, pEarlier);
    strScreen += EmpTable(state, style) + ConnectionTable(state, style);
    strScreen += MountTable(state, style) + LauncherTable(state, style);
    return strScreen;
}

std::string EmpList(const admin::BrokerState& state, const Style& style) {
    CTable table{{{"NAME"},
                  {"PORT"},
                  {"CLIENTPORT"},
                  {"SINCE", true},
                  {"STATUS"},
                  {"OPTION"},
                  {"PID", true},
                  {"LIVES IN"}}};
    std::set<std::string> known;
    const auto add = [&](const admin::EmpState& emp, const std::string& strPort,
                         const std::string& strClient, const std::string& strAge) {
        table.Add({emp.name, strPort, strClient, strAge,
                   Cell(StatusText(emp.status), StatusColour(emp.status)), OptionText(emp.option),
                   PidText(emp.pid), LocationText(emp.location)});
    };
    const auto addConnections = [&](const admin::EmpState& emp) {
        bool bAny = false;
        for (const admin::ConnectionState& connection : state.connections) {
            if (connection.empName != emp.name) continue;
            bAny = true;
            for (std::size_t i = 0; i < connection.clientPorts.size(); ++i)
                add(emp, connection.empPort, connection.clientPorts[i],
                    AgeText(connection.clientAgesMs, i));
            if (connection.clientPorts.empty()) add(emp, connection.empPort, kNothing, kNothing);
        }
        if (!bAny) add(emp, kNothing, kNothing, kNothing);
    };
    for (const admin::EmpState& emp : state.emps) {
        known.insert(emp.name);
        addConnections(emp);
    }
    // Tables are copied one after the other: a connection may be there whose EMP has just gone.
    for (const admin::ConnectionState& connection : state.connections) {
        if (!known.insert(connection.empName).second) continue;
        admin::EmpState emp;
        emp.name = connection.empName;
        addConnections(emp);
    }
    if (table.IsEmpty()) return Line("The broker knows no EMP.", style);
    return table.Render(style);
}

admin::BrokerState StateOf(const admin::BrokerState& state, const std::string& strEmp) {
    admin::BrokerState part;
    std::set<std::string> images{strEmp};
    for (const admin::EmpState& emp : state.emps)
        if (emp.name == strEmp) part.emps.push_back(emp);
    for (const admin::ConnectionState& connection : state.connections)
        if (connection.empName == strEmp) part.connections.push_back(connection);
    for (const admin::LauncherState& launcher : state.launchers)
        if (Concerns(launcher, strEmp)) part.launchers.push_back(launcher);
    for (const admin::LauncherState& group : state.groups) {
        if (!Concerns(group, strEmp)) continue;
        part.groups.push_back(group);
        images.insert(group.name);
    }
    for (const admin::MountState& mount : state.mounts)
        if (images.count(mount.image) != 0) part.mounts.push_back(mount);
    return part;
}

bool KnowsNothing(const admin::BrokerState& state) {
    return state.emps.empty() && state.connections.empty() && state.launchers.empty() &&
           state.groups.empty() && state.mounts.empty();
}

std::optional<std::string> EmpReport(const admin::BrokerState& state, const std::string& strEmp,
                                     const Style& style) {
    const admin::BrokerState part = StateOf(state, strEmp);
    if (KnowsNothing(part)) return std::nullopt;
    std::string strReport = EmpTable(part, style) + ConnectionTable(part, style) +
                            MountTable(part, style) + LauncherTable(part, style);
    return strReport.substr(1);  // the line feed before the first title
}

bool HasConnection(const admin::BrokerState& state, const std::string& strEmp,
                   const std::string& strEmpPort, const std::string& strClientPort) {
    return std::any_of(
        state.connections.begin(), state.connections.end(),
        [&](const admin::ConnectionState& connection) {
            const auto& clients = connection.clientPorts;
            return connection.empName == strEmp && connection.empPort == strEmpPort &&
                   std::find(clients.begin(), clients.end(), strClientPort) != clients.end();
        });
}

bool KnowsEmp(const admin::BrokerState& state, const std::string& strEmp) {
    return std::any_of(state.emps.begin(), state.emps.end(),
                       [&](const admin::EmpState& emp) { return emp.name == strEmp; });
}

std::vector<std::string> NamesIn(const admin::BrokerState& state) {
    std::set<std::string> names;
    for (const admin::EmpState& emp : state.emps) names.insert(emp.name);
    for (const admin::ConnectionState& connection : state.connections)
        names.insert(connection.empName);
    for (const auto& launcher : state.launchers)
        names.insert(launcher.emps.begin(), launcher.emps.end());
    for (const auto& group : state.groups) names.insert(group.emps.begin(), group.emps.end());
    return {names.begin(), names.end()};
}

}  // namespace vok::ctl
