#include "tests/support/CAdminClient.h"

#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TSocket.h>

#include <memory>
#include <utility>

namespace vok::test {

CAdminClient::CAdminClient(std::string strPath) : m_strPath(std::move(strPath)) {}

void CAdminClient::Call(const std::function<void(admin::VokBrokerAdminClient&)>& call) const {
    using namespace apache::thrift;
    constexpr int kMilliseconds = static_cast<int>(std::chrono::milliseconds{kPatience}.count());

    const auto pSocket = std::make_shared<transport::TSocket>(m_strPath);
    pSocket->setConnTimeout(kMilliseconds);
    pSocket->setSendTimeout(kMilliseconds);
    pSocket->setRecvTimeout(kMilliseconds);
    admin::VokBrokerAdminClient client{std::make_shared<protocol::TBinaryProtocol>(
        std::make_shared<transport::TBufferedTransport>(pSocket))};
    pSocket->open();
    call(client);
}

void CAdminClient::SetDebugLevel(std::int32_t nLevel) const {
    Call([&](admin::VokBrokerAdminClient& client) { client.SetDebugLevel(nLevel); });
}

void CAdminClient::EnablePing(bool bEnable) const {
    Call([&](admin::VokBrokerAdminClient& client) { client.EnablePing(bEnable); });
}

std::int32_t CAdminClient::SweepZombies() const {
    std::int32_t nClosed = 0;
    Call([&](admin::VokBrokerAdminClient& client) { nClosed = client.SweepZombies(); });
    return nClosed;
}

std::int32_t CAdminClient::CloseAll(const std::string& strAppId,
                                    const std::string& strWidgetId) const {
    std::int32_t nClosed = 0;
    Call([&](admin::VokBrokerAdminClient& client) {
        nClosed = client.CloseAll(strAppId, strWidgetId);
    });
    return nClosed;
}

admin::BrokerState CAdminClient::GetState() const {
    admin::BrokerState state;
    Call([&](admin::VokBrokerAdminClient& client) { client.GetState(state); });
    return state;
}

admin::Whereabouts CAdminClient::Where(const std::string& strEmp) const {
    admin::Whereabouts whereabouts;
    Call([&](admin::VokBrokerAdminClient& client) { client.Where(whereabouts, strEmp); });
    return whereabouts;
}

std::vector<admin::OpenTimes> CAdminClient::GetOpens() const {
    std::vector<admin::OpenTimes> opens;
    Call([&](admin::VokBrokerAdminClient& client) { client.GetOpens(opens); });
    return opens;
}

}  // namespace vok::test
