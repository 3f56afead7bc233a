/// Which server an open of a known EMP gets.
#pragma once

#include <string_view>

namespace vok {

enum class eServerChoice {
    Reuse,               // the running server
    Refuse,              // none: the one connection it accepts is taken
    StartLostServer,     // a new one: a singleton without a connection
    StartOneConnection,  // a new one: its one connection is free
    StartAnother,        // a new one each time
    StartUnknown,        // a new one: the option code says nothing
};

/// `strOption`: the EMP's option code. `bLive`: it has a connection.
eServerChoice ChooseServer(std::string_view strOption, bool bLive);

}  // namespace vok
