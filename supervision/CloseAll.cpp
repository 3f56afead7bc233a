// Closing on the clients' behalf: an application has ended, or a client has died.
#include "broker/CBroker.h"
#include "platform/Log.h"

namespace vok {

int CBroker::CloseAllEmpWithAppID(std::string strAppId, std::string strWidgetId) {
    VOK_LOG(LEVEL_DETAIL, "appId_[%s] widgetID_[%s]", strAppId.c_str(), strWidgetId.c_str());
    return 0;
}

void CBroker::PingTest_For_Webkit() {
    VOK_LOG(LEVEL_DETAIL, "Zombie clients are not swept yet.");
}

}  // namespace vok
