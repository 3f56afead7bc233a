// Failed opens are reported to the platform's log server.
#include <cstdio>
#include <memory>

#include "broker/CBroker.h"
#include "platform/CLogger.h"
#include "platform/EmpPaths.h"
#include "platform/Limits.h"
#include "platform/Log.h"
#include "platform/Number.h"
#include "platform/SystemInfo.h"
#include "platform/ThreadMaker.h"

namespace vok {

namespace {

#define REPORT_LOG(level, ...) VOK_LOG_AS("OnReportLogToServer", level, __VA_ARGS__)

/// The broker's node in the log policy, and its name at the log server.
constexpr char kService[] = "15_vok";
constexpr char kCategory[] = "VOKERR";
constexpr char kEventId[] = "EV001";
constexpr char kEvent[] = "openfail";
constexpr int kReserved = 0;

/// How long the log server takes a description, its end included.
constexpr std::size_t kDescription = 128;

struct LogPolicy {
    std::string strUrl;
    int nQueueMax = 0;
    int nExpiration = 0;
    int nLogLevel = 0;
};

/// What the kernel knows about the fault, without line breaks.
bool ReadFaultInfo(const FaultReport& fault, std::string& strInfo) {
    const auto strLines = fault.platform.pFiles->ReadText(paths::kFaultInfo, kMaxTextFile);
    if (!strLines) {
        REPORT_LOG(LEVEL_ERROR, "Error: %s Open Failed!!!", paths::kFaultInfo);
        return false;
    }
    for (const char c : *strLines) {
        if (c != '\n') strInfo += c;
    }
    return true;
}

bool ReadPolicy(const FaultReport& fault, LogPolicy& policy) {
    NodeAttributes attributes;
    if (!fault.platform.pKpi->ParseNodeAttrFromXml(paths::kLogPolicy, kService, attributes)) {
        REPORT_LOG(LEVEL_ERROR, "Get attribute of [%s] failed.", kService);
        return false;
    }
    policy.strUrl = attributes["url"];
    REPORT_LOG(LEVEL_DETAIL, "Log Server's url:[%s].", policy.strUrl.c_str());
    policy.nQueueMax = LeadingNumber(attributes["queue_max"]);
    policy.nExpiration = LeadingNumber(attributes["expiration"]);
    policy.nLogLevel = LeadingNumber(attributes["loglevel"]);
    return true;
}

/// False, logged, at the first operation that fails.
bool ConfigureLogger(CLogger& logger, const LogPolicy& policy, const FaultReport& fault) {
    if (!logger.SetServiceConf(kService, policy.nQueueMax, policy.nExpiration, kReserved,
                               policy.nLogLevel, policy.strUrl)) {
        REPORT_LOG(LEVEL_ERROR, "Could not set service conf info!");
        return false;
    }
    if (!logger.AddEvent(kCategory, policy.nQueueMax, policy.nExpiration, kReserved,
                         policy.nLogLevel)) {
        REPORT_LOG(LEVEL_ERROR, "Could not add event!");
        return false;
    }
    if (!logger.SetEventHeader({kEvent, fault.strErrType, fault.strEmp, fault.strBrokerVersion})) {
        REPORT_LOG(LEVEL_ERROR, "Could not set event header!");
        return false;
    }
    return true;
}

/// The set's model; empty, and logged, when the platform does not know it.
std::string ModelName(const FaultReport& fault) {
    std::string strModel;
    if (const int rc = fault.platform.pKpi->GetSystemInfo(kModelNameKey, strModel); rc != 0)
        REPORT_LOG(LEVEL_ERROR, "Fail to get value :[%d]", rc);
    return strModel;
}

void SendEvent(CLogger& logger, const FaultReport& fault, const std::string& strFaultInfo) {
    char szDescription[kDescription] = {};
    (void)std::snprintf(szDescription, sizeof szDescription,
                        "{errtype=%s;empnm=%s;empver=%s;vokver=%s;thread=%s}",
                        fault.strErrType.c_str(), fault.strEmp.c_str(), fault.strEmpVersion.c_str(),
                        fault.strBrokerVersion.c_str(), strFaultInfo.c_str());
    REPORT_LOG(LEVEL_TRACE, "Desc:[%s] of KPI log.", szDescription);
    if (!logger.AddEventLog(kEventId, szDescription, ModelName(fault)))
        REPORT_LOG(LEVEL_ERROR, "Could not add event log!");
    if (!logger.Flush()) REPORT_LOG(LEVEL_ERROR, "Failed to flush KPI log!");
}

void Report(const FaultReport& fault) {
    LogPolicy policy;
    if (!ReadPolicy(fault, policy)) return;

    std::unique_ptr<CLogger> pLogger = fault.platform.pKpi->CreateLogger();
    std::string strFaultInfo;
    if (pLogger == nullptr)
        REPORT_LOG(LEVEL_ERROR, "There is no KPI logger.");
    else if (ConfigureLogger(*pLogger, policy, fault) && ReadFaultInfo(fault, strFaultInfo))
        SendEvent(*pLogger, fault, strFaultInfo);
    REPORT_LOG(LEVEL_DETAIL, "Prepare to destroy the logger task.");
    pLogger.reset();
}

}  // namespace

void CBroker::ReportLogToServer(const std::string& strErrType, const std::string& strEmp,
                                const std::string& strEmpVersion) {
    VOK_LOG(LEVEL_DETAIL, "Error with:[%s], Prepare report dev info to log server.",
            strErrType.c_str());
    auto pFault = std::make_unique<FaultReport>(
        FaultReport{strErrType, strEmp, strEmpVersion, GetFullVersion(), m_Platform, HoldInUse()});
    if (!ThreadMaker::CreateThread("ReportToLogServer", &CBroker::OnReportLogToServer, pFault.get(),
                                   kThreadStack, true)) {
        VOK_LOG(LEVEL_ERROR, "Error occured during making BrokerServer");
        return;
    }
    (void)pFault.release();  // the thread's now
    VOK_LOG(LEVEL_TRACE, "Take time for operating ReportToLogServer for [%f] sec",
            std::chrono::duration<double>(kFaultReportHeadStart).count());
    m_Platform.pClock->Sleep(kFaultReportHeadStart);
}

void* CBroker::OnReportLogToServer(void* pRecord) {
    const std::unique_ptr<FaultReport> pFault{static_cast<FaultReport*>(pRecord)};
    if (pFault == nullptr) {
        VOK_LOG(LEVEL_ERROR, "KPI main info shouldn't be empty.");
        return nullptr;
    }
    try {
        Report(*pFault);
    } catch (...) {
        // Whatever a KPI library throws, it must not end the broker.
        VOK_LOG(LEVEL_ERROR, "A fault report was not completed.");
    }
    return nullptr;
}

}  // namespace vok
