/// The broker's client towards an EMP server.
#pragma once

#include <memory>
#include <string>

#include "VokEmp.h"
#include "platform/Number.h"
#include "rpc/CallOnce.h"

namespace vok {

/// Keeps an address only: every call makes its own connection, so a proxy may be aimed at another
/// EMP between calls. Calls block for the whole RPC. No lock: one thread per proxy.
///
/// What fails in the RPC library is logged (level 0) and mapped to a result: "error", -1 or 0.
class CBrokerProxyEmp : public VokEmpIf {
public:
    /// `strPort`: TCP port as decimal text; any other text makes calls fail at connect.
    explicit CBrokerProxyEmp(std::string strPort);

    /// 1, whatever the EMP answered; 0 when the call failed.
    int32_t Open(const std::string& strClientID, const std::string& strName,
                 const std::string& strVersion, const std::string& strCredential) override;

    /// How many clients the EMP still serves; -1 when the call failed. `eType` is only passed on.
    int32_t Close(const std::string& strClientID, EmpType::type eType) override;

    /// The EMP's answer; "error" when the call failed. Never throws.
    void Execute(std::string& strResult, const std::string& strClientID, const std::string& strCmd,
                 const std::string& strArg3, const std::string& strArg4, const std::string& strArg5,
                 const std::string& strArg6) override;

    /// The EMP's answer; "error" when the call failed.
    void ExecuteWithParamList(std::string& strResult, const std::string& strClientID,
                              const std::string& strCmd, const ParamList& params) override;

    /// False, and nothing changes, when `strIP` is empty.
    bool SetIP(std::string strIP);
    std::string GetIP() const { return m_strIP; }

    /// Returns true.
    bool SetPortInfo(std::string strPort);
    std::string GetPortInfo() const { return m_strPort; }

    /// The EMP's option code, or "error".
    std::string GetOption(std::string strClientID);

    /// True when the EMP answers exactly "1".
    bool Ping(std::string strClientID);

    /// True when the EMP says that its client belongs to the application.
    bool HasAppID(std::string strClientID, std::string strAppID, std::string strWidgetID);

    /// Aims at `strPort` and pings until the EMP answers: true. Throws a std::string that says so
    /// when it does not, after 19 pings, 10 ms apart.
    bool IsServerRunning(std::string strPort);

private:
    RpcAddress Address() const { return {m_strIP, LeadingNumber(m_strPort), {}}; }

    std::shared_ptr<VokEmpClient> m_pClient;  // never set; keeps its place in the object
    std::string m_strPort;
    std::string m_strIP = "127.0.0.1";
};

}  // namespace vok
