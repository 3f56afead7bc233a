/// The KPI logger: what the platform's log server learns about faults.
#pragma once

#include <memory>
#include <string>

namespace vok {

/// What comes with every event.
struct KpiEventHeader {
    std::string strDescription;
    std::string strErrType;
    std::string strEmp;
    std::string strBrokerVersion;
};

/// One logger, for one thread. Operations answer whether they succeeded; they are called in the
/// order in which they stand here, and throw nothing but std::bad_alloc. Its destruction ends the
/// logger's task.
///
/// The implementation at hand (CLocalLogger.cpp) writes events to the local log, each text at most
/// 512 bytes long. A KPI library
/// takes its place when it defines `CLogger::Create` and VOK_KPI_LIBRARY names it to CMake.
class CLogger {
public:
    /// Null on failure. `pArgument` is null.
    static std::unique_ptr<CLogger> Create(const void* pArgument);

    virtual ~CLogger() = default;

    /// Where events go, and how: the numbers are those of the log policy. `nReserved` is 0.
    virtual bool SetServiceConf(const std::string& strService, int nQueueMax, int nExpiration,
                                int nReserved, int nLogLevel, const std::string& strUrl) = 0;
    virtual bool AddEvent(const std::string& strCategory, int nQueueMax, int nExpiration,
                          int nReserved, int nLogLevel) = 0;
    virtual bool SetEventHeader(const KpiEventHeader& header) = 0;
    /// Queues one event. `strModel` joins its header; empty when the model is not known.
    virtual bool AddEventLog(const std::string& strEventId, const std::string& strDescription,
                             const std::string& strModel) = 0;
    /// Sends what is queued.
    virtual bool Flush() = 0;
};

}  // namespace vok
