/// Which clients are connected to which running EMP server.
#pragma once

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/CCoarseClock.h"
#include "platform/CMutex.h"
#include "platform/CSocketPorts.h"

namespace vok {

/// (EMP name, EMP port as decimal text); ordered by name, then by port, each by bytes.
using ConnectionKey = std::pair<std::string, std::string>;

/// What stands for the port of an EMP that has no connection, and of an open that failed.
inline constexpr char kNoPort[] = "-1";

/// Clients by callback port (ordered by bytes), and since when each is connected.
using ClientMap = std::map<std::string, CCoarseClock::time_point>;

/// What is kept of one EMP server.
struct struct_conn_DB_Data_DB {
    /// Its clients: their callback ports (decimal text), each with the moment since when it is
    /// connected.
    ClientMap m_mapClient;
    /// How many pings in a row it failed to answer.
    int m_nPendingCount = 0;
};

/// Which port `CConnectionDB::ModifyConnectionData` changes.
enum eServerType : int {
    SERVER_TYPE_EMP = 0,       // the EMP's own, which is part of the key
    SERVER_TYPE_CALLBACK = 1,  // a client's
};

using ConnectionMap = std::map<ConnectionKey, struct_conn_DB_Data_DB>;

/// The connections of all EMP servers. Several servers may share an EMP name. An entry may outlive
/// its last client: see RemoveClientPortFromConnDB.
///
/// Thread-safe, except PrintAll. Every operation takes the one lock and returns copies, so callers
/// iterate and make RPCs without it, and an entry may be gone before its caller acts on it.
/// Innermost lock: only the port pool and the logger are called under it.
class CConnectionDB {
public:
    CConnectionDB() = default;
    CConnectionDB(const CConnectionDB&) = delete;
    CConnectionDB& operator=(const CConnectionDB&) = delete;

    /// The port pool's operations, under the lock.
    int Lease();
    int Return(int nPort);

    /// Logs the table. Takes no lock: for diagnostics, while nothing changes the table.
    void PrintAll();

    /// The port of the EMP's first server in key order; "-1" when it has none.
    std::string GetEmpPort(std::string strName);

    /// Counts a failed ping. Returns the count *before* it; 0 for an unknown key.
    int IncreasePendingCount(ConnectionKey key);
    void ResetPendingCount(ConnectionKey key);

    /// Every key, in key order.
    std::vector<ConnectionKey> GetConnectionKeyList();
    ConnectionMap GetConnectionDB();
    /// Empty for an unknown key.
    std::set<std::string> GetClientPortNumList(ConnectionKey key);

    /// Connects a client, from now on. False, and nothing changes, when it is already connected.
    bool AddConnectionData(ConnectionKey key, std::string strClientPort);

    /// A client leaves and the EMP stays alive: the entry stays, also without clients. False when
    /// the client is not connected.
    bool RemoveClientPortFromConnDB(ConnectionKey key, std::string strClientPort);

    /// A connection ends for good: its entry goes with its last client. False when the client is
    /// not connected.
    bool RemoveConnectionData(const ConnectionKey& key, std::string strClientPort);

    /// An EMP server is gone, whoever was connected. False for an unknown key.
    bool RemoveEmpInfoFromConnDB(const ConnectionKey& key);

    /// As GetEmpPort, AddConnectionData, RemoveClientPortFromConnDB and RemoveConnectionData, which
    /// they log as, but without texts of their own. The last two need no memory.
    std::string PortOf(const std::string& strName);
    bool AddClient(const std::string& strName, const std::string& strPort,
                   const std::string& strClientPort);
    bool RemoveClient(const ConnectionKey& key, const std::string& strClientPort);
    bool RemoveConnection(const ConnectionKey& key, const std::string& strClientPort);

    /// Replaces a port. SERVER_TYPE_CALLBACK: the client `strOldValue` becomes `strNewValue`, and
    /// stays connected since it was.
    /// SERVER_TYPE_EMP: the entry moves to the EMP port `strNewValue`, clients and pending count
    /// included; the port that it already has makes it vanish. False for an unknown key or type.
    bool ModifyConnectionData(const ConnectionKey& key, eServerType eType, std::string strOldValue,
                              std::string strNewValue);

private:
    /// The entry; the end when there is none.
    ConnectionMap::iterator Find(const ConnectionKey& key) VOK_REQUIRES(m_mtxConnection);
    void Erase(ConnectionMap::iterator it) VOK_REQUIRES(m_mtxConnection);
    bool IsLast(const std::string& strName, const std::string& strPort) const
        VOK_REQUIRES(m_mtxConnection);
    bool IsFirstOfItsName(ConnectionMap::iterator it) const VOK_REQUIRES(m_mtxConnection);
    static void RenameClient(ClientMap& mapClient, const std::string& strOldPort,
                             const std::string& strNewPort);
    void MoveToPort(ConnectionMap::iterator it, const std::string& strOldPort,
                    const std::string& strNewPort) VOK_REQUIRES(m_mtxConnection);

    ConnectionMap m_mapConnection VOK_GUARDED_BY(m_mtxConnection);
    /// The entry that was found last: an open asks for the same one twice.
    ConnectionMap::iterator m_itLast VOK_GUARDED_BY(m_mtxConnection) = m_mapConnection.end();
    CSocketPorts m_SocketPorts VOK_GUARDED_BY(m_mtxConnection);
    CMutex m_mtxConnection;
};

}  // namespace vok
