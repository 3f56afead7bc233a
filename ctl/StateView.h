/// What the broker knows, as people read it.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ctl/Format.h"
#include "ctl/Table.h"
#include "vok_admin_types.h"

namespace vok::ctl {

/// One screen. With the state of an earlier moment, the counters also tell what has come since.
std::string StatusScreen(const admin::BrokerState& state, const Style& style,
                         const admin::BrokerState* pEarlier = nullptr);

/// A row for every client of every EMP, and one for an EMP without any; a sentence when there is
/// none at all.
std::string EmpList(const admin::BrokerState& state, const Style& style);

/// All about one EMP; none when the broker knows nothing of it.
std::optional<std::string> EmpReport(const admin::BrokerState& state, const std::string& strEmp,
                                     const Style& style);

/// The part of the state that is about one EMP, grouping process or launcher: an EMP's images are
/// those of its groups, too.
admin::BrokerState StateOf(const admin::BrokerState& state, const std::string& strEmp);
bool KnowsNothing(const admin::BrokerState& state);

/// Whether the broker has a record of the EMP.
bool KnowsEmp(const admin::BrokerState& state, const std::string& strEmp);

/// Whether this client is connected to this server of the EMP.
bool HasConnection(const admin::BrokerState& state, const std::string& strEmp,
                   const std::string& strEmpPort, const std::string& strClientPort);

/// Every EMP that the broker has heard of, each once.
std::vector<std::string> NamesIn(const admin::BrokerState& state);

/// A process id; "-" for none.
std::string PidText(int nPid);
/// How long a client has been connected; "-" where the broker does not know.
std::string AgeText(const std::vector<std::int64_t>& agesMs, std::size_t i);
eColour StatusColour(int nStatus);

}  // namespace vok::ctl
