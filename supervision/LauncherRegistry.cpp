// Which launcher serves which EMP.
#include <tuple>

#include "broker/CBroker.h"
#include "platform/Log.h"

namespace vok {

namespace {

/// The first launcher, in key order, that serves an EMP; the end when none does.
LauncherTable::const_iterator FindLauncherOf(const LauncherTable& table,
                                             const std::string& strEmp) {
    auto it = table.begin();
    while (it != table.end() && it->second.count(strEmp) == 0) ++it;
    return it;
}

}  // namespace

bool CBroker::GetGroupingEMPInfo(std::string& strGroupName, std::string& strGroupPort,
                                 std::string strEmp) {
    VOK_LOG(LEVEL_DETAIL, ">>>>>>>>Find [%s]'s group name, Current Map size:[%d].", strEmp.c_str(),
            CountGroupingEmps());
    const CLock lock{m_mtxGroupingEmp};
    const auto it = FindLauncherOf(m_mapGroupingEmp, strEmp);
    if (it == m_mapGroupingEmp.end()) return false;

    std::tie(strGroupName, strGroupPort) = it->first;
    VOK_LOG(LEVEL_DETAIL, ">>Found it, it's group name:[%s], port:[%s].", strGroupName.c_str(),
            strGroupPort.c_str());
    return true;
}

bool CBroker::GetRegisterEMPInfo(std::string& strLauncherName, std::string& strLauncherPort,
                                 std::string strEmp) {
    VOK_LOG(LEVEL_DETAIL, ">>Find [%s]'s Service name, Current Map size:[%d].", strEmp.c_str(),
            CountRegisterEmps());
    const CLock lock{m_mtxRegisterEmp};
    const auto it = FindLauncherOf(m_mapRegisterEmp, strEmp);
    if (it == m_mapRegisterEmp.end()) return false;

    std::tie(strLauncherName, strLauncherPort) = it->first;
    VOK_LOG(LEVEL_DETAIL, ">> Found it, it's Register Service name:[%s], port:[%s].",
            strLauncherName.c_str(), strLauncherPort.c_str());
    return true;
}

int CBroker::CountGroupingEmps() {
    const CLock lock{m_mtxGroupingEmp};
    return static_cast<int>(m_mapGroupingEmp.size());
}

int CBroker::CountRegisterEmps() {
    const CLock lock{m_mtxRegisterEmp};
    return static_cast<int>(m_mapRegisterEmp.size());
}

bool CBroker::RegisterEMP(const std::string& strEmp, const std::string& strLauncherPort) {
    VOK_LOG(LEVEL_EVENT, "[RegisterEMP] Emp[%s], Launcher port[%s]", strEmp.c_str(),
            strLauncherPort.c_str());
    return false;
}

bool CBroker::UnRegisterEMP(const std::string& strEmp, const std::string& strLauncherPort) {
    VOK_LOG(LEVEL_EVENT, "[UnRegisterEMP] Emp[%s], Launcher port[%s].", strEmp.c_str(),
            strLauncherPort.c_str());
    return false;
}

void CBroker::AddLauncherInfo(std::string strName, std::string strPort) {
    VOK_LOG(LEVEL_EVENT, "Register launchers are not kept yet:[%s,%s].", strName.c_str(),
            strPort.c_str());
}

bool CBroker::UpdateLauncherInfo(LauOption_E option, std::string strName, std::string strPort) {
    VOK_LOG(LEVEL_EVENT, "Register launchers are not kept yet:[%s,%s], option:[%d].",
            strName.c_str(), strPort.c_str(), option);
    return false;
}

void CBroker::RemoveLauncherInfo(std::string strName, std::string strPort) {
    VOK_LOG(LEVEL_EVENT, "Register launchers are not kept yet:[%s,%s].", strName.c_str(),
            strPort.c_str());
}

}  // namespace vok
