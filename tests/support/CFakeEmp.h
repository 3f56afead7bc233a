/// EMP servers inside the test's process.
#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "platform/CUniqueFd.h"

namespace vok::test {

class CFakeServer;

/// One call as the EMP received it.
struct EmpCall {
    std::string strMethod;               // "Open", "Close", "Execute", "ExecuteWithParamList"
    std::vector<std::string> arguments;  // in order; the type of a `Close` as decimal text

    bool operator==(const EmpCall& other) const {
        return strMethod == other.strMethod && arguments == other.arguments;
    }
};

void PrintTo(const EmpCall& call, std::ostream* pStream);

/// An EMP that serves on a free loopback port and answers as it is told. It listens when the
/// constructor returns; the destructor ends all connections and waits for its threads. Thread-safe.
///
///     CFakeEmp emp;
///     emp.AnswerExecute("GetOption", "0001");
class CFakeEmp {
public:
    CFakeEmp();
    ~CFakeEmp();
    CFakeEmp(const CFakeEmp&) = delete;
    CFakeEmp& operator=(const CFakeEmp&) = delete;

    int Port() const;
    std::string PortText() const { return std::to_string(Port()); }

    /// The answers; at first 1 to `Open`, 0 to `Close`, "1" to the command "Ping" and "" to others.
    /// A command's answer counts for both kinds of `Execute`.
    void AnswerOpen(int nAnswer);
    void AnswerClose(int nAnswer);
    void AnswerExecute(const std::string& strCmd, const std::string& strAnswer);

    /// From now on every call is recorded and then fails: its caller gets a TApplicationException
    /// with this text.
    void FailCalls(const std::string& strText);
    /// Runs with every call before its answer is looked up, on the thread that serves it.
    void OnCall(std::function<void(const EmpCall&)> hook);

    /// In the order in which they came.
    std::vector<EmpCall> Calls() const;
    void ForgetCalls();

private:
    class CHandler;

    std::shared_ptr<CHandler> m_pHandler;
    std::unique_ptr<CFakeServer> m_pServer;
};

/// A peer that accepts connections, waits for a request and then does not do what the protocol asks
/// for. Serves on a free loopback port from the constructor to the destructor.
class CRawPeer {
public:
    /// Sends `strReply` (nothing when empty) and closes the connection.
    explicit CRawPeer(std::string strReply);
    /// Sends one of them on each connection in turn, the last one from then on.
    explicit CRawPeer(std::vector<std::string> replies);
    ~CRawPeer();
    CRawPeer(const CRawPeer&) = delete;
    CRawPeer& operator=(const CRawPeer&) = delete;

    int Port() const { return m_nPort; }
    std::string PortText() const { return std::to_string(m_nPort); }

    /// What the first read of each connection has brought.
    std::vector<std::string> Requests() const;

private:
    void Serve();
    void Record(const char* pData, ssize_t nSize);

    const std::vector<std::string> m_Replies;
    mutable std::mutex m_Mutex;
    std::vector<std::string> m_Requests;  // guarded by m_Mutex
    int m_nPort = 0;                      // before the socket, which sets it
    CUniqueFd m_Listener;
    CUniqueFd m_Stop;  // an eventfd
    std::thread m_Thread;
};

/// What `CRawPeer` sends: the first bytes of a sound answer to `Execute`.
std::string HalfAnAnswer();
/// What `CRawPeer` sends: bytes that begin no message.
std::string Garbage();

/// A loopback TCP port that refuses connections for as long as this lives.
class CRefusedPort {
public:
    CRefusedPort();

    int Port() const { return m_nPort; }
    std::string PortText() const { return std::to_string(m_nPort); }

private:
    int m_nPort = 0;     // before the socket, which sets it
    CUniqueFd m_Socket;  // bound, so that nobody else gets the port, and not listening
};

}  // namespace vok::test
