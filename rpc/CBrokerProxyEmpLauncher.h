/// The broker's client towards an EMP launcher.
#pragma once

#include <string>

namespace vok {

/// Every call makes its own connection and blocks for the whole RPC. Thread-safe: nothing changes.
class CBrokerProxyEmpLauncher {
public:
    CBrokerProxyEmpLauncher() = default;  // the port stays empty: every call fails at connect
    explicit CBrokerProxyEmpLauncher(std::string strPort);

    /// Asks the launcher to start an EMP, which reports with `nTicketSerial`. The launcher's
    /// answer; 0 when the call failed (logged, level 0). `strIp` is only logged: launchers are
    /// local.
    int Open(std::string strName, int nTicketSerial, std::string strIp, std::string strCbSrvPath);

private:
    std::string m_strPort;
};

}  // namespace vok
