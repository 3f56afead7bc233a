/// Clients' callback servers inside the test's process.
#pragma once

#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace vok::test {

class CFakeServer;

/// One event as the client received it.
struct ClientEvent {
    int nType;
    std::string strA;
    std::string strB;

    bool operator==(const ClientEvent& other) const {
        return nType == other.nType && strA == other.strA && strB == other.strB;
    }
};

void PrintTo(const ClientEvent& event, std::ostream* pStream);

/// A client that listens for events when the constructor returns; the destructor ends all
/// connections and waits for its threads. Thread-safe.
class CFakeClient {
public:
    /// On a free loopback port.
    CFakeClient();
    /// On a loopback port.
    explicit CFakeClient(int nPort);
    /// On a Unix domain socket whose path is free.
    explicit CFakeClient(const std::string& strPath);
    ~CFakeClient();
    CFakeClient(const CFakeClient&) = delete;
    CFakeClient& operator=(const CFakeClient&) = delete;

    /// By which the broker knows it: the port as decimal text, or the path.
    std::string Address() const { return m_strAddress; }

    /// From now on every event is recorded and then fails: its sender gets a TApplicationException
    /// with this text. "": they succeed again.
    void FailCalls(const std::string& strText);
    /// Runs with every event before it is answered, on the thread that serves it.
    void OnEvent(std::function<void(const ClientEvent&)> hook);

    /// In the order in which they came.
    std::vector<ClientEvent> Events() const;

private:
    class CHandler;

    std::shared_ptr<CHandler> m_pHandler;
    std::string m_strAddress;
    std::unique_ptr<CFakeServer> m_pServer;
};

}  // namespace vok::test
