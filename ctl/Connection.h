/// Calls that never wait for longer than they may.
#pragma once

#include <thrift/TApplicationException.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/protocol/TProtocolException.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TSocket.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

namespace vok::ctl {

/// What keeps a call from its answer.
enum class eTrouble {
    Missing,      // no socket file there
    Refused,      // nobody serves there
    Forbidden,    // not for this user
    TimedOut,     // no answer in time
    Interrupted,  // by a signal that ends the program
    Broken,       // the connection ended
    Garbled,      // what came is no answer
    Unknown,      // the peer does not know this call
    Declined,     // the peer answered with an exception
};

class CCallError : public std::runtime_error {
public:
    CCallError(eTrouble trouble, const std::string& strWhat)
        : std::runtime_error(strWhat), m_Trouble(trouble) {}
    eTrouble Trouble() const { return m_Trouble; }

private:
    eTrouble m_Trouble;
};

/// The time that is left for a call, from connecting to its answer.
class CPatience {
public:
    /// `nInterrupt`: a descriptor that ends the wait when it can be read; -1: none.
    explicit CPatience(std::chrono::milliseconds whole, int nInterrupt = -1);

    /// Waits until poll(2) reports one of the events. Throws CCallError: TimedOut, Interrupted.
    void Await(int nFd, short nEvents) const;
    /// A moment of it, before something is tried again. Throws as Await does.
    void Pause() const;
    std::chrono::milliseconds Whole() const { return m_Whole; }

private:
    int RemainingMs() const;
    bool Poll(int nFd, short nEvents, int nMs) const;

    std::chrono::milliseconds m_Whole;
    std::chrono::steady_clock::time_point m_Deadline;
    int m_nInterrupt;
};

/// A socket whose reads and writes wait no longer than the patience lasts, however the peer
/// portions what it sends.
class CPatientSocket : public apache::thrift::transport::TSocket {
public:
    /// Owns `nFd`, a socket that does not block.
    CPatientSocket(int nFd, const CPatience& patience);

    uint32_t read(uint8_t* pBuffer, uint32_t nSize) override;
    void write(const uint8_t* pBuffer, uint32_t nSize) override;

private:
    CPatience m_Patience;
};
using Socket = std::shared_ptr<CPatientSocket>;

/// Both throw CCallError when there is no connection.
Socket ConnectTcp(const std::string& strAddress, int nPort, const CPatience& patience);
Socket ConnectUnix(const std::string& strPath, const CPatience& patience);

/// False when the loopback interface is down: what is sent to it then vanishes without an error.
bool IsLoopbackUp();

/// Throws what an exception of the RPC library means, as CCallError.
[[noreturn]] void ThrowTrouble(const apache::thrift::transport::TTransportException& error);
[[noreturn]] void ThrowTrouble(const apache::thrift::TApplicationException& error);

/// A client of a service on a connection.
template <typename Client>
class CRpc {
public:
    explicit CRpc(Socket pSocket)
        : m_Client(std::make_shared<apache::thrift::protocol::TBinaryProtocol>(
              std::make_shared<apache::thrift::transport::TBufferedTransport>(std::move(pSocket)),
              kLongestText, kMostElements, true, true)) {}

    /// Runs `act` with the client. Throws CCallError, and what the service itself throws.
    template <typename Act>
    void Call(Act act) {
        using namespace apache::thrift;
        try {
            act(m_Client);
        } catch (const transport::TTransportException& error) {
            ThrowTrouble(error);
        } catch (const TApplicationException& error) {
            ThrowTrouble(error);
        } catch (const protocol::TProtocolException& error) {
            throw CCallError(eTrouble::Garbled, error.what());
        }
    }

private:
    /// A peer is given memory for no more; and what does not begin like a message is none.
    static constexpr std::int32_t kLongestText = 16 << 20;
    static constexpr std::int32_t kMostElements = 1 << 20;

    Client m_Client;
};

}  // namespace vok::ctl
