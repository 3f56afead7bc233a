/// A program of the bench: a process that takes orders, a line each.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "bench/activators/CChildProcess.h"
#include "platform/CUniqueFd.h"

namespace vok::bench {

/// Runs a program of the build until the destructor, which ends it. The program's descriptor
/// kOrders is a socket to here (see Lines.h). It has the processors and the network of its maker.
class CChild {
public:
    /// Throws std::system_error when it cannot be started.
    CChild(const std::string& strProgram, const std::vector<std::string>& arguments);

    /// Sends a line, and waits for the answer. Throws std::runtime_error when there is none.
    std::string Ask(const std::string& strLine);
    pid_t Pid() const { return m_pProcess->Pid(); }

private:
    const std::string m_strProgram;
    CUniqueFd m_Socket;
    std::unique_ptr<CChildProcess> m_pProcess;
};

}  // namespace vok::bench
