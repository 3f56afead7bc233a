// The broker's road from its first step to its last: plug-ins, server, ready flag, and back.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <tuple>

#include "broker/AdminServer.h"
#include "broker/CBroker.h"
#include "platform/CUniqueFd.h"
#include "platform/EmpPaths.h"
#include "platform/Limits.h"
#include "platform/Log.h"
#include "platform/ThreadMaker.h"
#include "rpc/CallOnce.h"

namespace vok {

namespace {

#define START_LOG(level, ...) VOK_LOG_AS("StartServer", level, __VA_ARGS__)

/// True when nobody holds the broker's port. Asked by binding, not by connecting: a connection
/// attempt could be given the very port as its own and keep the server from it.
bool IsPortFree() {
    const CUniqueFd fd{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    const int nOn = 1;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(kBrokerPort);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return fd.IsOpen() && ::setsockopt(fd.Get(), SOL_SOCKET, SO_REUSEADDR, &nOn, sizeof nOn) == 0 &&
           ::bind(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

/// Asks whoever holds the port for the version. Something else may never answer.
bool DoesBrokerAnswer() {
    std::string strVersion;
    return CallOnce<VokBrokerClient>(
        {kBrokerAddress, kBrokerPort, {}, kBrokerQuestionMs},
        [&](VokBrokerClient& broker) {
            broker.Execute(strVersion, "", "GetVOKVersion", "", "", "", "");
        },
        [](const char*) {});
}

/// Which ready flag is there: its inode and when that was changed; zeros when there is none.
using FlagId = std::tuple<ino_t, time_t, long>;
FlagId IdentifyFlag() {
    struct stat info {};
    if (::lstat(paths::kReadyFlag, &info) != 0) return {};
    return {info.st_ino, info.st_ctim.tv_sec, info.st_ctim.tv_nsec};
}

}  // namespace

bool CBroker::StartServer() {
    RemoveStaleReadyFlag();
    if (m_bStopRequested) return true;
    if (!PreparePlugins()) return m_bStopRequested;  // a stop ends the attempts to mount
    if (m_bStopRequested) return true;
    ReadGroupingEmps();
    if (!LaunchServer()) return false;
    if (!AwaitServer()) return false;
    if (m_bStopRequested) {
        EndServer();
        return true;  // stopped before it was ready: no flag
    }
    LaunchPings();
    LaunchAdminServer();
    if (!RaiseReadyFlag()) return false;
    AwaitStop();
    const bool bLowered = LowerReadyFlag();
    EndServer();
    return bLowered;
}

/// A crash leaves the flag behind; it must not speak for a broker that is still starting. When
/// somebody holds the port, the flag may be another broker's.
void CBroker::RemoveStaleReadyFlag() {
    // Seen before the port is found free, a flag is nobody's. One that another broker, which starts
    // at the same time, has raised since is a different one.
    const FlagId stale = IdentifyFlag();
    if (stale == FlagId{} || !IsPortFree() || IdentifyFlag() != stale) return;
    (void)::unlink(paths::kReadyFlag);  // a folder stays, and fails the start
}

bool CBroker::LaunchServer() {
    m_ServerStarted.SetDoWaiting(true);
    m_ServerEnded.SetDoWaiting(true);
    m_bServerLaunched =
        ThreadMaker::CreateThread("BrokerServer", &CBroker::BrokerServer, this, kThreadStack, true);
    if (!m_bServerLaunched) START_LOG(LEVEL_ERROR, "Error occured during making BrokerServer");
    return m_bServerLaunched;
}

bool CBroker::AwaitServer() {
    // Nothing asks the port before the server has it: see IsPortFree.
    (void)m_ServerStarted.Wait(0);
    if (m_eServerState == SERVER_FAILED) {
        // The port is another's. Does a broker serve there, whose flag it is?
        if (!DoesBrokerAnswer()) (void)::unlink(paths::kReadyFlag);
        START_LOG(LEVEL_ERROR, "Fail to start [Broker-Server].");
        return false;
    }

    for (int nTry = 0; nTry < kServerTries; ++nTry) {
        if (IsBrokerServerRunning()) {
            m_bIsBrokerServerRunning = true;
            return true;
        }
        if (m_bStopRequested) return true;
        m_Platform.pClock->Sleep(kServerPause);
    }
    START_LOG(LEVEL_ERROR, "Fail to start [Broker-Server].");
    return false;
}

/// Without them the broker still serves.
void CBroker::LaunchPings() {
    const bool bWorker =
        LaunchThread("PingTestWorker", [](CBroker& broker) { (void)PingTestWorker(&broker); });
    const bool bLoop = LaunchThread("PingTest", [](CBroker& broker) {
        ThreadMaker::NameThisThread("VOK-B-PingLoop");
        broker.PingTest();
    });
    if (!bWorker || !bLoop) START_LOG(LEVEL_ERROR, "EMPs are not pinged: there is no thread.");
}

/// Without it, too. When the broker is ready, so is its admin service.
void CBroker::LaunchAdminServer() {
    const auto spServer = std::make_shared<CAdminServer>(*this, paths::kAdminSocket);
    std::atomic_store(&m_spAdminServer, spServer);
    const bool bLaunched = LaunchThread("AdminServer", [](CBroker& broker) {
        ThreadMaker::NameThisThread("VOK-B-Admin");
        std::atomic_load(&broker.m_spAdminServer)->Serve();
    });
    if (bLaunched)
        spServer->AwaitStart();
    else
        START_LOG(LEVEL_ERROR, "There is no admin service: there is no thread.");
}

void CBroker::StopAdminServer() {
    if (const auto spServer = std::atomic_load(&m_spAdminServer)) spServer->Stop();
}

bool CBroker::RaiseReadyFlag() {
    if (!m_Platform.pFiles->CreateEmpty(paths::kReadyFlag)) {
        VOK_LOG_AS("CreateFile", LEVEL_ERROR, "Create [%s] failed.", paths::kReadyFlag);
        START_LOG(LEVEL_ERROR, "Failed to generate ready flag for [Broker-Server].");
        Destory();
        return false;
    }
    START_LOG(LEVEL_TRACE, "Succeed to start [Broker-Server].");
    return true;
}

void CBroker::AwaitStop() {
    m_StopCondition.SetDoWaiting(true);
    // A stop that came before the announcement has left its mark; one that comes now is kept.
    if (!m_bStopRequested) (void)m_StopCondition.Wait(0);
}

bool CBroker::LowerReadyFlag() {
    if (!m_Platform.pFiles->Remove(paths::kReadyFlag)) {
        VOK_LOG_AS("RemoveFile", LEVEL_ERROR, "Remove [%s] failed.", paths::kReadyFlag);
        START_LOG(LEVEL_ERROR, "RemoveFile [%s] failed.", paths::kReadyFlag);
        return false;
    }
    VOK_LOG_AS("RemoveFile", LEVEL_TRACE, "Succeed to remove [%s].", paths::kReadyFlag);
    return true;
}

/// A signal handler may only ask for the stop, so the servers are stopped here. Calls that are
/// being answered get a moment, and so do the broker's own threads; those that wait for an EMP end
/// with the process.
void CBroker::EndServer() {
    StopServer();
    StopAdminServer();
    if (m_ServerEnded.Wait(static_cast<int>(kStopGrace.count())) == 0) m_bServerLaunched = false;
    for (std::chrono::milliseconds waited{0}; m_nInUse > 0 && waited < kStopGrace;
         waited += kStopPoll)
        m_Platform.pClock->Sleep(kStopPoll);
}

}  // namespace vok
