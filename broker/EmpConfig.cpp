// Versions: the broker's own, and those in the configuration files of EMPs.
#include <boost/lexical_cast.hpp>
#include <pugixml.hpp>

#include "broker/CBroker.h"
#include "platform/Log.h"

namespace vok {

std::string CBroker::GetFullVersion() {
    std::string strVersion = "5.100";
    VOK_LOG(LEVEL_DETAIL, "GetFullVersion : [%s].", strVersion.c_str());
    return strVersion;
}

int CBroker::GetMajorVersion() {
    return 5;
}

int CBroker::GetMinorVersion() {
    return 100;
}

std::string CVokWrapper::GetVokVersion() {
    return CBroker::GetFullVersion();
}

double CBroker::m_ParseLocalEmpCfgFile(const std::string& strPath) {
    if (strPath.empty()) {
        VOK_LOG(LEVEL_ERROR, "Input Xml file is empty!");
        return 0.0;
    }
    pugi::xml_document document;
    if (!document.load_file(strPath.c_str())) {
        VOK_LOG(LEVEL_ERROR, "doc.load Emp config file error!");
        return 0.0;
    }
    const char* szVersion = document.child("Emp").child_value("Version");
    double dVersion = 0.0;
    return boost::conversion::try_lexical_convert(szVersion, dVersion) ? dVersion : 0.0;
}

}  // namespace vok
