#include "open/ServerChoice.h"

#include "broker/Types.h"

namespace vok {

eServerChoice ChooseServer(std::string_view strOption, bool bLive) {
    if (strOption == kOptionSingleton)
        return bLive ? eServerChoice::Reuse : eServerChoice::StartLostServer;
    if (strOption == kOptionOneConnection)
        return bLive ? eServerChoice::Refuse : eServerChoice::StartOneConnection;
    if (strOption == kOptionNotSingleton) return eServerChoice::StartAnother;
    return eServerChoice::StartUnknown;
}

}  // namespace vok
