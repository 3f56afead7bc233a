// Which EMPs are grouping processes, and what they host: told by their configuration files.
#include <boost/algorithm/string/trim.hpp>
#include <pugixml.hpp>

#include "broker/CBroker.h"
#include "platform/EmpPaths.h"
#include "platform/Limits.h"
#include "platform/Log.h"

namespace vok {

namespace {

#define GROUPS_LOG(level, ...) VOK_LOG_AS("ReadGroupingEmps", level, __VA_ARGS__)

constexpr char kFolderStart[] = "emp";

/// The EMPs that a configuration file names as hosted: <Emp><GroupingEmps><Name>..</Name>..
/// Empty for an EMP that is no grouping process, and for a malformed file, which is logged.
std::set<std::string> ReadHostedEmps(IFiles& files, const std::string& strPath) {
    const auto strXml = files.ReadText(strPath.c_str(), kMaxTextFile);
    if (!strXml) return {};

    pugi::xml_document document;
    const auto result = document.load_buffer(strXml->data(), strXml->size());
    if (!result || !document.child("Emp")) {
        GROUPS_LOG(LEVEL_ERROR, "The EMP configuration [%s] is malformed: %s.", strPath.c_str(),
                   result ? "its root is not <Emp>" : result.description());
        return {};
    }
    std::set<std::string> setEmp;
    for (const auto& name : document.child("Emp").child("GroupingEmps").children("Name")) {
        std::string strEmp;
        for (const auto& piece : name.children()) strEmp += piece.value();
        boost::trim(strEmp);
        if (!strEmp.empty()) setEmp.insert(strEmp);
    }
    return setEmp;
}

}  // namespace

/// An EMP may have files in both folders: what either of them names is hosted.
void CBroker::ReadGroupingEmps() {
    for (const std::string_view strFolderOfEmps :
         {paths::kPreinstalledEmps, paths::kDownloadedEmps}) {
        const std::string strRoot{strFolderOfEmps};
        for (const std::string& strFolder : m_Platform.pFiles->List(strRoot.c_str())) {
            if (strFolder.rfind(kFolderStart, 0) != 0 || strFolder == kFolderStart) continue;

            std::string strConfig = strRoot;
            strConfig.append("/").append(strFolder).append("/").append(strFolder).append(".xml");
            const auto setEmp = ReadHostedEmps(*m_Platform.pFiles, strConfig);
            if (setEmp.empty()) continue;
            InsertGroupingEMP(strFolder.substr(sizeof kFolderStart - 1), kGroupNotRunning, setEmp);
        }
    }
}

}  // namespace vok
