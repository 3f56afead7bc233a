// Where an EMP lives, by its files and by the launchers' tables. Nothing is changed here.
#include "broker/CBroker.h"
#include "platform/EmpPaths.h"
#include "platform/Limits.h"
#include "platform/Log.h"

namespace vok {

eEmpLocation CBroker::WhereIsEMP(const std::string& strEmp) {
    VOK_LOG(LEVEL_DETAIL, "In WhereIsEMP, use USE_MOUNTABLE_EXECUTABLE_EMP branch");

    std::string strLauncher;
    std::string strPort;
    eEmpLocation location = EMPLOCATION_UNKNOWN;
    // A name that would lead out of its folder has no files; a launcher may still serve it.
    if (paths::IsFileName(strEmp) && (CheckEmpFile(paths::ImageFile(strEmp).c_str()) ||
                                      CheckEmpFile(paths::PreinstalledProgram(strEmp).c_str()))) {
        VOK_LOG(LEVEL_DETAIL, "External EMP:[%s].", strEmp.c_str());
        location = EMPLOCATION_EXTERNAL;
    } else if (GetGroupingEMPInfo(strLauncher, strPort, strEmp)) {
        VOK_LOG(LEVEL_DETAIL, "Grouping EMP:[%s].", strEmp.c_str());
        location = EMPLOCATION_GROUPING;
    } else if (GetRegisterEMPInfo(strLauncher, strPort, strEmp)) {
        VOK_LOG(LEVEL_DETAIL, "Register EMP:[%s].", strEmp.c_str());
        location = EMPLOCATION_REGISTER;
    } else {
        VOK_LOG(LEVEL_ERROR, "Unknown location.");
    }

    VOK_LOG(LEVEL_DETAIL, "[%s] belongs to [%d]", strEmp.c_str(), location);
    return location;
}

int CBroker::GetEmpLocationType(const std::string& strEmp) {
    if (!paths::IsFileName(strEmp)) return EMPFILE_NONE;
    if (CheckEmpFile(paths::DownloadedProgram(strEmp).c_str())) return EMPFILE_MOUNTED;
    if (CheckEmpFile(paths::ImageFile(strEmp).c_str())) return EMPFILE_IMAGE;
    if (CheckEmpFile(paths::PreinstalledProgram(strEmp).c_str())) return EMPFILE_PREINSTALLED;
    return EMPFILE_NONE;
}

std::string CBroker::GetEmpIP(eEmpLocation location) {
    switch (location) {
        case EMPLOCATION_BROKER:
        case EMPLOCATION_EXTERNAL:
        case EMPLOCATION_GROUPING:
        case EMPLOCATION_REGISTER:
            return GetProcessIP(PROCESSTYPE_CLIENT);
        case EMPLOCATION_INTERNAL:
            return GetProcessIP(PROCESSTYPE_BROKER);
        default:
            VOK_LOG(LEVEL_ERROR, "No type for [%d]. It may assign EMPLOCATION_BROKER", location);
            return GetProcessIP(PROCESSTYPE_CLIENT);
    }
}

std::string CBroker::GetProcessIP(eProcessType type) {
    if (type != PROCESSTYPE_BROKER && type != PROCESSTYPE_CLIENT)
        VOK_LOG(LEVEL_ERROR, "!!FATAL!! There is no case for [%d]. it may return 127.0.0.1", type);
    return kBrokerAddress;
}

bool CBroker::CheckEmpFile(const char* szPath) {
    VOK_LOG(LEVEL_DETAIL, "Check EMP File:[%s]", szPath == nullptr ? "(null)" : szPath);
    return szPath != nullptr && m_Platform.pFiles->Exists(szPath);
}

}  // namespace vok
