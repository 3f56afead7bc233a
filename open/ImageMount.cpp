// Mounting and unmounting of images, and who still relies on them.
#include "broker/CBroker.h"
#include "platform/EmpPaths.h"
#include "platform/Limits.h"
#include "platform/Log.h"

namespace vok {

bool CBroker::MountPatiently(const char* szOperation, const std::string& strImageFile,
                             const std::string& strMountPoint) {
    // A broker that is to stop does not go on trying.
    for (int nAttempt = 1; nAttempt <= kMountAttempts && !m_bStopRequested; ++nAttempt) {
        m_Platform.pClock->Sleep(kMountPause);
        if (m_Platform.pMounter->Mount(strImageFile, strMountPoint)) {
            VOK_LOG_AS(szOperation, LEVEL_DETAIL, "Succeed to mount [%s].", strImageFile.c_str());
            return true;
        }
        VOK_LOG_AS(szOperation, LEVEL_ERROR, "Failed to mount:[%s], Failing Times:[%d].",
                   strImageFile.c_str(), nAttempt);
    }
    return false;
}

bool CBroker::Img_Mount(std::string strEmp) {
    if (strEmp.empty()) {
        VOK_LOG(LEVEL_ERROR, "Image name is empty.");
        return false;
    }
    if (m_Platform.pMounter->IsImgMounted(strEmp)) {
        VOK_LOG(LEVEL_DETAIL, "Image:[%s] had been mounted, no need to mount again.",
                strEmp.c_str());
        return true;
    }
    if (MountPatiently(__func__, paths::ImageFile(strEmp), paths::MountPoint(strEmp))) return true;

    VOK_LOG(LEVEL_ERROR, "### [Exit] Img_Mount  Result:[Failed] ###.");
    return false;
}

bool CBroker::Img_UnMount(std::string strEmp) {
    if (strEmp.empty()) {
        VOK_LOG(LEVEL_ERROR, "Image name is empty.");
        return false;
    }
    if (!m_Platform.pMounter->IsImgMounted(strEmp)) {
        VOK_LOG(LEVEL_DETAIL, "Are you kidding me? Image:[%s] was not mounted yet!",
                strEmp.c_str());
        return false;
    }
    return m_Platform.pMounter->Umount(paths::MountPoint(strEmp));
}

bool CBroker::Pepper_Img_Mount(std::string strImageFile) {
    if (strImageFile.empty()) {
        VOK_LOG(LEVEL_ERROR, "Image name is empty.");
        return false;
    }
    if (m_Platform.pFiles->IsAccessible(paths::kPluginProbe)) {
        VOK_LOG(LEVEL_DETAIL, "[%s] had already been mounted.", strImageFile.c_str());
        return true;
    }
    VOK_LOG(LEVEL_DETAIL, "Pepper_Img_Mount:[%s]", strImageFile.c_str());
    if (MountPatiently(__func__, strImageFile, paths::kPluginMountPoint)) return true;

    VOK_LOG(LEVEL_ERROR, "[Exit] Mount_Pepper_Plugins  Result:[Failed].");
    return false;
}

bool CBroker::UnmoutEMP(const std::string& strEmp) {
    VOK_LOG(LEVEL_DETAIL, "Enter [UnmoutEMP], emp:[%s].", strEmp.c_str());
    // Held to the end: no open mounts or counts this image meanwhile.
    const CLock lock{m_mtxMapEmp};
    const bool bDone = UnmountUnused(strEmp);
    VOK_LOG(LEVEL_DETAIL, "Leave [UnmoutEMP], emp:[%s].", strEmp.c_str());
    return bDone;
}

bool CBroker::UnmountUnused(const std::string& strEmp) {
    constexpr const char* kOperation = "UnmoutEMP";
    const auto it = m_mapEmp.find(strEmp);
    if (it == m_mapEmp.end()) {
        VOK_LOG_AS(kOperation, LEVEL_ERROR, "EMP [%s] is not in the map. ", strEmp.c_str());
        return true;
    }
    if (it->second != 0) {
        VOK_LOG_AS(kOperation, LEVEL_ERROR,
                   "No need to umount emp:[%s], Cause the umount count isn't equal to 0.",
                   strEmp.c_str());
        return true;
    }

    VOK_LOG_AS(kOperation, LEVEL_TRACE, "Umount: Emp=[%s], count=[%d].", strEmp.c_str(),
               it->second);
    if (GetEmpLocationType(strEmp) == EMPFILE_MOUNTED) {
        const std::string strMountPoint = paths::MountPoint(strEmp);
        VOK_LOG_AS(kOperation, LEVEL_DETAIL, "Umount:[%s].", strMountPoint.c_str());
        if (!m_Platform.pMounter->Umount(strMountPoint)) {
            VOK_LOG_AS(kOperation, LEVEL_ERROR, "Umount for [%s] EMP Failed!", strEmp.c_str());
            return false;
        }
    } else {
        VOK_LOG_AS(kOperation, LEVEL_ERROR, "Not a Mounted EMP, No need to umount.");
    }
    VOK_LOG_AS(kOperation, LEVEL_TRACE, "Umount for [%s] EMP Succeeded!", strEmp.c_str());
    EraseMountCount(it);
    return true;
}

// --- The counts. Two locks to change them, one to look: that one is never held for long.

std::pair<MountCounts::iterator, bool> CBroker::EnterMountCount(const std::string& strImage) {
    const CLock change{m_mtxMountCount};
    return m_mapEmp.try_emplace(strImage, 0);
}

void CBroker::AddToMountCount(MountCounts::iterator it, int nMore) {
    const CLock change{m_mtxMountCount};
    it->second += nMore;
}

void CBroker::EraseMountCount(MountCounts::iterator it) {
    const CLock change{m_mtxMountCount};
    m_mapEmp.erase(it);
}

/// Which lock is enough to look, the analysis cannot be told.
MountCounts CBroker::CopyMountCounts() VOK_TSA(no_thread_safety_analysis) {
    const CLock look{m_mtxMountCount};
    return m_mapEmp;
}

}  // namespace vok
