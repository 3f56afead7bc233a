// A KPI logger for sets without a log server: events go to the local log.
#include <cstdio>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "platform/CLogger.h"
#include "platform/Log.h"

namespace vok {

namespace {

/// What is taken of one text: syslog cuts records, and texts come from clients.
constexpr std::size_t kMostOfText = 512;

/// One record is one line, whatever an event's texts contain.
std::string OnOneLine(const std::string& strText) {
    std::string strLine;
    for (const char c : strText.substr(0, kMostOfText)) {
        const auto nByte = static_cast<unsigned char>(c);
        if (nByte >= 0x20 && nByte != 0x7f) {
            strLine += c;
            continue;
        }
        char szEscaped[5] = {};
        (void)std::snprintf(szEscaped, sizeof szEscaped, "\\x%02x", nByte);
        strLine += szEscaped;
    }
    return strLine;
}

class CLocalLogger : public CLogger {
public:
    bool SetServiceConf(const std::string& strService, int, int, int, int,
                        const std::string& strUrl) override {
        m_strService = strService;
        m_strUrl = strUrl;
        return true;
    }

    bool AddEvent(const std::string& strCategory, int, int, int, int) override {
        m_strCategory = strCategory;
        return true;
    }

    bool SetEventHeader(const KpiEventHeader& header) override {
        m_Header = header;
        return true;
    }

    bool AddEventLog(const std::string& strEventId, const std::string& strDescription,
                     const std::string& strModel) override {
        std::string strLine = "KPI event";
        for (const auto& [szName, strText] :
             std::initializer_list<std::pair<const char*, const std::string&>>{
                 {"service", m_strService},
                 {"url", m_strUrl},
                 {"category", m_strCategory},
                 {"id", strEventId},
                 {"event", m_Header.strDescription},
                 {"errtype", m_Header.strErrType},
                 {"emp", m_Header.strEmp},
                 {"version", m_Header.strBrokerVersion},
                 {"model", strModel},
                 {"desc", strDescription}})
            strLine += std::string(" ") + szName + ":[" + OnOneLine(strText) + ']';
        m_Lines.push_back(std::move(strLine));
        return true;
    }

    /// At the level that no setting filters.
    bool Flush() override {
        for (const std::string& strLine : m_Lines)
            VOK_CLASS_LOG("CLogger", LEVEL_ERROR, "%s", strLine.c_str());
        m_Lines.clear();
        return true;
    }

private:
    std::string m_strService;
    std::string m_strUrl;
    std::string m_strCategory;
    KpiEventHeader m_Header;
    std::vector<std::string> m_Lines;
};

}  // namespace

std::unique_ptr<CLogger> CLogger::Create(const void*) {
    return std::make_unique<CLocalLogger>();
}

}  // namespace vok
