/// An admin service that tells what the test wants, without a broker.
#pragma once

#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "VokBrokerAdmin.h"
#include "platform/EmpPaths.h"
#include "tests/support/FakeServer.h"

namespace vok::test {

/// The answers. Set before the server exists; `hang` runs with every call. What it was told may be
/// read at any time.
class CAdminAnswers : public admin::VokBrokerAdminIf {
public:
    void SetDebugLevel(const std::int32_t level) override {
        Begin();
        nToldLevel = level;
    }
    void EnablePing(const bool enable) override {
        Begin();
        bToldPing = enable;
    }
    std::int32_t SweepZombies() override {
        Begin();
        return nSwept;
    }
    std::int32_t CloseAll(const std::string& appId, const std::string& widgetId) override {
        Begin();
        if (!strRefusal.empty()) {
            admin::BadRequest refusal;
            refusal.message = strRefusal;
            throw refusal;
        }
        return static_cast<std::int32_t>(appId.size() + widgetId.size());
    }
    void GetState(admin::BrokerState& _return) override {
        Begin();
        _return = state;
    }
    void Where(admin::Whereabouts& _return, const std::string& empName) override {
        Begin();
        _return = whereabouts;
        _return.empName = empName;
    }
    void GetOpens(std::vector<admin::OpenTimes>& _return) override {
        Begin();
        _return = opens;
    }

    admin::BrokerState state;
    admin::Whereabouts whereabouts;
    std::vector<admin::OpenTimes> opens;
    std::string strRefusal;
    std::int32_t nSwept = 0;
    std::function<void()> hang;

    std::atomic<std::int32_t> nToldLevel{-1};
    std::atomic<bool> bToldPing{false};

private:
    void Begin() const {
        if (hang) hang();
    }
};

/// Serves at the admin socket's path as long as it lives.
class CFakeAdmin {
public:
    explicit CFakeAdmin(const std::shared_ptr<CAdminAnswers>& pAnswers) {
        std::filesystem::create_directories(paths::kAdminFolder);
        std::filesystem::remove(paths::kAdminSocket);
        m_pServer = std::make_unique<CFakeServer>(
            std::make_shared<admin::VokBrokerAdminProcessor>(pAnswers),
            std::string(paths::kAdminSocket));
        (void)::chmod(paths::kAdminSocket, 0600);
    }
    ~CFakeAdmin() {
        m_pServer.reset();
        std::filesystem::remove_all(paths::kAdminFolder);
    }
    CFakeAdmin(const CFakeAdmin&) = delete;
    CFakeAdmin& operator=(const CFakeAdmin&) = delete;

private:
    std::unique_ptr<CFakeServer> m_pServer;
};

}  // namespace vok::test
