#include "broker/AdminServer.h"

#include <sched.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <limits>
#include <system_error>

#include "VokBrokerAdmin.h"
#include "broker/CBroker.h"
#include "broker/ListenEvent.h"
#include "platform/CUniqueFd.h"
#include "platform/Limits.h"
#include "platform/Log.h"
#include "platform/ScopeGuard.h"

namespace vok {

namespace {

#define ADMIN_LOG(operation, level, ...) \
    VOK_CLASS_LOG_AS("CAdminServer", operation, level, __VA_ARGS__)

[[noreturn]] void ThrowErrno(const std::string& strWhat) {
    throw std::system_error(errno, std::generic_category(), strWhat);
}

admin::BadRequest BadRequest(std::string strMessage) {
    admin::BadRequest error;
    error.message = std::move(strMessage);
    return error;
}

/// The service, on the broker's own operations.
class CAdminHandler : public admin::VokBrokerAdminIf {
public:
    explicit CAdminHandler(CBroker& broker) : m_Broker(broker) {}

    void SetDebugLevel(const int32_t level) override {
        if (level < 0 || level > std::numeric_limits<unsigned short>::max())
            throw BadRequest("The debug level is a number from 0 to 65535.");
        m_Broker.OnSetDebugLevel(static_cast<unsigned int>(level));
    }

    void EnablePing(const bool enable) override { m_Broker.EnablePingTest(enable); }

    int32_t SweepZombies() override { return m_Broker.SweepZombies(); }

    int32_t CloseAll(const std::string& appId, const std::string& widgetId) override {
        if (appId.empty()) throw BadRequest("Whose connections? The application id is empty.");
        return m_Broker.CloseAllEmpWithAppID(appId, widgetId);
    }

    void GetState(admin::BrokerState& _return) override { m_Broker.GetState(_return); }

    void Where(admin::Whereabouts& _return, const std::string& empName) override {
        if (empName.empty()) throw BadRequest("Where is what? The EMP's name is empty.");
        m_Broker.GetWhereabouts(empName, _return);
    }

    void GetOpens(std::vector<admin::OpenTimes>& _return) override { m_Broker.GetOpens(_return); }

private:
    CBroker& m_Broker;
};

/// True when somebody accepts connections at a socket file.
bool IsServed(const std::string& strPath) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strPath.copy(address.sun_path, sizeof address.sun_path - 1);
    const CUniqueFd fd{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
    if (!fd.IsOpen()) ThrowErrno("socket");
    if (::connect(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
        return true;
    if (errno == ECONNREFUSED || errno == ENOENT) return false;
    if (errno == EAGAIN) return true;  // a full backlog
    ThrowErrno("what is there");
}

}  // namespace

std::shared_ptr<admin::VokBrokerAdminIf> MakeAdminHandler(CBroker& broker) {
    return std::make_shared<CAdminHandler>(broker);
}

CAdminServer::CAdminServer(CBroker& broker, std::string strPath) : m_strPath(std::move(strPath)) {
    m_pServer = std::make_shared<CRpcServer>(
        std::make_shared<admin::VokBrokerAdminProcessor>(MakeAdminHandler(broker)),
        std::make_shared<CRpcServerSocket>(m_strPath), ServerTransports(), ServerProtocols());
    m_pServer->setConcurrentClientLimit(kMaxAdminClients);
    m_pServer->setServerEventHandler(std::make_shared<CListenEvent>([this] { OnListening(); }));
    m_Started.SetDoWaiting(true);
}

void CAdminServer::Serve() {
    const ScopeGuard endTheWait{[this] { (void)m_Started.NotifyOne(); }};
    try {
        // From its first moment, the socket is its owner's only. The thread gets a mask of its own:
        // that of the process is for EMPs to inherit.
        if (::unshare(CLONE_FS) != 0) ThrowErrno("unshare");
        m_nUmask = ::umask(022);
        PreparePath();
        (void)::umask(0177);
        m_pServer->serve();
    } catch (const std::exception& e) {
        ADMIN_LOG("Serve", LEVEL_ERROR, "No admin service on %s: %s", m_strPath.c_str(), e.what());
    }
}

void CAdminServer::PreparePath() const {
    const std::string strFolder = std::filesystem::path(m_strPath).parent_path();
    if (m_strPath.size() >= sizeof sockaddr_un{}.sun_path)
        throw std::system_error(ENAMETOOLONG, std::generic_category(), "unix(7)");

    struct stat info {};
    if (::mkdir(strFolder.c_str(), 0755) != 0 && errno != EEXIST) ThrowErrno(strFolder);
    if (::lstat(strFolder.c_str(), &info) != 0) ThrowErrno(strFolder);
    // In a folder that others may write to, they could put a socket of their own.
    const bool bOurs = S_ISDIR(info.st_mode) && info.st_uid == ::geteuid();
    if (!bOurs || (info.st_mode & (S_IWGRP | S_IWOTH)) != 0)
        throw std::system_error(EPERM, std::generic_category(), strFolder + " is not ours alone");

    if (::lstat(m_strPath.c_str(), &info) != 0) return;  // listening tells what is wrong
    if (!S_ISSOCK(info.st_mode))
        throw std::system_error(ENOTSOCK, std::generic_category(), "what is there");
    if (IsServed(m_strPath))
        throw std::system_error(EADDRINUSE, std::generic_category(), "another broker serves there");
    (void)::unlink(m_strPath.c_str());  // left by a broker that was killed
}

void CAdminServer::OnListening() {
    (void)::umask(m_nUmask);  // for the threads of clients
    m_bListening = true;
    (void)m_Started.NotifyOne();
    if (m_bStopped) Stop();  // what came before there was a socket to interrupt
}

void CAdminServer::Stop() {
    m_bStopped = true;
    // Before the end of listening: as long as it is served, no other broker replaces the file.
    if (!m_bListening.exchange(false)) return;  // not yet: OnListening comes back here
    (void)::unlink(m_strPath.c_str());
    m_pServer->stop();
}

}  // namespace vok
