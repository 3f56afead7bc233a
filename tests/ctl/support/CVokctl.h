/// vokctl as a process, as its users run it.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "platform/CUniqueFd.h"

namespace vok::test {

struct VokctlOptions {
    std::map<std::string, std::string> environment = {};  // on top of a UTF-8 locale and a terminal
    bool bTerminal = false;                               // the standard output is one
    unsigned short nColumns = 100;                        // of the terminal
    unsigned short nRows = 40;
    bool bNoOutput = false;  // started without a standard output
    unsigned int nUser = 0;  // 0: the test's own
};

/// What came of it.
struct VokctlResult {
    int nExit = -1;  // 128 + n when signal n ended it
    std::string strOut;
    std::string strErr;
};

/// Runs the program of the build from the constructor on; killed with the object. One thread at a
/// time.
class CVokctl {
public:
    /// Longer than anything takes; a program that has not ended then is killed.
    static constexpr std::chrono::seconds kPatience{60};

    explicit CVokctl(std::vector<std::string> arguments, const VokctlOptions& options = {});
    ~CVokctl();
    CVokctl(const CVokctl&) = delete;
    CVokctl& operator=(const CVokctl&) = delete;

    /// Waits until its output has the text so many times; false when it ends without, or not in
    /// time.
    bool AwaitOutput(const std::string& strText, int nTimes = 1);
    const std::string& Output() const { return m_Result.strOut; }
    void Signal(int nSignal) const;
    void CloseInput() { m_Input.Reset(); }
    /// Nobody reads its output any more.
    void CloseOutput() { m_Output.Reset(); }
    /// Gives its terminal another size.
    void Resize(unsigned short nColumns, unsigned short nRows) const;

    /// Waits for the end.
    VokctlResult Finish();

private:
    void Start(const std::vector<std::string>& arguments, const VokctlOptions& options);
    /// Reads what there is; false when there will be nothing more, or nothing has come in time.
    bool ReadMore(std::chrono::steady_clock::time_point deadline);

    pid_t m_nPid = 0;  // 0: it has been waited for
    CUniqueFd m_Input;
    CUniqueFd m_Output;
    CUniqueFd m_Error;
    VokctlResult m_Result;
};

/// From its begin to its end.
VokctlResult Vokctl(const std::vector<std::string>& arguments, const VokctlOptions& options = {});

}  // namespace vok::test
