/// The broker: one object, whose operations stand in a file each.
///
/// How its operations answer: with a bool (true: done), a text or a record. None throws to the RPC
/// layer because of what a peer sent, except where a number was expected: then the caller gets the
/// conversion's error. Proxies map every RPC failure to a result. A start that fails throws its
/// reason as text, which `OpenEmp` alone catches.
///
/// Threads: every public operation may be called from any thread. Locks, in the order in which they
/// are taken:
///
///     m_mtxMapEmp         mounts and their counts; held across mount and unmount
///       m_mtxMountCount   a count's change; alone, a look at the counts
///       m_mtxTicket       tickets, and the opens that have ended
///     m_mtxRegisterEmp    register launchers
///     m_mtxGroupingEmp    grouping processes
///         the locks inside m_EmpInfo and m_ConnectionDB: innermost
///
/// None is held over a call to a peer.
#pragma once

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "VokBroker.h"
#include "broker/COpenHistory.h"
#include "broker/Export.h"
#include "broker/Types.h"
#include "platform/CMutex.h"
#include "platform/CVokCondition.h"
#include "platform/Platform.h"
#include "registry/CConnectionDB.h"
#include "registry/CEmpInfo.h"
#include "registry/Ticket.h"
#include "rpc/CBrokerProxyEmpLauncher.h"

namespace apache::thrift::server {
class TThreadedServer;
}

namespace vok {

class CAdminServer;
class CBrokerProxyEmp;
namespace admin {
class BrokerState;
class ConnectionState;
class EmpState;
class MountState;
class OpenTimes;
class Whereabouts;
}  // namespace admin

/// Which EMPs the launchers serve: (launcher name, launcher port) to EMP names.
using LauncherTable = std::map<std::pair<std::string, std::string>, std::set<std::string>>;
/// Image, or grouping process, to how many opens rely on it.
using MountCounts = std::map<std::string, int>;

/// The framework's place for the one instance: set before its members are made, cleared after the
/// last of them has gone.
template <typename T>
class CSingleton {
public:
    /// `pInstance` is the object under construction, which cannot be cast to from here yet.
    explicit CSingleton(T* pInstance) { m_hInstance = pInstance; }
    ~CSingleton() { m_hInstance = nullptr; }
    CSingleton(const CSingleton&) = delete;
    CSingleton& operator=(const CSingleton&) = delete;

    static T* m_hInstance;
};

class CBroker;
template <>
CBroker* CSingleton<CBroker>::m_hInstance;

class VOK_EXPORT CBroker : public CSingleton<CBroker>, public VokBrokerIf {
public:
    /// The platform's parts must outlive the broker and its threads.
    explicit CBroker(Platform platform = LinuxPlatform());
    /// Stops the server and waits until no thread works on the broker any more: an open that waits
    /// for its EMP takes up to 10 s, a call to a peer as long as the peer does.
    ~CBroker() override;

    // ---- The service (rpc/vok.thrift) -------------------------------------------------------

    /// Connects a client to an EMP, which is started when need be. `_return.empPort` "-1" tells a
    /// failure. Takes up to 10 s to start an EMP, and 10 s more when another open of it is under
    /// way.
    void OpenEmp(ConnectionInfo& _return, const std::string& clientPort, const std::string& empName,
                 const std::string& empVersion, const std::string& appInfo) override;

    /// Runs a command; see Execute.cpp for the words.
    void Execute(std::string& _return, const std::string& arg1, const std::string& cmd,
                 const std::string& arg3, const std::string& arg4, const std::string& arg5,
                 const std::string& arg6) override;

    /// Disconnects a client from an EMP. True when it was done or the EMP had gone already.
    bool CloseEmp(const ConnectionInfo& info) override;

    // ---- Life ------------------------------------------------------------------------------

    void Initialize() {}
    void OnSetDebugModule(unsigned long, bool) {}

    /// Installs and mounts the plug-in set, serves, and blocks until stopped. True after an orderly
    /// stop, false when the start fails. Called once.
    bool StartServer();

    /// Stops the server and wakes `StartServer`. At any time, any number of times.
    void Destory();

    /// The part of `Destory` that a signal handler may do: wakes `StartServer`, which does the
    /// rest.
    void RequestStop() noexcept;

    /// True once the server has answered; never false again.
    bool GetIsBrokerServerRunning() const { return m_bIsBrokerServerRunning; }

    void EnablePingTest(bool bEnable) { m_bEnablePingTest = bEnable; }

    // ---- Version ----------------------------------------------------------------------------

    static std::string GetFullVersion();
    static int GetMajorVersion();
    static int GetMinorVersion();

    /// The version in an EMP's configuration file; 0.0 when it cannot be read.
    double m_ParseLocalEmpCfgFile(const std::string& strPath);

