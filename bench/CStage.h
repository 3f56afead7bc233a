/// The real daemon, and EMPs for it.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "bench/CNetwork.h"
#include "tests/support/CBrokerClient.h"
#include "tests/support/CDaemon.h"

namespace vok::bench {

/// The client that most calls are made for, and what it says of itself.
inline constexpr char kClientPort[] = "40001";
inline constexpr char kEmpVersion[] = "1.0";
inline constexpr char kAppInfo[] = "bench";

/// A daemon of its own, ready when the constructor returns; the destructor ends it and the EMPs.
/// All throw std::runtime_error when that, or what a row relies on, fails.
class CStage {
public:
    struct Options {
        int nLogLevel = 2;
        rlim_t nDescriptors = 0;             // 0: as many as the bench may have itself
        const CNetwork* pNetwork = nullptr;  // null: here
    };

    explicit CStage(const Options& options);
    CStage() : CStage(Options()) {}
    ~CStage();
    CStage(const CStage&) = delete;
    CStage& operator=(const CStage&) = delete;

    /// Where it serves; null: here.
    const CNetwork* Network() const { return m_pNetwork; }
    const test::CDaemon& Daemon() const { return *m_pDaemon; }
    std::unique_ptr<test::CBrokerClient> Connect() const;

    /// Opens, which has to give an address.
    static ConnectionInfo Open(test::CBrokerClient& client, const std::string& strEmp,
                               const std::string& strClientPort = kClientPort);
    /// Closes, which has to succeed.
    static void Close(test::CBrokerClient& client, const ConnectionInfo& info);

    /// Makes the EMP run on: a client is with it that never leaves.
    ConnectionInfo KeepRunning(const std::string& strEmp);
    /// Ends by SIGKILL what runs of the EMP.
    void EndAtLast(const std::string& strEmp) { m_Emps.push_back(strEmp); }

    /// SIGTERM; seconds until the process has ended.
    double Stop();

private:
    const CNetwork* const m_pNetwork;
    std::unique_ptr<test::CDaemon> m_pDaemon;
    std::vector<std::string> m_Emps;
};

}  // namespace vok::bench
