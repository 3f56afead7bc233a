/// What vokctl asks the broker's admin service.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ctl/BrokerClient.h"
#include "vok_admin_types.h"

namespace vok::ctl {

/// Each call is a connection of its own. All throw CFailure.
class CAdminClient {
public:
    explicit CAdminClient(Waiting waiting) : m_Waiting(waiting) {}

    admin::BrokerState GetState() const;
    /// As GetState, but judges the admin socket only, not whether a broker serves without it.
    /// Throws CCallError.
    admin::BrokerState GetStateOfSocket() const;
    admin::Whereabouts Where(const std::string& strEmp) const;
    std::vector<admin::OpenTimes> GetOpens() const;
    void SetDebugLevel(int nLevel) const;
    void EnablePing(bool bEnable) const;
    int SweepZombies() const;
    int CloseAll(const std::string& strAppId, const std::string& strWidgetId) const;

private:
    template <typename Act>
    void Ask(Act act) const;
    template <typename Act>
    void AskSocket(Act act) const;

    Waiting m_Waiting;
};

}  // namespace vok::ctl