    // ---- Where an EMP lives -------------------------------------------------------------------

    eEmpLocation WhereIsEMP(const std::string& strEmp);
    /// An eEmpFile: which file of the EMP, or grouping process, decides.
    int GetEmpLocationType(const std::string& strEmp);
    std::string GetEmpIP(eEmpLocation location);
    std::string GetProcessIP(eProcessType type);
    bool CheckEmpFile(const char* szPath);

    // ---- Starting and stopping EMPs ------------------------------------------------------------

    /// Starts an EMP in the way of its location; it reports by itself later. `pParams` is a
    /// ForkEmpParams, which is not used after the return.
    bool StartEmp(std::string strEmp, void* pParams, eEmpLocation location);
    /// Thread: starts and reaps one process. Takes over what StartEmp made.
    static void* ForkEmp(void* pParams);
    /// Thread: ends an EMP's process and unmounts its image. Takes over an ExitEmpBlock; returns 0.
    static void* ExitEmpProc(void* pBlock);

    /// An EMP reports that its server is up: wakes its opener. Throws boost::bad_lexical_cast when
    /// a number is none.
    void ConfirmEMPServer(const std::string& strTicketSerial, const std::string& strPortAndPid,
                          const std::string& strStatus, std::string strOption);
    /// Waits, at most 10 s, until the EMP's status is no transitional one. False when it stays one,
    /// or the EMP is unknown.
    bool CheckStatus(std::string strEmp);

    // ---- Images ----------------------------------------------------------------------------

    bool Img_Mount(std::string strEmp);
    bool Img_UnMount(std::string strEmp);
    bool Pepper_Img_Mount(std::string strImageFile);
    /// Unmounts an EMP's image when nobody relies on it. False only when unmounting fails.
    bool UnmoutEMP(const std::string& strEmp);

    // ---- Launchers ---------------------------------------------------------------------------

    /// Looks up who hosts or serves an EMP. False, and the outputs are untouched, when nobody does.
    bool GetGroupingEMPInfo(std::string& strGroupName, std::string& strGroupPort,
                            std::string strEmp);
    bool GetRegisterEMPInfo(std::string& strLauncherName, std::string& strLauncherPort,
                            std::string strEmp);

    /// An EMP is served by the register launcher at a port from now on, or no longer. False when no
    /// launcher has that port; an EMP that is in use is not taken away.
    bool RegisterEMP(const std::string& strEmp, const std::string& strLauncherPort);
    bool UnRegisterEMP(const std::string& strEmp, const std::string& strLauncherPort);

    /// A register launcher comes; one of the same name, and all that it served, is replaced.
    void AddLauncherInfo(std::string strName, std::string strPort);
    /// A register launcher goes: every connection of its EMPs is closed first.
    void RemoveLauncherInfo(std::string strName, std::string strPort);
    /// One or the other. False only when a text is empty; an unknown option is true.
    bool UpdateLauncherInfo(LauOption_E option, std::string strName, std::string strPort);

    /// A grouping process and the EMPs that it hosts become known. Port "N/A": it does not run, or
    /// keeps the port that is known. What is known already stays.
    void InsertGroupingEMP(const std::string& strGroupName, const std::string& strPort,
                           const std::set<std::string>& setEmp);
    /// A known grouping process serves at a port from now on; "N/A" once it has stopped.
    void ConfirmGroupingEmpServer(const std::string& strGroupName, const std::string& strPort);

    /// Asks a launcher to start an EMP, which reports with `nTicketSerial`. True when the launcher
    /// took the request. Blocks for the whole call.
    bool SendOpenToEmpLauncher(const std::string& strEmp, int nTicketSerial,
                               const std::string& strCallbackPort,
                               const std::string& strLauncherPort);
    /// True when a connection to a launcher can be opened.
    bool IsLauncherServerRunning(std::string strIp, std::string strPort);

    // ---- Supervision -------------------------------------------------------------------------
    // Clients and EMPs are called one after the other, each for as long as it takes.

    /// Closes every connection of an application; returns how many.
    int CloseAllEmpWithAppID(std::string strAppId, std::string strWidgetId);
    /// Closes the connections of clients that no longer answer.
    void PingTest_For_Webkit();
    /// The same; returns how many were closed.
    int SweepZombies();

    /// True when the broker's own port accepts connections.
    bool IsBrokerServerRunning();
    /// Thread: notes that the broker's server answers. `pBroker` is a CBroker; returns 0.
    static void* PingTestWorker(void* pBroker);
    /// Pings the EMPs of launchers and grouping processes every 5 s while pinging is enabled, and
    /// tells a client when its EMP stops answering. Returns when the broker stops. Called once.
    void PingTest();

