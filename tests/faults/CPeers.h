/// The faulty peers of a test's world.
#pragma once

#include <string>
#include <vector>

#include "platform/CUniqueFd.h"

namespace vok::test {

/// One of them in each world. One thread at a time. Ends all peers with itself.
class CPeers {
public:
    static constexpr char kProgram[] = "fault-peer";

    CPeers();
    ~CPeers();
    CPeers(const CPeers&) = delete;
    CPeers& operator=(const CPeers&) = delete;

    /// What those do that come to the step from now on.
    void Script(const std::string& strStep, const std::string& strFault);
    /// They do what they should.
    void Behave();

    /// Waits until one has come to its fault.
    bool AwaitFault() const;
    /// Waits until all that are alive are stopped.
    bool AwaitStopped() const;

    /// SIGSTOP, and AwaitStopped.
    bool Stop() const;
    void Continue() const;
    /// SIGKILL to all that are alive, and waits for their end.
    bool Kill() const;

    /// Connects to the port, whose server is stopped, until no further connection is made: from
    /// then on who connects waits. False when it does not come to that.
    bool FillQueue(const std::string& strPort);

    /// Those that are alive.
    std::vector<int> Pids() const;

private:
    void Signal(int nSignal) const;

    std::vector<CUniqueFd> m_Queue;
};

}  // namespace vok::test
