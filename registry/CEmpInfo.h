/// What the broker knows about each EMP.
#pragma once

#include <boost/shared_ptr.hpp>

#include <map>
#include <string>

#include "platform/CMutex.h"
#include "platform/Process.h"

namespace vok {

/// Where an EMP's server stands. Values outside 1 to 6 count as "not found".
enum EMP_STATUS : int {
    EMP_NOT_FOUND = 0,  // never stored
    EMP_ADDED = 1,      // just added, its server has not reported yet
    EMP_OPENED = 2,     // its server runs
    EMP_CLOSED = 3,     // its start has failed
    EMP_PENDING = 4,    // transitional like EMP_ADDED; never set by the broker
    EMP_RESERVED5 = 5,  // never set by the broker
    EMP_RESERVED6 = 6,  // never set by the broker
};

/// Somebody is about to settle it: whoever needs to know waits.
inline bool IsTransitional(EMP_STATUS eStatus) {
    return eStatus == EMP_ADDED || eStatus == EMP_PENDING;
}

/// One EMP's record. No lock of its own: its table's lock guards it.
class CEmpDataInfo {
public:
    CEmpDataInfo() = default;
    CEmpDataInfo(std::string strName, std::string strVersion, EMP_STATUS eStatus);

    /// Writes over the first characters of the stored option: a shorter one leaves the tail of the
    /// old one in place, a longer one replaces all of it. Returns true.
    bool SetOption(const std::string& strOption);
    const std::string& GetOption() const;

    bool SetStatus(EMP_STATUS eStatus);
    EMP_STATUS GetStatus() const { return m_eStatus; }

    /// Forgets the start time of the process, too. Returns true.
    bool SetEmpPid(int nPid);
    int GetEmpPid() const { return m_nPid; }

    /// Pid and start time: a process that is recognised also after its pid has been given to
    /// another one. Returns true.
    bool SetEmpProcess(const ProcessId& process);
    ProcessId GetEmpProcess() const { return {m_nPid, m_nStartTime}; }

private:
    std::string m_strName;
    std::string m_strVersion;
    EMP_STATUS m_eStatus = EMP_NOT_FOUND;
    std::string m_strOption = "0000";
    [[maybe_unused]] int m_nReserved = 0;
    int m_nPid = 0;
    unsigned long long m_nStartTime = 0;
};

/// The EMPs that the broker currently knows, by name (ordered by bytes).
///
/// Thread-safe. Every operation takes the one lock and returns copies, so what it tells may change
/// before its caller acts on it. Innermost lock: only the logger is called under it.
class CEmpInfo {
public:
    CEmpInfo() = default;
    CEmpInfo(const CEmpInfo&) = delete;
    CEmpInfo& operator=(const CEmpInfo&) = delete;

    /// Adds an EMP with status EMP_ADDED and option "0000". False, and nothing changes, when it is
    /// already known.
    bool Add(const std::string& strName, const std::string& strVersion);
    /// The same, and the status that it has afterwards.
    bool Add(const std::string& strName, const std::string& strVersion, EMP_STATUS& eStatus);

    /// True, also when there is nothing to remove.
    bool Remove(std::string strName);

    bool IsAdded(std::string strName);

    /// See `CEmpDataInfo::SetOption`. False when the EMP is not known, as in all setters below.
    bool SetTypeOption(std::string strName, const std::string& strOption);
    /// Empty when the EMP is not known.
    std::string GetTypeOption(std::string strName);

    bool SetTypeStatus(std::string strName, const EMP_STATUS& eStatus);
    /// EMP_NOT_FOUND when the EMP is not known.
    EMP_STATUS GetTypeStatus(std::string strName);

    /// Forgets the start time of the process, too.
    bool SetEmpPid(std::string strName, int nPid);
    /// 0 when the EMP is not known.
    int GetEmpPid(std::string strName);

    /// As SetEmpPid, with the start time by which a later stop recognises the process.
    bool SetEmpProcess(const std::string& strName, const ProcessId& process);
    /// Pid and start time are 0 when the EMP is not known.
    ProcessId GetEmpProcess(const std::string& strName);

    /// Ends an open that has failed: the record goes when the open has added it (`bIsNew`), else
    /// its status becomes EMP_CLOSED. Needs no memory, and never throws.
    void EndFailedOpen(const std::string& strName, bool bIsNew);
    /// A copy of every record.
    std::map<std::string, CEmpDataInfo> GetEmpInfo();

    /// As GetTypeStatus, GetTypeOption, SetTypeStatus and Remove, which they log as, but without a
    /// name of their own: but for the option's, they need no memory.
    EMP_STATUS StatusOf(const std::string& strName);
    std::string OptionOf(const std::string& strName);
    bool SetStatusOf(const std::string& strName, EMP_STATUS eStatus);
    void Forget(const std::string& strName);

    /// No versions are kept: always empty, and true without storing anything.
    std::string GetTypeVersion(std::string strName);
    bool SetTypeVersion(std::string strName, std::string strVersion);

private:
    /// The record; null when the EMP is not known.
    CEmpDataInfo* Find(const std::string& strName) VOK_REQUIRES(m_mtxInfo);
    /// What Find has found.
    void EraseLast() VOK_REQUIRES(m_mtxInfo);
    static void LogMissing(const std::string& strName, EMP_STATUS eStatus);

    using Records = std::map<std::string, boost::shared_ptr<CEmpDataInfo>>;
    Records m_mapInfo VOK_GUARDED_BY(m_mtxInfo);
    /// The record that was found last: an open or close asks for the same one several times.
    Records::iterator m_itLast VOK_GUARDED_BY(m_mtxInfo) = m_mapInfo.end();
    CMutex m_mtxInfo;
};

}  // namespace vok