    /// Sets the level of the broker's log, and that of every connected EMP and client.
    void OnSetDebugLevel(unsigned int nLevel);

    /// Reports a failed open to the log server, on a thread of its own that gets a head start.
    void ReportLogToServer(const std::string& strErrType, const std::string& strEmp,
                           const std::string& strEmpVersion);
    /// Thread: the report. Takes over a FaultReport; returns 0.
    static void* OnReportLogToServer(void* pRecord);

    /// Tells a client of an EMP server, the first by bytes, that the EMP stopped answering.
    void SendCallbackNotification(ConnectionKey key);
    /// Tells an EMP server which client is connected to it. False when it cannot be told.
    bool SetConnectedClientToEMP(const std::string& strEmp, const std::string& strClientPort,
                                 const std::string& strEmpPort);

    /// What the broker knows: each table as it is at one moment. Waits for a mount under way.
    void GetState(admin::BrokerState& state);
    /// Where an EMP lives, why, and what serves it: for any name. Waits for a mount under way.
    void GetWhereabouts(const std::string& strEmp, admin::Whereabouts& whereabouts);
    /// The opens that ended last, the newest first.
    void GetOpens(std::vector<admin::OpenTimes>& opens);

    /// Makes the record that stands for a failed open. `serial` and `ip` stay.
    static void SetInvalidConnectionInfo(ConnectionInfo& info);

private:
    friend class COpenOperation;
    friend class CCommand;
    friend struct BrokerProbe;  // tests look into the tables

    /// What the thread of the RPC server has told so far.
    enum eServerState { SERVER_STARTING, SERVER_LISTENING, SERVER_FAILED };

    static void* BrokerServer(void* pSelf);
    void Serve();
    void StopServer();
    void OnServerListens();
    void OnServerCloses();
    void OnServerEnds();

    // Construction.
    bool SetLibraryPath();
    static void MakeTicketMutex();

    // The steps of StartServer.
    void RemoveStaleReadyFlag();
    bool InstallPluginUpdate();
    double ReadUpdateVersion();
    std::string ChoosePluginImage(double dUpdate, double dBuiltIn);
    bool PreparePlugins();
    void ReadGroupingEmps();
    bool LaunchServer();
    bool AwaitServer();
    void LaunchPings();
    void LaunchAdminServer();
    void StopAdminServer();
    bool RaiseReadyFlag();
    void AwaitStop();
    bool LowerReadyFlag();
    void EndServer();

    /// Tries to mount at most kMountAttempts times, with a pause before each.
    bool MountPatiently(const char* szOperation, const std::string& strImageFile,
                        const std::string& strMountPoint);
    /// The body of ExitEmpProc.
    static void StopEmp(const ExitEmpBlock* pExit);
    /// The decision inside UnmoutEMP.
    bool UnmountUnused(const std::string& strEmp) VOK_REQUIRES(m_mtxMapEmp);

    // Every change of the mount counts, but for the one that a close makes.
    /// The image's entry, with count 0 when it is new (second: true).
    std::pair<MountCounts::iterator, bool> EnterMountCount(const std::string& strImage)
        VOK_REQUIRES(m_mtxMapEmp);
    void AddToMountCount(MountCounts::iterator it, int nMore) VOK_REQUIRES(m_mtxMapEmp);
    void EraseMountCount(MountCounts::iterator it) VOK_REQUIRES(m_mtxMapEmp);
    /// As they are now, also while an image is being mounted.
    MountCounts CopyMountCounts();

    /// CheckStatus, without a name of its own. `eStatus`: the status as it was just now.
    bool AwaitSettledStatus(const std::string& strEmp, EMP_STATUS eStatus);

    // The steps of CloseEmp.
    bool ClassifyForClose(const std::string& strEmp, EmpType::type& eKind, std::string& strImage);
    bool LowerMountCount(const std::string& strImage);
    void RaiseMountCountAgain(const std::string& strImage);
    bool CloseCounted(const ConnectionInfo& info, EmpType::type eKind);
    bool RecordClose(const ConnectionKey& key, const std::string& strClientPort,
                     EmpType::type eKind, int nReferences);

    /// The first half of RemoveLauncherInfo.
    bool CollectConnections(const std::string& strName, const std::string& strPort,
                            std::vector<ConnectionInfo>& connections);
    int CountGroupingEmps();
    int CountRegisterEmps();

    // The steps of the sweeps.
    bool CloseOfApplication(CBrokerProxyEmp& proxy, const ConnectionInfo& info,
                            const std::string& strAppId, const std::string& strWidgetId);
    bool CloseIfZombie(CBrokerProxyEmp& empProxy, const ConnectionInfo& info);

