/// The admin service: a server of its own, for those who look after the set.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <memory>
#include <string>

#include "platform/CVokCondition.h"
#include "rpc/CRpcServer.h"

namespace vok {

class CBroker;
namespace admin {
class VokBrokerAdminIf;
}

/// The admin service itself, on the operations of the broker, which must outlive it.
std::shared_ptr<admin::VokBrokerAdminIf> MakeAdminHandler(CBroker& broker);

/// Serves rpc/vok_admin.thrift on a Unix domain socket that only its owner reaches (folder 0755,
/// socket 0600). A socket file that nobody serves is replaced; one that is served is not.
class CAdminServer {
public:
    /// The broker must outlive `Serve`.
    CAdminServer(CBroker& broker, std::string strPath);

    /// Serves on the calling thread until stopped. Logs what keeps it from serving. Never throws.
    void Serve();

    /// Blocks until the server listens, or cannot.
    void AwaitStart() { (void)m_Started.Wait(0); }

    /// Removes the socket file and ends `Serve`. At any time, from any thread.
    void Stop();

private:
    /// Makes the folder, and the place in it free. Throws std::system_error.
    void PreparePath() const;
    void OnListening();

    const std::string m_strPath;
    mode_t m_nUmask = 0;  // of the process
    std::shared_ptr<CRpcServer> m_pServer;
    CVokCondition m_Started;
    std::atomic<bool> m_bListening{false};
    std::atomic<bool> m_bStopped{false};
};

}  // namespace vok
