// The browser's plug-in set: which of its two images is mounted at start-up.
#include "broker/CBroker.h"
#include "broker/PluginChoice.h"
#include "platform/EmpPaths.h"
#include "platform/Log.h"

namespace vok {

namespace {

#define START_LOG(level, ...) VOK_LOG_AS("StartServer", level, __VA_ARGS__)

}  // namespace

bool PrefersUpdate(double dUpdate, double dBuiltIn, bool bUpdateHasContent) {
    if (dUpdate > dBuiltIn) return true;
    // An update that is not newer only serves when it cannot even be looked at, yet has a version.
    return !bUpdateHasContent && dUpdate > 0.0;
}

/// False when the plug-in set cannot be mounted: without it the browser must not be served.
bool CBroker::PreparePlugins() {
    if (!InstallPluginUpdate()) return false;

    const double dUpdate = ReadUpdateVersion();
    const double dBuiltIn = m_ParseLocalEmpCfgFile(paths::PreinstalledConfig(paths::kPlugins));
    START_LOG(LEVEL_DETAIL, "[/opt/down/emps]:%f [/usr/bin/emps]:%f", dUpdate, dBuiltIn);

    if (Pepper_Img_Mount(ChoosePluginImage(dUpdate, dBuiltIn))) return true;
    START_LOG(LEVEL_ERROR, "Failed to mount [PepperPlugins], BrokerServer won't be launched.");
    return false;
}

bool CBroker::InstallPluginUpdate() {
    if (!m_Platform.pFiles->IsAccessible(paths::kPluginDownload)) {
        START_LOG(LEVEL_DETAIL, "[PepperPlugins] There is no update now.");
        return true;
    }
    const std::string strInstalled = paths::ImageFile(paths::kPlugins);
    if (!m_Platform.pFiles->Move(paths::kPluginDownload, strInstalled)) {
        START_LOG(LEVEL_ERROR, "Failed to MoveFile:[PepperPlugins].");
        return false;
    }
    START_LOG(LEVEL_DETAIL, "### Move [%s] to [%s] ###", paths::kPluginDownload,
              strInstalled.c_str());
    return true;
}

/// The version of the installed update, which is mounted to be looked at; -1.0 when it cannot be.
double CBroker::ReadUpdateVersion() {
    double dVersion = -1.0;
    if (Img_Mount(paths::kPlugins))
        dVersion = m_ParseLocalEmpCfgFile(paths::DownloadedConfig(paths::kPlugins));
    else
        START_LOG(LEVEL_ERROR, "strOldPepper Img_Mount Fail");

    if (!Img_UnMount(paths::kPlugins)) (void)Img_UnMount(paths::kPlugins);
    return dVersion;
}

std::string CBroker::ChoosePluginImage(double dUpdate, double dBuiltIn) {
    const std::string strUpdate = paths::ImageFile(paths::kPlugins);
    bool bUpdateHasContent = false;
    if (!(dUpdate > dBuiltIn)) {
        const auto nSize = m_Platform.pFiles->SizeOf(strUpdate.c_str());
        if (nSize)
            START_LOG(LEVEL_DETAIL, "Size of NewPeppersize [%ld] bytes", *nSize);
        else
            START_LOG(LEVEL_ERROR, "Error opening file.");
        bUpdateHasContent = nSize && *nSize >= 1;
    }
    return PrefersUpdate(dUpdate, dBuiltIn, bUpdateHasContent)
               ? strUpdate
               : paths::PreinstalledImage(paths::kPlugins);
}

}  // namespace vok
