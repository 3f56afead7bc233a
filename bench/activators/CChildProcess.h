/// A program that runs beside what is measured.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

#include "platform/CUniqueFd.h"

namespace vok::bench {

/// Waits until the process behind a pidfd has ended, as a zombie at least. False when it has not in
/// time.
bool AwaitEnd(const CUniqueFd& process, std::chrono::milliseconds patience);

/// A pidfd; throws std::system_error when there is no such process.
CUniqueFd OpenProcess(pid_t nPid);

/// Runs from the constructor to the destructor, which ends it by SIGTERM, by SIGKILL when that does
/// not help, and waits for it.
class CChildProcess {
public:
    /// `arguments`: the program, found by $PATH and in the folders of the system's daemons, and
    /// what it is given. Standard output and error go to `strOutputFile`; a descriptor `nInherited`
    /// that is not -1 is the program's descriptor 3. Throws std::system_error.
    CChildProcess(const std::vector<std::string>& arguments, const std::string& strOutputFile,
                  int nInherited = -1);
    ~CChildProcess();
    CChildProcess(const CChildProcess&) = delete;
    CChildProcess& operator=(const CChildProcess&) = delete;

    pid_t Pid() const { return m_nPid; }
    bool IsRunning() const { return !AwaitEnd(m_Process, std::chrono::milliseconds::zero()); }

private:
    pid_t m_nPid = -1;
    CUniqueFd m_Process;
};

}  // namespace vok::bench
