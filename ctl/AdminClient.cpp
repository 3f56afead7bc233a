#include "ctl/AdminClient.h"

#include "VokBrokerAdmin.h"
#include "ctl/Connection.h"
#include "ctl/Failure.h"
#include "ctl/Format.h"
#include "platform/EmpPaths.h"

namespace vok::ctl {

namespace {

const std::string kService = std::string("the admin service on ") + paths::kAdminSocket;

/// Nobody serves the admin socket: there is no broker at all, or it serves without.
[[noreturn]] void ThrowNoAdmin(const Waiting& waiting) {
    CBrokerClient{waiting}.CheckServes();
    throw CFailure(EXIT_FAILED, "the broker serves, but without its admin service on " +
                                    std::string(paths::kAdminSocket) +
                                    ": its log says why; \"vokctl doctor\" looks into it");
}

[[noreturn]] void ThrowAdminFailure(const CCallError& error, const Waiting& waiting) {
    switch (error.Trouble()) {
        case eTrouble::Missing:
        case eTrouble::Refused:
            ThrowNoAdmin(waiting);
        case eTrouble::Forbidden:
            throw CFailure(EXIT_NEEDS_ROOT,
                           kService + " is root's only: run this as root, e.g. with sudo");
        case eTrouble::TimedOut:
            throw CFailure(EXIT_NO_ANSWER,
                           kService + " has not answered within " + Duration(waiting.patience) +
                               ": it may still be at it; wait longer with --timeout");
        case eTrouble::Interrupted:
            throw CFailure(EXIT_FAILED, "interrupted before the broker has answered");
        case eTrouble::Unknown:
            throw CFailure(EXIT_FAILED,
                           "this broker is too old to be asked that: \"vokctl version\" tells "
                           "which one it is");
        default:
            throw CFailure(EXIT_FAILED, kService + " did not answer: " + error.what() +
                                            "; the broker's log may "
                                            "say why");
    }
}

}  // namespace

template <typename Act>
void CAdminClient::AskSocket(Act act) const {
    const CPatience patience{m_Waiting.patience, m_Waiting.nInterrupt};
    CRpc<admin::VokBrokerAdminClient> rpc{ConnectUnix(paths::kAdminSocket, patience)};
    rpc.Call(act);
}

template <typename Act>
void CAdminClient::Ask(Act act) const {
    try {
        AskSocket(act);
    } catch (const admin::BadRequest& refused) {
        throw CFailure(EXIT_FAILED, "the broker refuses: " + refused.message);
    } catch (const CCallError& error) {
        ThrowAdminFailure(error, m_Waiting);
    }
}

using Client = admin::VokBrokerAdminClient;

admin::BrokerState CAdminClient::GetState() const {
    admin::BrokerState state;
    Ask([&](Client& client) { client.GetState(state); });
    return state;
}

admin::BrokerState CAdminClient::GetStateOfSocket() const {
    admin::BrokerState state;
    AskSocket([&](Client& client) { client.GetState(state); });
    return state;
}

admin::Whereabouts CAdminClient::Where(const std::string& strEmp) const {
    admin::Whereabouts whereabouts;
    Ask([&](Client& client) { client.Where(whereabouts, strEmp); });
    return whereabouts;
}

std::vector<admin::OpenTimes> CAdminClient::GetOpens() const {
    std::vector<admin::OpenTimes> opens;
    Ask([&](Client& client) { client.GetOpens(opens); });
    return opens;
}

void CAdminClient::SetDebugLevel(int nLevel) const {
    Ask([&](Client& client) { client.SetDebugLevel(nLevel); });
}

void CAdminClient::EnablePing(bool bEnable) const {
    Ask([&](Client& client) { client.EnablePing(bEnable); });
}

int CAdminClient::SweepZombies() const {
    int nClosed = 0;
    Ask([&](Client& client) { nClosed = client.SweepZombies(); });
    return nClosed;
}

int CAdminClient::CloseAll(const std::string& strAppId, const std::string& strWidgetId) const {
    int nClosed = 0;
    Ask([&](Client& client) { nClosed = client.CloseAll(strAppId, strWidgetId); });
    return nClosed;
}

}  // namespace vok::ctl
