#include "tests/support/CLogCapture.h"

#include <algorithm>
#include <sstream>

namespace vok::test {

std::string LogRecord::Function() const {
    static constexpr std::string_view kStart = "[VOK][";
    if (strPrefix.compare(0, kStart.size(), kStart) != 0) return "";
    const std::size_t nEnd = strPrefix.rfind('(');
    if (nEnd == std::string::npos) return "";
    return strPrefix.substr(kStart.size(), nEnd - kStart.size());
}

void PrintTo(const LogRecord& record, std::ostream* pStream) {
    *pStream << record.nLevel << ' ' << record.strPrefix << record.strMessage;
}

CLogCapture::CLogCapture(unsigned short nLevel) : m_nFormerLevel(CVOKDebug::GetLogLevel()) {
    CVOKDebug::SetSink(this);
    CVOKDebug::SetLogLevel(nLevel);
}

CLogCapture::~CLogCapture() {
    CVOKDebug::SetLogLevel(m_nFormerLevel);
    CVOKDebug::SetSink(nullptr);
}

void CLogCapture::Write(int nLevel, std::string_view strPrefix, std::string_view strMessage) {
    const std::lock_guard<std::mutex> lock(m_Mutex);
    m_Records.push_back({nLevel, std::string(strPrefix), std::string(strMessage)});
    m_Changed.notify_all();
}

std::vector<LogRecord> CLogCapture::Records() const {
    const std::lock_guard<std::mutex> lock(m_Mutex);
    return m_Records;
}

std::vector<std::string> CLogCapture::Messages() const {
    const std::lock_guard<std::mutex> lock(m_Mutex);
    std::vector<std::string> messages;
    for (const LogRecord& record : m_Records) messages.push_back(record.strMessage);
    return messages;
}

std::vector<std::string> CLogCapture::Messages(int nLevel) const {
    const std::lock_guard<std::mutex> lock(m_Mutex);
    std::vector<std::string> messages;
    for (const LogRecord& record : m_Records) {
        if (record.nLevel == nLevel) messages.push_back(record.strMessage);
    }
    return messages;
}

std::string CLogCapture::Text() const {
    const std::lock_guard<std::mutex> lock(m_Mutex);
    std::ostringstream text;
    for (const LogRecord& record : m_Records) {
        PrintTo(record, &text);
        text << '\n';
    }
    return text.str();
}

bool CLogCapture::HasLine(int nLevel, std::string_view strFunction,
                          std::string_view strMessage) const {
    return CountLines(nLevel, strFunction, strMessage) > 0;
}

int CLogCapture::CountLines(int nLevel, std::string_view strFunction,
                            std::string_view strMessage) const {
    const std::lock_guard<std::mutex> lock(m_Mutex);
    return CountLocked(nLevel, strFunction, strMessage);
}

bool CLogCapture::WaitForLine(int nLevel, std::string_view strFunction, std::string_view strMessage,
                              std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(m_Mutex);
    return m_Changed.wait_for(lock, timeout,
                              [&] { return CountLocked(nLevel, strFunction, strMessage) > 0; });
}

void CLogCapture::Clear() {
    const std::lock_guard<std::mutex> lock(m_Mutex);
    m_Records.clear();
}

int CLogCapture::CountLocked(int nLevel, std::string_view strFunction,
                             std::string_view strMessage) const {
    const auto bMatches = [&](const LogRecord& record) {
        return record.nLevel == nLevel && record.strMessage == strMessage &&
               record.Function() == strFunction;
    };
    return static_cast<int>(std::count_if(m_Records.begin(), m_Records.end(), bMatches));
}

}  // namespace vok::test
