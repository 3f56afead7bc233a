// Failed opens are reported to the platform's log server.
#include "broker/CBroker.h"
#include "platform/Log.h"

namespace vok {

void CBroker::ReportLogToServer(const std::string& strErrType, const std::string& strEmp,
                                const std::string& strEmpVersion) {
    (void)strEmp;
    (void)strEmpVersion;
    VOK_LOG(LEVEL_DETAIL, "Error with:[%s], Prepare report dev info to log server.",
            strErrType.c_str());
}

void* CBroker::OnReportLogToServer(void*) {
    VOK_LOG(LEVEL_DETAIL, "Faults are not reported yet.");
    return nullptr;
}

}  // namespace vok
