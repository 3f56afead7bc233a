#include "ctl/Json.h"

#include "ctl/Format.h"

namespace vok::ctl {

namespace {

/// A broker that knows no ages sends none.
Json Clients(const std::vector<std::string>& ports, const std::vector<std::int64_t>& agesMs) {
    Json clients = Json::array();
    for (std::size_t i = 0; i < ports.size(); ++i) {
        Json age = i < agesMs.size() ? Json(agesMs[i]) : Json(nullptr);
        clients.push_back({{"clientPort", ports[i]}, {"ageMs", std::move(age)}});
    }
    return clients;
}

}  // namespace

Json ToJson(const admin::FileState& file) {
    return {{"path", file.path}, {"role", file.role}, {"exists", file.exists}};
}

Json ToJson(const admin::ServerState& server) {
    return {{"port", server.port},
            {"pid", server.pid},
            {"program", server.program},
            {"clients", Clients(server.clientPorts, server.clientAgesMs)}};
}

Json ToJson(const admin::Counters& counters) {
    return {{"opens", counters.opens},       {"reuses", counters.reuses},
            {"refusals", counters.refusals}, {"failures", counters.failures},
            {"closes", counters.closes},     {"sweeps", counters.sweeps}};
}

Json ToJson(const admin::EmpState& emp) {
    return {{"name", emp.name},
            {"status", emp.status},
            {"statusText", StatusText(emp.status)},
            {"option", emp.option},
            {"optionText", OptionText(emp.option)},
            {"pid", emp.pid},
            {"location", emp.location},
            {"locationText", LocationText(emp.location)}};
}

Json ToJson(const admin::ConnectionState& connection) {
    return {{"empName", connection.empName},
            {"empPort", connection.empPort},
            {"pendingCount", connection.pendingCount},
            {"clients", Clients(connection.clientPorts, connection.clientAgesMs)}};
}

Json ToJson(const admin::MountState& mount) {
    return {{"image", mount.image}, {"count", mount.count}, {"mounted", mount.mounted}};
}

Json ToJson(const admin::LauncherState& launcher) {
    return {{"name", launcher.name}, {"port", launcher.port}, {"emps", launcher.emps}};
}

Json ToJson(const admin::BrokerState& state) {
    return {{"version", state.version},
            {"pid", state.pid},
            {"uptimeMs", state.uptimeMs},
            {"debugLevel", state.debugLevel},
            {"pingEnabled", state.pingEnabled},
            {"emps", ToJson(state.emps)},
            {"connections", ToJson(state.connections)},
            {"mounts", ToJson(state.mounts)},
            {"launchers", ToJson(state.launchers)},
            {"groups", ToJson(state.groups)},
            {"waitingTickets", state.waitingTickets},
            {"counters", ToJson(state.counters)}};
}

Json ToJson(const admin::OpenTimes& open) {
    return {{"serial", open.serial},
            {"empName", open.empName},
            {"clientPort", open.clientPort},
            {"location", open.location},
            {"locationText", LocationText(open.location)},
            {"outcome", open.outcome},
            {"outcomeText", OutcomeText(open.outcome)},
            {"agoMs", open.agoMs},
            {"locatedUs", open.locatedUs},
            {"mountedUs", open.mountedUs},
            {"startedUs", open.startedUs},
            {"reportedUs", open.reportedUs},
            {"answeredUs", open.answeredUs}};
}

Json ToJson(const admin::Whereabouts& whereabouts) {
    return {{"empName", whereabouts.empName},
            {"location", whereabouts.location},
            {"locationText", LocationText(whereabouts.location)},
            {"files", ToJson(whereabouts.files)},
            {"launchers", ToJson(whereabouts.launchers)},
            {"groups", ToJson(whereabouts.groups)},
            {"ownLaunchers", ToJson(whereabouts.ownLaunchers)},
            {"ownGroups", ToJson(whereabouts.ownGroups)},
            {"status", whereabouts.status},
            {"statusText", StatusText(whereabouts.status)},
            {"option", whereabouts.option},
            {"optionText", OptionText(whereabouts.option)},
            {"servers", ToJson(whereabouts.servers)},
            {"mount", ToJson(whereabouts.mount)},
            {"mountPoint", whereabouts.mountPoint},
            {"mountSource", whereabouts.mountSource},
            {"fileSystem", whereabouts.fileSystem},
            {"mounts", whereabouts.mounts}};
}

}  // namespace vok::ctl
