/// What the broker is measured against, besides itself and the other activators.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "bench/CChild.h"
#include "bench/CNetwork.h"

namespace vok::bench {

/// Where a bare Thrift server serves. The broker's port is the broker's.
/// Below the ports that the kernel gives to clients, which come and go by the hundred thousand.
inline constexpr int kBarePort = 20001;

/// A bare Thrift server with the broker's service: see bare_thrift.cpp. It serves when the
/// constructor returns.
class CBareServer {
public:
    explicit CBareServer(const std::vector<std::string>& arguments = {});
    pid_t Pid() const { return m_Program.Pid(); }

private:
    CChild m_Program;
};

/// What the bare server is to look at in an open of the EMP: the files that the broker looks at
/// when a preinstalled EMP runs already. What location resolution asks for, then what decides
/// whether an image is to be mounted.
std::vector<std::string> FilesOfWarmOpen(const std::string& strEmp);

/// Bare starts of EMPs: see bare_start.cpp. It has a network of its own, where the port that EMPs
/// report to is free.
class CBareStarter {
public:
    CBareStarter();

    /// Starts preinstalled EMPs at once; seconds until the last of them has reported. They have
    /// ended when this returns.
    double Start(const std::vector<std::string>& emps);

private:
    const CNetwork m_Network;
    std::unique_ptr<CChild> m_pProgram;
};

}  // namespace vok::bench
