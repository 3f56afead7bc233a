/// What vokctl asks the broker, and EMPs, as any client does.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "ctl/Failure.h"
#include "vok_types.h"

namespace vok::ctl {

/// How long to wait, and what ends the wait early.
struct Waiting {
    std::chrono::milliseconds patience{5000};
    int nInterrupt = -1;  // see CPatience
};

/// The broker on its port; each call is a connection of its own. All throw CFailure.
class CBrokerClient {
public:
    explicit CBrokerClient(Waiting waiting) : m_Waiting(waiting) {}

    /// Throws when nobody serves, or what serves does not tell a broker's version.
    void CheckServes() const;

    ConnectionInfo Open(const std::string& strClientPort, const std::string& strEmp,
                        const std::string& strVersion, const std::string& strApp) const;
    bool Close(const ConnectionInfo& info) const;
    /// The arguments as they travel: the command word is the second.
    std::string Execute(const std::string& strArg1, const std::string& strCmd,
                        const std::vector<std::string>& arguments) const;
    std::string Version() const;

private:
    Waiting m_Waiting;
};

/// True for the record of an open that led to a connection.
bool IsConnected(const ConnectionInfo& info);

/// Why an open came to nothing, from the broker's answer and how long that took.
std::string NotOpenedText(const std::string& strEmp, const ConnectionInfo& info,
                          std::int64_t nMicroseconds);

/// Nobody serves at an EMP's address, or it has ended the connection: it may have ended just now.
class CEmpHasGone : public CFailure {
public:
    using CFailure::CFailure;
};

/// An EMP, at the address that the broker has handed out; each call is a connection of its own. All
/// throw CFailure, and CEmpHasGone.
class CEmpClient {
public:
    CEmpClient(const ConnectionInfo& info, Waiting waiting) : m_Info(info), m_Waiting(waiting) {}

    /// Says who is there: answers how many clients the EMP has now.
    int Open(const std::string& strVersion, const std::string& strApp) const;
    /// Four arguments travel as such; more of them, or with `bAsList` any number, as a list.
    std::string Execute(const std::string& strCmd, const std::vector<std::string>& arguments,
                        bool bAsList) const;

private:
    template <typename Act>
    void Ask(const std::string& strWhat, Act act) const;

    ConnectionInfo m_Info;
    Waiting m_Waiting;
};

}  // namespace vok::ctl
