/// The broker's records as JSON: the names of rpc/vok_admin.thrift, and words beside its numbers.
#pragma once

#include "ctl/Output.h"
#include "vok_admin_types.h"

namespace vok::ctl {

Json ToJson(const admin::EmpState& emp);
Json ToJson(const admin::ConnectionState& connection);
Json ToJson(const admin::MountState& mount);
Json ToJson(const admin::LauncherState& launcher);
Json ToJson(const admin::Counters& counters);
Json ToJson(const admin::FileState& file);
Json ToJson(const admin::ServerState& server);
Json ToJson(const admin::BrokerState& state);
Json ToJson(const admin::OpenTimes& open);
Json ToJson(const admin::Whereabouts& whereabouts);

template <typename Record>
Json ToJson(const std::vector<Record>& records) {
    Json json = Json::array();
    for (const Record& record : records) json.push_back(ToJson(record));
    return json;
}

}  // namespace vok::ctl
