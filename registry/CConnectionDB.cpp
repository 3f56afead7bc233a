#include "registry/CConnectionDB.h"

#include <iterator>
#include <utility>

#include "platform/Log.h"
#include "platform/Number.h"

namespace vok {
int CConnectionDB::Lease() {
    const CLock lock{m_mtxConnection};
    return m_SocketPorts.Lease();
}

int CConnectionDB::Return(int nPort) {
    const CLock lock{m_mtxConnection};
    return m_SocketPorts.Return(nPort);
}

// Lock-free, so that a table whose lock is stuck can still be looked at.
VOK_TSA(no_thread_safety_analysis) void CConnectionDB::PrintAll() {
    for (const auto& [key, data] : m_mapConnection) {
        VOK_LOG(LEVEL_DETAIL, "name:[%s], empPort:[%s]", key.first.c_str(), key.second.c_str());
        for (const auto& client : data.m_mapClient)
            VOK_LOG(LEVEL_DETAIL, ", clientPort:[%s] ", client.first.c_str());
        VOK_LOG(LEVEL_DETAIL, "-------------------");
    }
}

std::string CConnectionDB::GetEmpPort(std::string strName) {
    return PortOf(strName);
}

std::string CConnectionDB::PortOf(const std::string& strName) {
    const CLock lock{m_mtxConnection};
    if (m_itLast == m_mapConnection.end() || m_itLast->first.first != strName ||
        !IsFirstOfItsName(m_itLast)) {
        // The empty port sorts before every other one: the first entry from here on is the name's
        // first.
        m_itLast = m_mapConnection.lower_bound(ConnectionKey{strName, {}});
    }
    if (m_itLast == m_mapConnection.end() || m_itLast->first.first != strName) return kNoPort;
    return m_itLast->first.second;
}

int CConnectionDB::IncreasePendingCount(ConnectionKey key) {
    const CLock lock{m_mtxConnection};
    const auto it = m_mapConnection.find(key);
    if (it == m_mapConnection.end()) return 0;

    int& nCount = it->second.m_nPendingCount;
    // The health ping compares the count *before* this failure with its limit.
    return nCount == std::numeric_limits<int>::max() ? nCount : nCount++;
}

void CConnectionDB::ResetPendingCount(ConnectionKey key) {
    const CLock lock{m_mtxConnection};
    const auto it = m_mapConnection.find(key);
    if (it != m_mapConnection.end()) it->second.m_nPendingCount = 0;
}

std::vector<ConnectionKey> CConnectionDB::GetConnectionKeyList() {
    const CLock lock{m_mtxConnection};
    std::vector<ConnectionKey> keys;
    keys.reserve(m_mapConnection.size());
    for (const auto& entry : m_mapConnection) keys.push_back(entry.first);
    return keys;
}

ConnectionMap CConnectionDB::GetConnectionDB() {
    const CLock lock{m_mtxConnection};
    return m_mapConnection;
}

std::set<std::string> CConnectionDB::GetClientPortNumList(ConnectionKey key) {
    const CLock lock{m_mtxConnection};
    std::set<std::string> setClientPort;
    const auto it = m_mapConnection.find(key);
    if (it == m_mapConnection.end()) return setClientPort;
    for (const auto& client : it->second.m_mapClient)
        setClientPort.insert(setClientPort.end(), client.first);
    return setClientPort;
}

bool CConnectionDB::AddConnectionData(ConnectionKey key, std::string strClientPort) {
    return AddClient(key.first, key.second, strClientPort);
}

bool CConnectionDB::AddClient(const std::string& strName, const std::string& strPort,
                              const std::string& strClientPort) {
    VOK_LOG_AS("AddConnectionData", LEVEL_TRACE, "key[%s][%s]. clientPort:[%s]", strName.c_str(),
               strPort.c_str(), strClientPort.c_str());
    const CLock lock{m_mtxConnection};
    if (!IsLast(strName, strPort)) {
        ConnectionKey key{strName, strPort};
        const auto it = m_mapConnection.lower_bound(key);
        if (it == m_mapConnection.end() || it->first != key) {
            struct_conn_DB_Data_DB data;
            data.m_mapClient.emplace(strClientPort, CCoarseClock::now());
            m_itLast = m_mapConnection.emplace_hint(it, std::move(key), std::move(data));
            return true;
        }
        m_itLast = it;
    }
    if (!m_itLast->second.m_mapClient.try_emplace(strClientPort, CCoarseClock::now()).second) {
        VOK_LOG_AS("AddConnectionData", LEVEL_ERROR, "[%s][%s] is already in DB.. cannot add",
                   strName.c_str(), strPort.c_str());
        return false;
    }
    return true;
}

bool CConnectionDB::RemoveClientPortFromConnDB(ConnectionKey key, std::string strClientPort) {
    return RemoveClient(key, strClientPort);
}

bool CConnectionDB::RemoveClient(const ConnectionKey& key, const std::string& strClientPort) {
    const CLock lock{m_mtxConnection};
    const auto it = Find(key);
    if (it == m_mapConnection.end()) {
        VOK_LOG_AS("RemoveClientPortFromConnDB", LEVEL_ERROR,
                   "Remove client:[%s], but Connection key <%s,%s> is not in the DB.",
                   strClientPort.c_str(), key.first.c_str(), key.second.c_str());
        return false;
    }
    if (it->second.m_mapClient.erase(strClientPort) == 0) {
        VOK_LOG_AS("RemoveClientPortFromConnDB", LEVEL_ERROR,
                   "the client:[%s] to be removed isn't in the DB.", strClientPort.c_str());
        return false;
    }
    return true;
}

bool CConnectionDB::RemoveConnectionData(const ConnectionKey& key, std::string strClientPort) {
    return RemoveConnection(key, strClientPort);
}

bool CConnectionDB::RemoveConnection(const ConnectionKey& key, const std::string& strClientPort) {
    const CLock lock{m_mtxConnection};
    const auto it = Find(key);
    if (it == m_mapConnection.end()) {
        VOK_LOG_AS("RemoveConnectionData", LEVEL_ERROR,
                   "[%s][%s] is not in DB..  cannot remove. clientPort[%s]", key.first.c_str(),
                   key.second.c_str(), strClientPort.c_str());
        return false;
    }
    if (it->second.m_mapClient.erase(strClientPort) == 0) {
        VOK_LOG_AS("RemoveConnectionData", LEVEL_ERROR,
                   "clientPort:[%s] is not in DB..  cannot remove. The Key is [%s][%s]",
                   strClientPort.c_str(), key.first.c_str(), key.second.c_str());
        return false;
    }
    if (it->second.m_mapClient.empty()) Erase(it);
    return true;
}

bool CConnectionDB::RemoveEmpInfoFromConnDB(const ConnectionKey& key) {
    const CLock lock{m_mtxConnection};
    const auto it = Find(key);
    if (it == m_mapConnection.end()) {
        VOK_LOG(LEVEL_ERROR, "Not found, Connection key <%s,%s> is not in the DB.",
                key.first.c_str(), key.second.c_str());
        return false;
    }
    Erase(it);
    return true;
}

bool CConnectionDB::ModifyConnectionData(const ConnectionKey& key, eServerType eType,
                                         std::string strOldValue, std::string strNewValue) {
    VOK_LOG(LEVEL_DETAIL, "Before modify");
    const CLock lock{m_mtxConnection};
    const auto it = m_mapConnection.find(key);
    if (it == m_mapConnection.end()) {
        // The port as a number here and as text below: readers of the log know the two apart by it.
        VOK_LOG(LEVEL_ERROR,
                "There is no key in DB. key[%s]callback[%d]. serverType[%d]. old[%s], new[%s]",
                key.first.c_str(), LeadingNumber(key.second), eType, strOldValue.c_str(),
                strNewValue.c_str());
        return false;
    }
    if (eType == SERVER_TYPE_CALLBACK) {
        RenameClient(it->second.m_mapClient, strOldValue, strNewValue);
    } else if (eType == SERVER_TYPE_EMP) {
        MoveToPort(it, strOldValue, strNewValue);
    } else {
        // The key is there; the text is what an unknown type has always been told.
        VOK_LOG(LEVEL_ERROR,
                "There is no key in DB. key[%s]callback[%s]. serverType[%d]. old[%s], new[%s]",
                key.first.c_str(), key.second.c_str(), eType, strOldValue.c_str(),
                strNewValue.c_str());
        return false;
    }
    VOK_LOG(LEVEL_DETAIL, "After modify");
    return true;
}

void CConnectionDB::RenameClient(ClientMap& mapClient, const std::string& strOldPort,
                                 const std::string& strNewPort) {
    const auto itOld = mapClient.find(strOldPort);
    const auto since = itOld == mapClient.end() ? CCoarseClock::now() : itOld->second;
    // In this order: memory that is missing must not cost a client its place.
    mapClient.try_emplace(strNewPort, since);
    if (itOld != mapClient.end() && strOldPort != strNewPort) mapClient.erase(itOld);
}

void CConnectionDB::MoveToPort(ConnectionMap::iterator it, const std::string& strOldPort,
                               const std::string& strNewPort) {
    const auto& [strName, strStoredPort] = it->first;
    if (strStoredPort != strOldPort) {
        VOK_LOG_AS("ModifyConnectionData", LEVEL_ERROR,
                   "[%s] empPort was not matched. old[%s], new[%s]", strName.c_str(),
                   strStoredPort.c_str(), strOldPort.c_str());
    }
    // Does nothing where there is an entry already, also when that is this one: the entry that is
    // moved vanishes then.
    m_mapConnection.emplace(ConnectionKey{strName, strNewPort}, it->second);
    Erase(it);
}

ConnectionMap::iterator CConnectionDB::Find(const ConnectionKey& key) {
    if (!IsLast(key.first, key.second)) m_itLast = m_mapConnection.find(key);
    return m_itLast;
}

void CConnectionDB::Erase(ConnectionMap::iterator it) {
    m_itLast = m_mapConnection.end();
    m_mapConnection.erase(it);
}

bool CConnectionDB::IsLast(const std::string& strName, const std::string& strPort) const {
    return m_itLast != m_mapConnection.end() && m_itLast->first.second == strPort &&
           m_itLast->first.first == strName;
}

bool CConnectionDB::IsFirstOfItsName(ConnectionMap::iterator it) const {
    return it == m_mapConnection.begin() || std::prev(it)->first.first != it->first.first;
}

}  // namespace vok
