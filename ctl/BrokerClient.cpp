#include "ctl/BrokerClient.h"

#include <charconv>

#include "VokBroker.h"
#include "VokEmp.h"
#include "ctl/Connection.h"
#include "ctl/Failure.h"
#include "ctl/Format.h"
#include "platform/Limits.h"

namespace vok::ctl {

namespace {

const std::string kBroker =
    std::string("the broker on ") + kBrokerAddress + ':' + std::to_string(kBrokerPort);

/// Without a broker's answer, nobody knows who has its port.
const std::string kWhoHasThePort =
    "\"ss -ltnp 'sport = :" + std::to_string(kBrokerPort) + "'\" tells what it is";
/// What becomes of an open that nobody awaits any more.
constexpr char kMayStillOpen[] =
    "; it may still open: \"vokctl list\" tells, \"vokctl sweep\" closes it";

constexpr char kVersionWord[] = "GetVOKVersion";

/// A connect to an interface that is down would wait for its time-out.
void CheckLoopback() {
    if (IsLoopbackUp()) return;
    throw CFailure(EXIT_NO_BROKER, kBroker +
                                       " cannot be reached: the loopback interface is down; \"ip "
                                       "link set lo up\" brings it up");
}

[[noreturn]] void ThrowBrokerFailure(const CCallError& error, const Waiting& waiting,
                                     const char* szAfterTimeout = "") {
    switch (error.Trouble()) {
        case eTrouble::Refused:
            throw CFailure(EXIT_NO_BROKER, std::string("no broker serves on ") + kBrokerAddress +
                                               ':' + std::to_string(kBrokerPort) +
                                               ": start vok-broker; \"vokctl doctor\" tells what "
                                               "may keep it from serving");
        case eTrouble::TimedOut:
            throw CFailure(EXIT_NO_ANSWER,
                           kBroker + " has not answered within " + Duration(waiting.patience) +
                               ": it may still be at it; wait longer with --timeout" +
                               szAfterTimeout);
        case eTrouble::Interrupted:
            throw CFailure(EXIT_FAILED,
                           "interrupted before the broker has answered: what was asked for may "
                           "still happen; \"vokctl list\" tells, \"vokctl sweep\" closes it");
        case eTrouble::Garbled:
            throw CFailure(EXIT_FAILED, "what serves on " + std::to_string(kBrokerPort) +
                                            " does not speak like a broker: " + kWhoHasThePort);
        default:
            throw CFailure(EXIT_FAILED,
                           kBroker + " did not answer: " + error.what() + "; its log may say why");
    }
}

/// Throws CCallError.
template <typename Act>
void CallBroker(const Waiting& waiting, Act act) {
    CheckLoopback();
    const CPatience patience{waiting.patience, waiting.nInterrupt};
    CRpc<VokBrokerClient> rpc{ConnectTcp(kBrokerAddress, kBrokerPort, patience)};
    rpc.Call(act);
}

/// Throws CCallError.
std::string AskVersion(const Waiting& waiting) {
    std::string strVersion;
    CallBroker(waiting, [&](VokBrokerClient& broker) {
        broker.Execute(strVersion, "", kVersionWord, "", "", "", "");
    });
    return strVersion;
}

template <typename Act>
void AskBroker(const Waiting& waiting, Act act, const char* szAfterTimeout = "") {
    try {
        CallBroker(waiting, act);
    } catch (const CCallError& error) {
        ThrowBrokerFailure(error, waiting, szAfterTimeout);
    }
}

/// 0 for what is no port.
int PortNumber(const std::string& strPort) {
    int nPort = 0;
    const char* const pEnd = strPort.data() + strPort.size();
    const auto result = std::from_chars(strPort.data(), pEnd, nPort);
    return result.ec == std::errc() && result.ptr == pEnd ? nPort : 0;
}

Socket ConnectEmp(const ConnectionInfo& info, const CPatience& patience) {
    if (info.empPort.rfind('/', 0) == 0) return ConnectUnix(info.empPort, patience);
    return ConnectTcp(info.ip, PortNumber(info.empPort), patience);
}

std::string At(const std::vector<std::string>& texts, std::size_t i) {
    return i < texts.size() ? texts[i] : std::string();
}

constexpr std::size_t kPlainArguments = 4;

}  // namespace

void CBrokerClient::CheckServes() const {
    const std::string strPort = std::to_string(kBrokerPort);
    std::string strVersion;
    try {
        strVersion = AskVersion(m_Waiting);
    } catch (const CCallError& error) {
        if (error.Trouble() == eTrouble::Refused || error.Trouble() == eTrouble::Interrupted)
            ThrowBrokerFailure(error, m_Waiting);
        if (error.Trouble() == eTrouble::TimedOut)
            throw CFailure(EXIT_NO_ANSWER,
                           "what serves on " + strPort + " has not answered within " +
                               Duration(m_Waiting.patience) +
                               ": a broker that hangs, or another program; " + kWhoHasThePort);
        if (error.Trouble() == eTrouble::Broken)
            throw CFailure(EXIT_FAILED,
                           "what serves on " + strPort + " did not answer: " + error.what() +
                               "; a broker that stops, or another program: " + kWhoHasThePort);
    }
    if (strVersion.empty())
        throw CFailure(EXIT_FAILED, "something else has port " + strPort +
                                        ", which does not speak like a broker: " + kWhoHasThePort);
}

ConnectionInfo CBrokerClient::Open(const std::string& strClientPort, const std::string& strEmp,
                                   const std::string& strVersion, const std::string& strApp) const {
    ConnectionInfo info;
    AskBroker(
        m_Waiting,
        [&](VokBrokerClient& broker) {
            broker.OpenEmp(info, strClientPort, strEmp, strVersion, strApp);
        },
        kMayStillOpen);
    return info;
}

bool CBrokerClient::Close(const ConnectionInfo& info) const {
    bool bClosed = false;
    AskBroker(m_Waiting, [&](VokBrokerClient& broker) { bClosed = broker.CloseEmp(info); });
    return bClosed;
}

std::string CBrokerClient::Execute(const std::string& strArg1, const std::string& strCmd,
                                   const std::vector<std::string>& arguments) const {
    std::string strAnswer;
    AskBroker(m_Waiting, [&](VokBrokerClient& broker) {
        broker.Execute(strAnswer, strArg1, strCmd, At(arguments, 0), At(arguments, 1),
                       At(arguments, 2), At(arguments, 3));
    });
    return strAnswer;
}

std::string CBrokerClient::Version() const {
    return Execute("", kVersionWord, {});
}

bool IsConnected(const ConnectionInfo& info) {
    return !info.empPort.empty() && info.empPort != "-1";
}

std::string NotOpenedText(const std::string& strEmp, const ConnectionInfo& info,
                          std::int64_t nMicroseconds) {
    const std::string strBegin = "the broker did not open " + strEmp + ": ";
    const std::string strWhere = "\"vokctl where " + strEmp + "\" tells ";
    if (strEmp == "Broker") return strBegin + "that is its own name, and no EMP's";
    if (info.empPort.empty())
        return strBegin + "it is not installed, and no launcher serves it; " + strWhere +
               "where it looks";
    const std::string strAfter = Elapsed(nMicroseconds);
    if (nMicroseconds < std::int64_t{kReportWaitMs} * 1000)
        return strBegin + "refused after " + strAfter +
               ": it takes one connection only and has it, or could not be started; " + strWhere +
               "which, and the broker's log says why";
    return strBegin + "it did not start, or not report, within " + strAfter + "; " + strWhere +
           "what there is, and the broker's log says why";
}

template <typename Act>
void CEmpClient::Ask(const std::string& strWhat, Act act) const {
    try {
        const CPatience patience{m_Waiting.patience, m_Waiting.nInterrupt};
        CRpc<VokEmpClient> rpc{ConnectEmp(m_Info, patience)};
        rpc.Call(act);
    } catch (const CCallError& error) {
        const std::string strEmp =
            "the EMP " + m_Info.empName + " at " + m_Info.ip + ':' + m_Info.empPort;
        if (error.Trouble() == eTrouble::TimedOut)
            throw CFailure(EXIT_NO_ANSWER, strEmp + " has not answered " + strWhat + " within " +
                                               Duration(m_Waiting.patience) +
                                               ": wait longer with --timeout, or look at its "
                                               "process with \"vokctl where\"");
        const std::string strLine = strEmp + " did not answer " + strWhat + ": " + error.what();
        if (error.Trouble() == eTrouble::Refused || error.Trouble() == eTrouble::Broken)
            throw CEmpHasGone(EXIT_FAILED, strLine);
        throw CFailure(EXIT_FAILED, strLine);
    }
}

int CEmpClient::Open(const std::string& strVersion, const std::string& strApp) const {
    int nClients = 0;
    Ask("Open", [&](VokEmpClient& emp) {
        nClients = emp.Open(m_Info.clientPort, m_Info.empName, strVersion, strApp);
    });
    return nClients;
}

std::string CEmpClient::Execute(const std::string& strCmd,
                                const std::vector<std::string>& arguments, bool bAsList) const {
    std::string strAnswer;
    Ask("\"" + strCmd + "\"", [&](VokEmpClient& emp) {
        if (bAsList || arguments.size() > kPlainArguments) {
            ParamList list;
            list.params = arguments;
            emp.ExecuteWithParamList(strAnswer, m_Info.clientPort, strCmd, list);
        } else {
            emp.Execute(strAnswer, m_Info.clientPort, strCmd, At(arguments, 0), At(arguments, 1),
                        At(arguments, 2), At(arguments, 3));
        }
    });
    return strAnswer;
}

}  // namespace vok::ctl
