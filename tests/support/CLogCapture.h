/// What the code under test logs.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "platform/CVOKDebug.h"

namespace vok::test {

/// One record, as the logger hands it to its sink.
struct LogRecord {
    int nLevel = 0;
    std::string strPrefix;   // "[VOK][OpenEmp(12)] "; empty when the message came without one
    std::string strMessage;  // as it is

    /// What stands in the prefix before the line number: "OpenEmp", "CEmpInfo::Add".
    std::string Function() const;
};

void PrintTo(const LogRecord& record, std::ostream* pStream);

/// Takes all records at the given level and below for as long as it lives, then puts the logger
/// back as it was. One at a time. Thread-safe.
///
///     CLogCapture log;
///     ...
///     EXPECT_TRUE(log.HasLine(LEVEL_ERROR, "OpenEmp", "Unknown location.")) << log.Text();
class CLogCapture : public ILogSink {
public:
    explicit CLogCapture(unsigned short nLevel = LEVEL_DETAIL);
    ~CLogCapture() override;
    CLogCapture(const CLogCapture&) = delete;
    CLogCapture& operator=(const CLogCapture&) = delete;

    void Write(int nLevel, std::string_view strPrefix, std::string_view strMessage) override;

    std::vector<LogRecord> Records() const;
    /// The messages in the order in which they came.
    std::vector<std::string> Messages() const;
    /// Those of one level.
    std::vector<std::string> Messages(int nLevel) const;
    /// "<level> <prefix><message>" line by line: what to print when a test fails.
    std::string Text() const;

    bool HasLine(int nLevel, std::string_view strFunction, std::string_view strMessage) const;
    int CountLines(int nLevel, std::string_view strFunction, std::string_view strMessage) const;
    /// Waits until there is such a line; false when it has not come in time.
    bool WaitForLine(int nLevel, std::string_view strFunction, std::string_view strMessage,
                     std::chrono::milliseconds timeout = std::chrono::seconds(10));

    void Clear();

private:
    int CountLocked(int nLevel, std::string_view strFunction, std::string_view strMessage) const;

    mutable std::mutex m_Mutex;
    std::condition_variable m_Changed;
    std::vector<LogRecord> m_Records;
    const unsigned short m_nFormerLevel;
};

}  // namespace vok::test
