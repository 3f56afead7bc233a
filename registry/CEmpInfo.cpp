#include "registry/CEmpInfo.h"

#include <boost/make_shared.hpp>

#include <utility>

#include "platform/Log.h"

namespace vok {

CEmpDataInfo::CEmpDataInfo(std::string strName, std::string strVersion, EMP_STATUS eStatus)
    : m_strName(std::move(strName)), m_strVersion(std::move(strVersion)), m_eStatus(eStatus) {}

bool CEmpDataInfo::SetOption(const std::string& strOption) {
    m_strOption.replace(0, strOption.size(), strOption);
    VOK_CLASS_LOG("CEmpDataInfo", LEVEL_DETAIL, "member option [%s] , parameter [%s]",
                  m_strOption.c_str(), strOption.c_str());
    return true;
}

const std::string& CEmpDataInfo::GetOption() const {
    VOK_CLASS_LOG("CEmpDataInfo", LEVEL_DETAIL, "member option [%s] ", m_strOption.c_str());
    return m_strOption;
}

bool CEmpDataInfo::SetStatus(EMP_STATUS eStatus) {
    m_eStatus = eStatus;
    return true;
}

bool CEmpDataInfo::SetEmpPid(int nPid) {
    return SetEmpProcess({nPid, 0});
}

bool CEmpDataInfo::SetEmpProcess(const ProcessId& process) {
    m_nPid = process.nPid;
    m_nStartTime = process.nStartTime;
    return true;
}

bool CEmpInfo::Add(const std::string& strName, const std::string& strVersion) {
    EMP_STATUS eStatus = EMP_NOT_FOUND;
    return Add(strName, strVersion, eStatus);
}

bool CEmpInfo::Add(const std::string& strName, const std::string& strVersion, EMP_STATUS& eStatus) {
    const CLock lock{m_mtxInfo};
    if (const CEmpDataInfo* const pInfo = Find(strName)) {
        eStatus = pInfo->GetStatus();
        VOK_CLASS_LOG("CEmpInfo", LEVEL_DETAIL, "[%s] is already in map", strName.c_str());
        return false;
    }
    VOK_CLASS_LOG("CEmpInfo", LEVEL_DETAIL, "Add a new item to mapInfo: ");
    auto spRecord = boost::make_shared<CEmpDataInfo>(strName, strVersion, EMP_ADDED);
    m_itLast = m_mapInfo.emplace(strName, std::move(spRecord)).first;
    eStatus = EMP_ADDED;
    return true;
}

bool CEmpInfo::Remove(std::string strName) {
    Forget(strName);
    return true;
}

bool CEmpInfo::IsAdded(std::string strName) {
    const CLock lock{m_mtxInfo};
    return Find(strName) != nullptr;
}

bool CEmpInfo::SetTypeOption(std::string strName, const std::string& strOption) {
    const CLock lock{m_mtxInfo};
    CEmpDataInfo* const pInfo = Find(strName);
    if (!pInfo) {
        VOK_CLASS_LOG("CEmpInfo", LEVEL_ERROR, "[%s] is not in map", strName.c_str());
        return false;
    }
    VOK_CLASS_LOG("CEmpInfo", LEVEL_TRACE, "[%s] has an option [%s] ", strName.c_str(),
                  strOption.c_str());
    return pInfo->SetOption(strOption);
}

std::string CEmpInfo::GetTypeOption(std::string strName) {
    return OptionOf(strName);
}

bool CEmpInfo::SetTypeStatus(std::string strName, const EMP_STATUS& eStatus) {
    return SetStatusOf(strName, eStatus);
}

EMP_STATUS CEmpInfo::GetTypeStatus(std::string strName) {
    return StatusOf(strName);
}

bool CEmpInfo::SetEmpPid(std::string strName, int nPid) {
    return SetEmpProcess(strName, {nPid, 0});
}

int CEmpInfo::GetEmpPid(std::string strName) {
    return GetEmpProcess(strName).nPid;
}

bool CEmpInfo::SetEmpProcess(const std::string& strName, const ProcessId& process) {
    const CLock lock{m_mtxInfo};
    CEmpDataInfo* const pInfo = Find(strName);
    if (!pInfo) {
        VOK_CLASS_LOG_AS("CEmpInfo", "SetEmpPid", LEVEL_ERROR,
                         "error : %s is not found SetEmpPid(%d)", strName.c_str(), process.nPid);
        return false;
    }
    return pInfo->SetEmpProcess(process);
}

ProcessId CEmpInfo::GetEmpProcess(const std::string& strName) {
    const CLock lock{m_mtxInfo};
    const CEmpDataInfo* const pInfo = Find(strName);
    return pInfo ? pInfo->GetEmpProcess() : ProcessId{};
}

void CEmpInfo::EndFailedOpen(const std::string& strName, bool bIsNew) {
    const CLock lock{m_mtxInfo};
    CEmpDataInfo* const pInfo = Find(strName);
    if (!pInfo)
        LogMissing(strName, EMP_CLOSED);
    else if (bIsNew)
        EraseLast();
    else
        (void)pInfo->SetStatus(EMP_CLOSED);
}

EMP_STATUS CEmpInfo::StatusOf(const std::string& strName) {
    const CLock lock{m_mtxInfo};
    const CEmpDataInfo* const pInfo = Find(strName);
    return pInfo ? pInfo->GetStatus() : EMP_NOT_FOUND;
}

std::string CEmpInfo::OptionOf(const std::string& strName) {
    const CLock lock{m_mtxInfo};
    const CEmpDataInfo* const pInfo = Find(strName);
    return pInfo ? pInfo->GetOption() : std::string{};
}

bool CEmpInfo::SetStatusOf(const std::string& strName, EMP_STATUS eStatus) {
    const CLock lock{m_mtxInfo};
    CEmpDataInfo* const pInfo = Find(strName);
    if (!pInfo) {
        LogMissing(strName, eStatus);
        return false;
    }
    return pInfo->SetStatus(eStatus);
}

void CEmpInfo::Forget(const std::string& strName) {
    const CLock lock{m_mtxInfo};
    if (Find(strName)) EraseLast();
}

std::map<std::string, CEmpDataInfo> CEmpInfo::GetEmpInfo() {
    const CLock lock{m_mtxInfo};
    std::map<std::string, CEmpDataInfo> mapInfo;
    for (const auto& [strName, spRecord] : m_mapInfo) mapInfo.emplace(strName, *spRecord);
    return mapInfo;
}

std::string CEmpInfo::GetTypeVersion(std::string) {
    const CLock lock{m_mtxInfo};
    return {};
}

bool CEmpInfo::SetTypeVersion(std::string, std::string) {
    const CLock lock{m_mtxInfo};
    return true;
}

CEmpDataInfo* CEmpInfo::Find(const std::string& strName) {
    if (m_itLast == m_mapInfo.end() || m_itLast->first != strName)
        m_itLast = m_mapInfo.find(strName);
    return m_itLast == m_mapInfo.end() ? nullptr : m_itLast->second.get();
}

void CEmpInfo::EraseLast() {
    m_mapInfo.erase(m_itLast);
    m_itLast = m_mapInfo.end();
}

void CEmpInfo::LogMissing(const std::string& strName, EMP_STATUS eStatus) {
    VOK_CLASS_LOG_AS("CEmpInfo", "SetTypeStatus", LEVEL_ERROR,
                     "error : %s is not found setStatus(%d)", strName.c_str(), eStatus);
}

}  // namespace vok
