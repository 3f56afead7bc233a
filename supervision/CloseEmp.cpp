// A client leaves an EMP: the EMP is told, and the tables follow its answer.
#include <boost/make_shared.hpp>

#include <cstring>
#include <utility>

#include "broker/CBroker.h"
#include "broker/ThreadName.h"
#include "platform/Limits.h"
#include "platform/Log.h"
#include "platform/ScopeGuard.h"
#include "rpc/CBrokerProxyEmp.h"

namespace vok {

namespace {

#define CLOSE_LOG(level, ...) VOK_LOG_AS("CloseEmp", level, __VA_ARGS__)

/// Puts the fourth and fifth character of a port text at `szTarget`. Of a shorter text, its end
/// comes along and ends the name, too.
void PutPortDigits(char* szTarget, const std::string& strPort) {
    char szPort[10] = {};
    strPort.copy(szPort, sizeof szPort - 1);
    std::memcpy(szTarget, szPort + 3, 2);
}

void NameThread(const ConnectionInfo& info) {
    char szName[16] = "B-C-";
    char* const szPorts = szName + 4 + info.empName.copy(szName + 4, 7);
    PutPortDigits(szPorts, info.clientPort);
    PutPortDigits(szPorts + 2, info.empPort);
    NameConnectionThread("CloseEmp", szName);
}

/// What is refused: no record, just added, failed, pending.
bool RefusesClose(EMP_STATUS eStatus) {
    return eStatus == EMP_NOT_FOUND || eStatus == EMP_ADDED || eStatus == EMP_CLOSED ||
           eStatus == EMP_PENDING;
}

}  // namespace

bool CBroker::CloseEmp(const ConnectionInfo& info) {
    ++m_Counters.nCloses;
    NameThread(info);

    EmpType::type eKind = EmpType::PROCESS;
    std::string strImage;
    if (!ClassifyForClose(info.empName, eKind, strImage)) return false;
    // A close that is refused or fails lowers the count, too. One that an exception ends, because
    // memory is short, leaves everything as it was: it can be repeated.
    const bool bLowered = eKind != EmpType::REGISTER && LowerMountCount(strImage);
    ScopeGuard raiseAgain{[&] {
        if (bLowered) RaiseMountCountAgain(strImage);
    }};
    const bool bClosed = CloseCounted(info, eKind);
    raiseAgain.Dismiss();
    return bClosed;
}

bool CBroker::CloseCounted(const ConnectionInfo& info, EmpType::type eKind) {
    if (!AwaitSettledStatus(info.empName, m_EmpInfo.StatusOf(info.empName))) {
        CLOSE_LOG(LEVEL_DETAIL,
                  "emp:%s status: EMP_NOT_FOUND, Maybe it was closed by other client.",
                  info.empName.c_str());
        return true;
    }
    if (const EMP_STATUS eStatus = m_EmpInfo.StatusOf(info.empName); RefusesClose(eStatus)) {
        CLOSE_LOG(LEVEL_ERROR, "[%s] status[%d] is incorrect", info.empName.c_str(), eStatus);
        return false;
    }

    CLOSE_LOG(LEVEL_DETAIL, "RPC Request:[CEmpAppBase::Close], empPort:[%s], clientport[%s]",
              info.empPort.c_str(), info.clientPort.c_str());
    // Made before the EMP is called: what it has answered is recorded, however short memory is.
    const ConnectionKey key{info.empName, info.empPort};
    const auto spProxy = boost::make_shared<CBrokerProxyEmp>(info.empPort);
    return RecordClose(key, info.clientPort, eKind, spProxy->Close(info.clientPort, eKind));
}

/// False for an EMP that lives nowhere.
bool CBroker::ClassifyForClose(const std::string& strEmp, EmpType::type& eKind,
                               std::string& strImage) {
    switch (WhereIsEMP(strEmp)) {
        case EMPLOCATION_EXTERNAL:
            eKind = EmpType::PROCESS;
            strImage = strEmp;
            return true;
        case EMPLOCATION_GROUPING: {
            eKind = EmpType::GROUPING;
            std::string strGroup;
            std::string strGroupPort;
            if (GetGroupingEMPInfo(strGroup, strGroupPort, strEmp)) {
                CLOSE_LOG(LEVEL_DETAIL, " EMP[%s] belongs to group [%s].", strEmp.c_str(),
                          strGroup.c_str());
                strImage = strGroup;
            }
            return true;
        }
        case EMPLOCATION_REGISTER:
            CLOSE_LOG(LEVEL_DETAIL, "[%s] Register EMP.", strEmp.c_str());
            eKind = EmpType::REGISTER;
            return true;
        default:
            CLOSE_LOG(LEVEL_ERROR, "[%s] Unknown-type EMP, Maybe it had already been closed.",
                      strEmp.c_str());
            return false;
    }
}

/// Before the close is even tried: one that is refused or fails lowers the count as well. The image
/// itself goes when the EMP's process has ended. True when the count has changed.
bool CBroker::LowerMountCount(const std::string& strImage) {
    if (GetEmpLocationType(strImage) != EMPFILE_MOUNTED) return false;

    const CLock lock{m_mtxMapEmp};
    const auto it = m_mapEmp.find(strImage);
    if (it == m_mapEmp.end()) {
        CLOSE_LOG(LEVEL_ERROR, "[Umount]: EMP [%s] is not in the map. ", strImage.c_str());
        return false;
    }
    CLOSE_LOG(LEVEL_DETAIL, "[Umount]: Found EMP [%s] in the map. ", strImage.c_str());
    if (it->second <= 0) return false;

    CLOSE_LOG(LEVEL_TRACE, "[Before-Umount] Count Reduce 1, Emp=[%s], count=[%d].",
              strImage.c_str(), it->second);
    const CLock change{m_mtxMountCount};  // over the record as well
    --it->second;
    CLOSE_LOG(LEVEL_TRACE, "[After-Umount] Count Reduce 1, Emp=[%s], count=[%d].", strImage.c_str(),
              it->second);
    return true;
}

void CBroker::RaiseMountCountAgain(const std::string& strImage) {
    const CLock lock{m_mtxMapEmp};
    const auto it = m_mapEmp.find(strImage);
    if (it != m_mapEmp.end()) AddToMountCount(it, 1);
}

/// Brings the tables up to date; what is missing there has gone meanwhile, and is logged.
/// `nReferences`: how many clients the EMP still serves; below 0, the call failed. Needs no
/// memory, as options are short.
bool CBroker::RecordClose(const ConnectionKey& key, const std::string& strClientPort,
                          EmpType::type eKind, int nReferences) {
    const char* const szEmp = key.first.c_str();

    if (nReferences < 0) {
        CLOSE_LOG(LEVEL_ERROR, "Error!! EMP[%s] ReferenceCounter[%d] ", szEmp, nReferences);
        if (m_EmpInfo.OptionOf(key.first) == kOptionSingleton) m_EmpInfo.Forget(key.first);
        (void)m_ConnectionDB.RemoveConnection(key, strClientPort);
        return false;
    }
    if (nReferences > 0)
        CLOSE_LOG(LEVEL_EVENT, "EMP:[%s] ReferenceCounter:[%d]", szEmp, nReferences);

    (void)m_EmpInfo.SetStatusOf(key.first, EMP_OPENED);
    if (nReferences == 0 && eKind == EmpType::REGISTER) {
        // No process ends that would report its stop: this is the end of the EMP.
        CLOSE_LOG(LEVEL_EVENT, "RegisterEMP[%s] ReferenceCounter[%d]", szEmp, nReferences);
        m_EmpInfo.Forget(key.first);
        (void)m_ConnectionDB.RemoveConnection(key, strClientPort);
        return true;
    }
    // The entry stays, also without clients, until the EMP reports its stop.
    (void)m_ConnectionDB.RemoveClient(key, strClientPort);
    return true;
}

}  // namespace vok
