// The broker: may it serve, does it, and can it be reached?
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <sstream>

#include "ctl/Doctor.h"
#include "platform/EmpPaths.h"
#include "platform/Limits.h"

namespace vok::ctl {

namespace {

const std::string kPortText = std::to_string(kBrokerPort);

void CheckLoopback(const Patient& patient, Findings& findings) {
    if (patient.loopbackUp())
        findings.push_back({eFinding::Ok, "loopback", "lo is up"});
    else
        findings.push_back({eFinding::Problem, "loopback",
                            "lo is down, and all calls travel over it", "ip link set lo up"});
}

void CheckFreePort(const std::string& strCheck, const std::string& strStarting,
                   Findings& findings) {
    if (strStarting.empty())
        findings.push_back({eFinding::Ok, strCheck, "free: no broker serves"});
    else
        findings.push_back({eFinding::Warning, strCheck,
                            "free: a vok-broker runs, process " + strStarting +
                                ", and does not serve: it starts or stops",
                            "wait some seconds; if it stays so, its log tells what it is at"});
}

void CheckPort(const Looks& looks, Findings& findings) {
    const PortLook& port = looks.port;
    const std::string strCheck = "port " + kPortText;
    switch (port.holder) {
        case PortLook::Free:
            CheckFreePort(strCheck, looks.strStarting, findings);
            break;
        case PortLook::Broker:
            findings.push_back({eFinding::Ok, strCheck, "served by vok-broker " + port.strVersion});
            break;
        case PortLook::Other:
            findings.push_back(
                {eFinding::Problem, strCheck, "held by something that is no broker",
                 "find it with \"ss -ltnp 'sport = :" + kPortText + "'\", and end it"});
            break;
        case PortLook::Silent:
            findings.push_back({eFinding::Problem, strCheck, "whoever holds it does not answer",
                                "find it with \"ss -ltnp 'sport = :" + kPortText +
                                    "'\": a broker that hangs tells why in its log"});
            break;
        case PortLook::Connection:
            findings.push_back({eFinding::Problem, strCheck,
                                "held, but not served: the kernel has given it to a connection",
                                "find it with \"ss -tnp 'sport = :" + kPortText +
                                    "'\", end it, and keep the port for the broker as below"});
            break;
    }
}

/// Whether a port stands in a list as "50000,50100-50999".
bool IsListed(const std::string& strList, int nPort) {
    std::istringstream list(strList);
    std::string strItem;
    while (std::getline(list, strItem, ',')) {
        std::istringstream item(strItem);
        int nFirst = 0;
        int nLast = 0;
        char cDash = 0;
        if (!(item >> nFirst)) continue;
        if (!(item >> cDash >> nLast)) nLast = nFirst;
        if (nPort >= nFirst && nPort <= nLast) return true;
    }
    return false;
}

/// In the range from which the kernel takes the ports of outgoing connections, a port may be taken
/// just when a broker starts.
void CheckReserved(const Patient& patient, Findings& findings) {
    const std::string strNet = patient.strRoot + "/proc/sys/net/ipv4/ip_local_";
    std::istringstream range(ReadSmallFile(strNet + "port_range"));
    int nFirst = 0;
    int nLast = 0;
    if (!(range >> nFirst >> nLast) || kBrokerPort < nFirst || kBrokerPort > nLast) return;
    std::string strReserved = ReadSmallFile(strNet + "reserved_ports");
    strReserved.erase(strReserved.find_last_not_of(" \n") + 1);
    if (IsListed(strReserved, kBrokerPort)) return;
    if (!strReserved.empty()) strReserved += ',';
    findings.push_back({eFinding::Warning, "port range",
                        kPortText + " is one of the ports that the kernel gives to connections (" +
                            std::to_string(nFirst) + " to " + std::to_string(nLast) +
                            "): one may hold it when the broker starts",
                        "write \"net.ipv4.ip_local_reserved_ports=" + strReserved + kPortText +
                            "\" into /etc/sysctl.d/60-vok-broker.conf, then sysctl --system"});
}

void CheckReadyFlag(const Patient& patient, const Looks& looks, Findings& findings) {
    const std::string strFlag = paths::kReadyFlag;
    struct stat info {};
    const bool bThere = ::lstat((patient.strRoot + strFlag).c_str(), &info) == 0;
    if (bThere && S_ISDIR(info.st_mode))
        findings.push_back({eFinding::Problem, "ready flag",
                            strFlag + " is a folder: a broker cannot start", "rmdir " + strFlag});
    else if (bThere && !looks.strStarting.empty())
        findings.push_back({eFinding::Ok, "ready flag",
                            strFlag + " is there, of an earlier broker: the one that starts "
                                      "removes it"});
    else if (bThere && !looks.MayHaveBroker())
        findings.push_back({eFinding::Warning, "ready flag",
                            strFlag + " is there, and no broker: one was killed",
                            "start vok-broker, which replaces it, or remove it"});
    else if (!bThere && looks.HasBroker())
        findings.push_back({eFinding::Warning, "ready flag",
                            strFlag +
                                " is missing: the broker is starting or stopping, or somebody "
                                "has removed it",
                            "wait a moment; if it stays away, restart vok-broker"});
    else if (!bThere && !looks.strStarting.empty())
        findings.push_back({eFinding::Ok, "ready flag", strFlag + " is not there yet"});
    else
        findings.push_back({eFinding::Ok, "ready flag",
                            strFlag + (bThere ? " is there" : " is not there, nor is a broker")});
}

/// A program that has been replaced is still the one that runs.
void CheckProcess(const Patient& patient, const Looks& looks, Findings& findings) {
    if (looks.admin.nPid == 0) return;
    const std::string strPid = std::to_string(looks.admin.nPid);
    std::array<char, 4096> target{};
    const ssize_t nSize = ::readlink((patient.strRoot + "/proc/" + strPid + "/exe").c_str(),
                                     target.data(), target.size());
    if (nSize < 0) return;
    const std::string strProgram(target.data(), static_cast<std::size_t>(nSize));
    constexpr char kDeleted[] = " (deleted)";
    if (strProgram.find(kDeleted) != std::string::npos)
        findings.push_back({eFinding::Warning, "process",
                            strPid + " runs a program that has been replaced since",
                            "restart vok-broker when no client minds"});
    else
        findings.push_back({eFinding::Ok, "process", strPid + " runs " + strProgram});
}

void CheckAdminFolder(const Patient& patient, Findings& findings) {
    const std::string strFolder = paths::kAdminFolder;
    struct stat info {};
    // The broker follows no link there, either.
    if (::lstat((patient.strRoot + strFolder).c_str(), &info) != 0) return;
    const bool bOwn = S_ISDIR(info.st_mode) && info.st_uid == patient.nOwner;
    if (bOwn && (info.st_mode & (S_IWGRP | S_IWOTH)) == 0) return;
    // Not chown: what a stranger has put there would stay.
    findings.push_back(
        {eFinding::Problem, "admin folder",
         strFolder + " is not root's alone: a broker serves without its admin service",
         "rm -rf " + strFolder + ", then restart vok-broker, which makes it anew"});
}

void CheckAdmin(const Looks& looks, Findings& findings) {
    const std::string strSocket = paths::kAdminSocket;
    const std::string strRestart =
        "its log says why, after \"No admin service on\"; then restart vok-broker";
    switch (looks.admin.state) {
        case AdminLook::Served:
            findings.push_back({eFinding::Ok, "admin socket", strSocket + " is served"});
            break;
        case AdminLook::Forbidden:
            findings.push_back(
                {eFinding::Ok, "admin socket", strSocket + " is there; root sees more of it"});
            break;
        case AdminLook::NoSocket:
            findings.push_back({eFinding::Problem, "admin socket",
                                strSocket + " is no socket: a broker serves without",
                                "remove it, then restart vok-broker"});
            break;
        case AdminLook::Silent:
            findings.push_back({eFinding::Problem, "admin socket", strSocket + " does not answer",
                                "the broker's log tells what it is at"});
            break;
        case AdminLook::Missing:
        case AdminLook::Refused: {
            const bool bLeft = looks.admin.state == AdminLook::Refused;
            if (looks.HasBroker())
                findings.push_back({eFinding::Problem, "admin socket",
                                    "the broker serves without " + strSocket, strRestart});
            else if (!looks.strStarting.empty())
                findings.push_back(
                    {eFinding::Ok, "admin socket", strSocket + " is not served yet"});
            else if (bLeft)
                findings.push_back({eFinding::Warning, "admin socket",
                                    strSocket + " was left by a broker that was killed",
                                    "start vok-broker, which replaces it"});
            else
                findings.push_back(
                    {eFinding::Ok, "admin socket", strSocket + " is not there, nor is a broker"});
            break;
        }
    }
}

}  // namespace

void CheckBroker(const Patient& patient, const Looks& looks, Findings& findings) {
    CheckLoopback(patient, findings);
    CheckPort(looks, findings);
    CheckReserved(patient, findings);
    CheckReadyFlag(patient, looks, findings);
    CheckProcess(patient, looks, findings);
    CheckAdminFolder(patient, findings);
    CheckAdmin(looks, findings);
}

}  // namespace vok::ctl
