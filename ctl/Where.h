/// Where an EMP lives, and why, as people read it.
#pragma once

#include <string>

#include "ctl/Format.h"
#include "vok_admin_types.h"

namespace vok::ctl {

/// In a sentence: what an open of the EMP would do, and why.
std::string Decision(const admin::Whereabouts& whereabouts);

/// In a sentence: what a further client gets, for there is a server already; "" when there is none.
std::string FurtherOpen(const admin::Whereabouts& whereabouts);

/// All of it.
std::string WhereReport(const admin::Whereabouts& whereabouts, const Style& style);

}  // namespace vok::ctl