    // The steps of PingTest.
    bool AwaitNextPing();
    void PingEmps(CBrokerProxyEmp& proxy);
    void PingEmp(CBrokerProxyEmp& proxy, const ConnectionKey& key);

    // The steps of OnSetDebugLevel.
    void SendDebugLevelToEmps(const std::string& strLevel);
    void SendDebugLevelToClients(const std::string& strLevel);

    // The tables of GetState.
    eEmpLocation LocateSilently(const std::string& strEmp);
    void DescribeEmps(std::vector<admin::EmpState>& emps);
    void DescribeConnections(std::vector<admin::ConnectionState>& connections);
    void DescribeMounts(std::vector<admin::MountState>& mounts);

    // The parts of GetWhereabouts.
    std::string DescribeHosts(const std::string& strEmp, admin::Whereabouts& whereabouts);
    void DescribeFiles(const std::string& strEmp, const std::string& strImage,
                       admin::Whereabouts& whereabouts);
    void DescribeServers(const std::string& strEmp, admin::Whereabouts& whereabouts);
    void FindReporters(const std::string& strEmp, std::map<std::string, ProcessId>& processes);
    bool Runs(const ProcessId& process) const;
    void DescribeMountOf(const std::string& strImage, admin::Whereabouts& whereabouts);

    /// Runs `pBody` on a detached thread that holds the broker in use. False when there is none.
    bool LaunchThread(const char* szName, void (*pBody)(CBroker&));
    struct ThreadStart;
    static void* RunThread(void* pStart);
    /// The broker is not destroyed before what this returns has gone.
    std::shared_ptr<void> HoldInUse();

    std::atomic<bool> m_bEnablePingTest{false};
    CConnectionDB m_ConnectionDB;
    CEmpInfo m_EmpInfo;

    CMutex m_mtxMapEmp VOK_BEFORE(m_mtxTicket) VOK_BEFORE(m_mtxMountCount);
    /// Per image, or grouping process, how many opens rely on it.
    MountCounts m_mapEmp VOK_GUARDED_BY(m_mtxMapEmp);

    /// Accessed with std::atomic_load and std::atomic_store.
    std::shared_ptr<apache::thrift::server::TThreadedServer> m_pBrokerServer;
    std::atomic<bool> m_bIsBrokerServerRunning{false};

    /// Tickets of opens in progress, and the last ones of finished opens; see PruneTickets.
    TicketMap m_mapTicket VOK_GUARDED_BY(m_mtxTicket);
    CMutex m_mtxTicket;

    CVokCondition m_StopCondition;

    // Declared, and used by no operation.
    std::map<std::string, bool> m_mapEmpFlag;
    std::set<std::string> m_setEmpName;

    LauncherTable m_mapGroupingEmp VOK_GUARDED_BY(m_mtxGroupingEmp);
    LauncherTable m_mapRegisterEmp VOK_GUARDED_BY(m_mtxRegisterEmp);
    CMutex m_mtxGroupingEmp;
    CMutex m_mtxRegisterEmp;
    CMutex m_mtxSpare;  // never locked

    /// Its port is never set, so what goes through it fails.
    CBrokerProxyEmpLauncher m_EmpLauncherProxy;

    /// Held for each change of m_mapEmp, besides m_mtxMapEmp. Whoever only looks takes this one,
    /// and waits for no mount.
    CMutex m_mtxMountCount;

    const Platform m_Platform;
    /// Set by the first stop; whoever starts or waits looks at it.
    std::atomic<bool> m_bStopRequested{false};
    std::atomic<eServerState> m_eServerState{SERVER_STARTING};
    CVokCondition m_ServerStarted;  // it listens, or has failed
    CVokCondition m_ServerEnded;    // its thread touches the broker no more
    bool m_bServerLaunched = false;
    CVokCondition m_PingStop;
    std::shared_ptr<CAdminServer> m_spAdminServer;  // made once, before the broker is ready

    BrokerCounters m_Counters;
    /// By the tickets' lock, which an open that has a ticket takes anyway when it ends.
    COpenHistory m_OpenHistory VOK_GUARDED_BY(m_mtxTicket);
    const std::chrono::steady_clock::time_point m_Born = std::chrono::steady_clock::now();
    /// Detached threads that work on the broker. A stop ends each, once the call to a peer that it
    /// is in has ended.
    std::atomic<int> m_nInUse{0};
};

/// The framework's debug hooks.
class CCDebugVOK {
public:
    void t_InitModule() {}
    void t_SetDebugLevel(unsigned int) {}
    void t_SetDebugModule(unsigned long, bool) {}
};

/// The framework's version, for those who have no broker at hand.
class CVokWrapper {
public:
    static std::string GetVokVersion();
};

}  // namespace vok
