/// The super-server that starts services by their first connection.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string>

#include "bench/activators/CChildProcess.h"
#include "tests/support/CTemporaryFolder.h"

namespace vok::bench {

/// xinetd with one service: an EMP on a loopback port that is started by the first connection and
/// gets the listening socket. Runs from the constructor to the destructor; its files are temporary.
class CXinetd {
public:
    /// `strEmpProgram`: the full path of vok-bench-xinetd-emp or its static twin; `nPort`: a free
    /// port. Throws std::runtime_error, as everything here, with xinetd's words.
    CXinetd(int nPort, const std::string& strEmpProgram);
    /// Ends the EMP, too.
    ~CXinetd();
    CXinetd(const CXinetd&) = delete;
    CXinetd& operator=(const CXinetd&) = delete;

    /// Of xinetd: who measures its memory or pins it to a processor needs it.
    pid_t Pid() const { return m_pDaemon->Pid(); }

    /// How long it took from the connect until the answer to the first call, of an EMP that does
    /// not run when `Release` or the constructor came before.
    std::chrono::nanoseconds FirstAnswer();
    /// Ends the EMP, which runs. When this returns, xinetd waits for the next first connection.
    void Release();

private:
    std::string WriteConfiguration(const std::string& strEmpProgram) const;
    void AwaitListening() const;
    void AwaitReaping() const;
    void EndEmp();
    [[noreturn]] void Fail(const std::string& strWhat) const;

    const int m_nPort;
    const vok::test::CTemporaryFolder m_Folder;
    std::unique_ptr<CChildProcess> m_pDaemon;
    pid_t m_nEmp = 0;  // 0: does not run
    CUniqueFd m_Emp;   // its pidfd
};

}  // namespace vok::bench
