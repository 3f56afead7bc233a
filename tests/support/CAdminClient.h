/// A client of the broker's admin service.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "VokBrokerAdmin.h"
#include "platform/EmpPaths.h"

namespace vok::test {

/// Each call is a connection of its own. Calls throw apache::thrift::TException when the transport
/// fails, admin::BadRequest when the service answers so. Thread-safe.
class CAdminClient {
public:
    /// How long connecting, sending and receiving may take each before a call fails.
    static constexpr std::chrono::seconds kPatience{30};

    explicit CAdminClient(std::string strPath = paths::kAdminSocket);

    void SetDebugLevel(std::int32_t nLevel) const;
    void EnablePing(bool bEnable) const;
    std::int32_t SweepZombies() const;
    std::int32_t CloseAll(const std::string& strAppId, const std::string& strWidgetId = "") const;
    admin::BrokerState GetState() const;
    admin::Whereabouts Where(const std::string& strEmp) const;
    std::vector<admin::OpenTimes> GetOpens() const;

private:
    void Call(const std::function<void(admin::VokBrokerAdminClient&)>& call) const;

    const std::string m_strPath;
};

}  // namespace vok::test
