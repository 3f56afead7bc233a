#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <type_traits>
#include <vector>

#include "rpc/CBrokerProxyEmp.h"
#include "tests/support/CFakeEmp.h"
#include "tests/support/CLogCapture.h"
#include "tests/support/LogLines.h"
#include "tests/support/RpcLibraryFault.h"

namespace vok {
namespace {

using test::CFakeEmp;
using test::CLogCapture;
using test::CRawPeer;
using test::CRefusedPort;
using test::CRpcLibraryFault;
using test::EmpCall;
using test::LogLines;
using test::LogRecord;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::SizeIs;

static_assert(std::is_base_of_v<VokEmpIf, CBrokerProxyEmp>);

class CBrokerProxyEmpTest : public ::testing::Test {
protected:
    CFakeEmp m_Emp;
    CBrokerProxyEmp m_Proxy{m_Emp.PortText()};
    CLogCapture m_Log;
};

TEST(CBrokerProxyEmp, StartsAtLoopbackWithItsPort) {
    const CBrokerProxyEmp proxy{"-1"};

    EXPECT_EQ(proxy.GetIP(), "127.0.0.1");
    EXPECT_EQ(proxy.GetPortInfo(), "-1");
}

TEST(CBrokerProxyEmp, SetIPIgnoresAnEmptyAddress) {
    CBrokerProxyEmp proxy{"4000"};

    EXPECT_TRUE(proxy.SetIP("127.0.0.2"));
    EXPECT_FALSE(proxy.SetIP(""));

    EXPECT_EQ(proxy.GetIP(), "127.0.0.2");
}

TEST(CBrokerProxyEmp, SetPortInfoLogsOldAndNewWithoutItsClass) {
    const CLogCapture log;
    CBrokerProxyEmp proxy{"-1"};

    EXPECT_TRUE(proxy.SetPortInfo("4000"));

    EXPECT_EQ(proxy.GetPortInfo(), "4000");
    EXPECT_THAT(LogLines(log), ElementsAre("4 SetPortInfo: Path is reset -1->4000"));
}

TEST_F(CBrokerProxyEmpTest, ExecutePassesEverythingAndAnswers) {
    m_Emp.AnswerExecute("Say", "hello");
    std::string strResult = "before";

    m_Proxy.Execute(strResult, "6001", "Say", "a", "b", "c", "d");

    EXPECT_EQ(strResult, "hello");
    EXPECT_THAT(m_Emp.Calls(),
                ElementsAre(EmpCall{"Execute", {"6001", "Say", "a", "b", "c", "d"}}));
    EXPECT_THAT(LogLines(m_Log),
                ElementsAre("4 CBrokerProxyEmp::Execute: Execute call start clientID:6001 cmd:Say ",
                            "4 CBrokerProxyEmp::Execute: Execute call end"));
}

TEST_F(CBrokerProxyEmpTest, ExecuteTakesAnAnswerOfAnySize) {
    const std::string strLong(300'000, 'x');
    m_Emp.AnswerExecute("Say", strLong);
    std::string strResult;

    m_Proxy.Execute(strResult, "6001", "Say", strLong, "", "", "");

    EXPECT_EQ(strResult, strLong);
    ASSERT_THAT(m_Emp.Calls(), SizeIs(1));
    EXPECT_EQ(m_Emp.Calls()[0].arguments[2], strLong);
}

TEST_F(CBrokerProxyEmpTest, ExecuteReachesTheEmpThatItWasAimedAtLast) {
    CFakeEmp other;
    std::string strResult;

    m_Proxy.SetPortInfo(other.PortText());
    m_Proxy.Execute(strResult, "6001", "Ping", "", "", "", "");

    EXPECT_EQ(strResult, "1");
    EXPECT_THAT(m_Emp.Calls(), IsEmpty());
    EXPECT_THAT(other.Calls(), SizeIs(1));
}

TEST_F(CBrokerProxyEmpTest, ExecuteWithParamListPassesEverythingAndAnswers) {
    m_Emp.AnswerExecute("Say", "hello");
    ParamList params;
    params.params = {"a", "b"};
    std::string strResult;

    m_Proxy.ExecuteWithParamList(strResult, "6001", "Say", params);

    EXPECT_EQ(strResult, "hello");
    EXPECT_THAT(m_Emp.Calls(),
                ElementsAre(EmpCall{"ExecuteWithParamList", {"6001", "Say", "a", "b"}}));
    EXPECT_THAT(LogLines(m_Log),
                ElementsAre("4 CBrokerProxyEmp::ExecuteWithParamList: ExecuteWithParamList call "
                            "start clientID:6001 cmd:Say "));
}

TEST_F(CBrokerProxyEmpTest, CloseAnswersTheReferenceCount) {
    for (const int nAnswer : {0, 1, 7, -1}) {
        m_Emp.AnswerClose(nAnswer);
        EXPECT_EQ(m_Proxy.Close("6001", EmpType::PROCESS), nAnswer);
    }
}

TEST_F(CBrokerProxyEmpTest, ClosePassesEveryType) {
    m_Proxy.Close("6001", EmpType::PROCESS);
    m_Proxy.Close("6002", EmpType::GROUPING);
    m_Proxy.Close("6003", EmpType::REGISTER);

    EXPECT_THAT(m_Emp.Calls(),
                ElementsAre(EmpCall{"Close", {"6001", "0"}}, EmpCall{"Close", {"6002", "1"}},
                            EmpCall{"Close", {"6003", "2"}}));
}

TEST_F(CBrokerProxyEmpTest, CloseLogsTheTypeAndThePort) {
    m_Proxy.Close("6001", EmpType::REGISTER);

    EXPECT_THAT(LogLines(m_Log),
                ElementsAre("4 CBrokerProxyEmp::Close: Close from clientID:[6001], emp type:[2].",
                            "4 CBrokerProxyEmp::Close: >>>>>>TCP Socket, emp server port:[" +
                                m_Emp.PortText() + "]."));
}

TEST_F(CBrokerProxyEmpTest, OpenIsOneWhateverTheEmpAnswers) {
    for (const int nAnswer : {0, 1, -7}) {
        m_Emp.AnswerOpen(nAnswer);
        EXPECT_EQ(m_Proxy.Open("6001", "Weather", "1.0", "secret"), 1);
    }
}

TEST_F(CBrokerProxyEmpTest, OpenPassesEverythingAndLogs) {
    EXPECT_EQ(m_Proxy.Open("6001", "Weather", "1.0", "secret"), 1);

    EXPECT_THAT(m_Emp.Calls(), ElementsAre(EmpCall{"Open", {"6001", "Weather", "1.0", "secret"}}));
    EXPECT_THAT(
        LogLines(m_Log),
        ElementsAre("4 CBrokerProxyEmp::Open: Open call start with Port/Path:[" + m_Emp.PortText() +
                        "] clientID:[6001] name:Weather version:[1.0] credential:[secret] ",
                    "4 CBrokerProxyEmp::Open: Open call end"));
}

TEST_F(CBrokerProxyEmpTest, GetOptionAsksForTheOption) {
    m_Emp.AnswerExecute("GetOption", "0003");

    EXPECT_EQ(m_Proxy.GetOption("6001"), "0003");

    EXPECT_THAT(m_Emp.Calls(),
                ElementsAre(EmpCall{"Execute", {"6001", "GetOption", "", "", "", ""}}));
}

TEST_F(CBrokerProxyEmpTest, PingOfALiveEmpIsTrueAndLogged) {
    EXPECT_TRUE(m_Proxy.Ping("6001"));

    EXPECT_THAT(m_Emp.Calls(), ElementsAre(EmpCall{"Execute", {"6001", "Ping", "", "", "", ""}}));
    EXPECT_TRUE(m_Log.HasLine(LEVEL_DETAIL, "CBrokerProxyEmp::Ping", "Ping Ok : [6001]"))
        << m_Log.Text();
}

class OddPingAnswerTest : public CBrokerProxyEmpTest,
                          public ::testing::WithParamInterface<const char*> {};

TEST_P(OddPingAnswerTest, IsFalseWithoutALine) {
    m_Emp.AnswerExecute("Ping", GetParam());

    EXPECT_FALSE(m_Proxy.Ping("6001"));

    EXPECT_EQ(m_Log.CountLines(LEVEL_DETAIL, "CBrokerProxyEmp::Ping", "Ping Ok : [6001]"), 0);
    EXPECT_THAT(m_Log.Messages(LEVEL_ERROR), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Answer, OddPingAnswerTest,
                         ::testing::Values("1 ", "", "0", "11", " 1", "error"));

struct AppCase {
    const char* szName;
    const char* szAnswer;
    bool bOwns;
};

class HasAppIDTest : public CBrokerProxyEmpTest, public ::testing::WithParamInterface<AppCase> {};

TEST_P(HasAppIDTest, IsTrueForTheExactAnswerOnly) {
    m_Emp.AnswerExecute("CompareAppID", GetParam().szAnswer);

    EXPECT_EQ(m_Proxy.HasAppID("6001", "app", "widget"), GetParam().bOwns);

    EXPECT_THAT(m_Emp.Calls(),
                ElementsAre(EmpCall{"Execute", {"6001", "CompareAppID", "app", "widget", "", ""}}));
    EXPECT_TRUE(m_Log.HasLine(LEVEL_DETAIL, "CBrokerProxyEmp::HasAppID",
                              std::string{"appID:[app]'s status  ["} +
                                  (GetParam().bOwns ? "1" : "0") + "], ret:[" +
                                  GetParam().szAnswer + "]"))
        << m_Log.Text();
}

INSTANTIATE_TEST_SUITE_P(Answer, HasAppIDTest,
                         ::testing::Values(AppCase{"Owns", "EMP_OWNS_APP_ID", true},
                                           AppCase{"Longer", "EMP_OWNS_APP_ID ", false},
                                           AppCase{"Empty", "", false},
                                           AppCase{"No", "EMP_NOT_OWNS_APP_ID", false}),
                         [](const auto& info) { return info.param.szName; });

/// What is wrong with an EMP.
enum class eFault { Refused, NoNumber, ClosedAtOnce, ClosedMidMessage, Garbage, Failing };

class FaultyEmpTest : public ::testing::TestWithParam<eFault> {
protected:
    FaultyEmpTest() { m_FailingEmp.FailCalls("out of order"); }

    std::string Port() {
        switch (GetParam()) {
            case eFault::Refused:
                return m_RefusedPort.PortText();
            case eFault::NoNumber:
                return "/tmp/emp";
            case eFault::ClosedAtOnce:
                return m_ClosingPeer.PortText();
            case eFault::ClosedMidMessage:
                return m_HalfPeer.PortText();
            case eFault::Garbage:
                return m_GarbagePeer.PortText();
            case eFault::Failing:
                return m_FailingEmp.PortText();
        }
        return "";
    }

    /// The one error that was logged, with the exception's own text replaced by "...".
    std::string Error(const std::string& strFunction) const {
        std::string strError;
        for (const LogRecord& record : m_Log.Records()) {
            if (record.nLevel != LEVEL_ERROR) continue;
            if (!strError.empty() || record.Function() != strFunction) return m_Log.Text();
            strError = record.strMessage;
        }
        const std::size_t nOpen = strError.find('[');
        const std::size_t nClose = strError.find(']');
        if (nClose == std::string::npos || nClose == nOpen + 1) return m_Log.Text();
        return strError.replace(nOpen + 1, nClose - nOpen - 1, "...");
    }

    CRefusedPort m_RefusedPort;
    CRawPeer m_ClosingPeer{""};
    CRawPeer m_HalfPeer{test::HalfAnAnswer()};
    CRawPeer m_GarbagePeer{test::Garbage()};
    CFakeEmp m_FailingEmp;
    CLogCapture m_Log;
    CBrokerProxyEmp m_Proxy{Port()};
};

TEST_P(FaultyEmpTest, ExecuteReadsError) {
    std::string strResult = "before";

    m_Proxy.Execute(strResult, "6001", "Say", "a", "b", "c", "d");

    EXPECT_EQ(strResult, "error");
    EXPECT_EQ(Error("CBrokerProxyEmp::Execute"),
              "Execute call error [...], strEngineKey is 6001, ip is 127.0.0.1, empport is " +
                  Port() + ",cmd is Say");
    EXPECT_FALSE(m_Log.HasLine(LEVEL_DETAIL, "CBrokerProxyEmp::Execute", "Execute call end"));
}

TEST_P(FaultyEmpTest, ExecuteWithParamListReadsError) {
    std::string strResult = "before";

    m_Proxy.ExecuteWithParamList(strResult, "6001", "Say", ParamList{});

    EXPECT_EQ(strResult, "error");
    EXPECT_EQ(Error("CBrokerProxyEmp::ExecuteWithParamList"), "Execute call error [...]");
}

TEST_P(FaultyEmpTest, CloseIsMinusOne) {
    EXPECT_EQ(m_Proxy.Close("6001", EmpType::PROCESS), -1);

    EXPECT_EQ(Error("CBrokerProxyEmp::Close"),
              "Close call error [...], strEngineKey is 6001,ip is 127.0.0.1, empport is " + Port());
}

TEST_P(FaultyEmpTest, OpenIsZero) {
    EXPECT_EQ(m_Proxy.Open("6001", "Weather", "1.0", "secret"), 0);

    EXPECT_EQ(Error("CBrokerProxyEmp::Open"), "Transport Error : [...]");
    EXPECT_FALSE(m_Log.HasLine(LEVEL_DETAIL, "CBrokerProxyEmp::Open", "Open call end"));
}

TEST_P(FaultyEmpTest, QuestionsReadAsNo) {
    EXPECT_EQ(m_Proxy.GetOption("6001"), "error");
    EXPECT_FALSE(m_Proxy.Ping("6001"));
    EXPECT_FALSE(m_Proxy.HasAppID("6001", "app", "widget"));

    EXPECT_TRUE(m_Log.HasLine(LEVEL_DETAIL, "CBrokerProxyEmp::HasAppID",
                              "appID:[app]'s status  [0], ret:[error]"))
        << m_Log.Text();
}

INSTANTIATE_TEST_SUITE_P(Peer, FaultyEmpTest,
                         ::testing::Values(eFault::Refused, eFault::NoNumber, eFault::ClosedAtOnce,
                                           eFault::ClosedMidMessage, eFault::Garbage,
                                           eFault::Failing),
                         [](const auto& info) -> std::string {
                             switch (info.param) {
                                 case eFault::Refused:
                                     return "Refused";
                                 case eFault::NoNumber:
                                     return "NoNumber";
                                 case eFault::ClosedAtOnce:
                                     return "ClosedAtOnce";
                                 case eFault::ClosedMidMessage:
                                     return "ClosedMidMessage";
                                 case eFault::Garbage:
                                     return "Garbage";
                                 case eFault::Failing:
                                     return "Failing";
                             }
                             return "Unknown";
                         });

TEST(CBrokerProxyEmp, ErrorsNameTheAddressThatWasSet) {
    const CRefusedPort port;
    const CLogCapture log;
    CBrokerProxyEmp proxy{port.PortText()};
    proxy.SetIP("127.0.0.2");

    EXPECT_EQ(proxy.GetOption("6001"), "error");

    EXPECT_THAT(log.Messages(LEVEL_ERROR),
                ElementsAre(MatchesRegex("Execute call error \\[.+\\], strEngineKey is 6001, ip is "
                                         "127\\.0\\.0\\.2, empport is [0-9]+,cmd is GetOption")));
}

TEST_F(CBrokerProxyEmpTest, IsServerRunningAimsAndPingsOnceWhenTheEmpIsThere) {
    CBrokerProxyEmp proxy{"-1"};

    EXPECT_TRUE(proxy.IsServerRunning(m_Emp.PortText()));

    EXPECT_EQ(proxy.GetPortInfo(), m_Emp.PortText());
    EXPECT_THAT(m_Emp.Calls(),
                ElementsAre(EmpCall{"Execute", {m_Emp.PortText(), "Ping", "", "", "", ""}}));
    const std::string strPort = m_Emp.PortText();
    EXPECT_THAT(LogLines(m_Log),
                ElementsAre("4 SetPortInfo: Path is reset -1->" + strPort,
                            "4 CBrokerProxyEmp::IsServerRunning: Ping Try[2]",
                            "4 CBrokerProxyEmp::Execute: Execute call start clientID:" + strPort +
                                " cmd:Ping ",
                            "4 CBrokerProxyEmp::Execute: Execute call end",
                            "4 CBrokerProxyEmp::Ping: Ping Ok : [" + strPort + "]",
                            "4 CBrokerProxyEmp::IsServerRunning: Ping Ok at Try[2]"));
}

TEST(CBrokerProxyEmp, ExecuteReadsErrorWhateverIsThrown) {
    const CRefusedPort port;
    CBrokerProxyEmp proxy{port.PortText()};
    for (const auto thrown :
         {CRpcLibraryFault::STD_EXCEPTION, CRpcLibraryFault::NO_EXCEPTION_CLASS}) {
        CLogCapture log;
        std::string strResult = "before";
        {
            const CRpcLibraryFault fault{thrown};
            proxy.Execute(strResult, "6001", "Say", "", "", "", "");
        }

        EXPECT_EQ(strResult, "error");
        EXPECT_THAT(LogLines(log),
                    ElementsAre("4 CBrokerProxyEmp::Execute: Execute call start clientID:6001 "
                                "cmd:Say ",
                                "0 CBrokerProxyEmp::Execute: An unexpected error occured. Execute "
                                "call error"));
    }
}

/// The lines of `IsServerRunning` itself: not those of its pings, nor what its commands print.
std::vector<std::string> ServerRunningLines(const CLogCapture& log) {
    std::vector<std::string> lines;
    for (const LogRecord& record : log.Records())
        if (record.nLevel == LEVEL_DETAIL &&
            record.Function() == "CBrokerProxyEmp::IsServerRunning")
            lines.push_back(record.strMessage);
    return lines;
}

/// True when something that is not the proxy's was logged between two of its lines: the output of
/// the command that it ran there, or the shell's complaint that there is no such command.
bool HasOutputBetween(const CLogCapture& log, const std::string& strFirst,
                      const std::string& strLast) {
    const std::vector<LogRecord> records = log.Records();
    const auto isLine = [](const std::string& strMessage) {
        return [strMessage](const LogRecord& record) { return record.strMessage == strMessage; };
    };
    const auto first = std::find_if(records.begin(), records.end(), isLine(strFirst));
    const auto last = std::find_if(first, records.end(), isLine(strLast));
    return last != records.end() && std::any_of(first, last, [](const LogRecord& record) {
               return record.Function() != "CBrokerProxyEmp::IsServerRunning";
           });
}

TEST(CBrokerProxyEmp, IsServerRunningGivesUpAfterNineteenPings) {
    const CRefusedPort port;
    const std::string strPort = port.PortText();
    std::vector<std::string> expected;
    for (int nTry = 2; nTry <= 20; ++nTry) {
        expected.push_back("Ping Try[" + std::to_string(nTry) + "]");
        if (nTry != 11) continue;
        for (const std::string& strLine :
             {"Port:[" + strPort + "]. count:[10]",
              std::string{"please capture all the logs from boot! to send VOK team"},
              std::string{"netstat -a!!!"}, std::string{"ps !!!"}, std::string{"free -k!!!"},
              std::string{"Thank you for your patience."}})
            expected.push_back(strLine);
    }
    CBrokerProxyEmp proxy{"-1"};
    CLogCapture log;
    std::string strThrown;

    try {
        proxy.IsServerRunning(strPort);
    } catch (const std::string& strReason) {
        strThrown = strReason;
    }

    EXPECT_EQ(strThrown, "EmpServer(Port:[" + strPort + "]) is not available now");
    EXPECT_EQ(ServerRunningLines(log), expected);
    EXPECT_EQ(log.Messages(LEVEL_ERROR).size(), 19u) << log.Text();
    EXPECT_TRUE(HasOutputBetween(log, "ps !!!", "free -k!!!")) << log.Text();
}

}  // namespace
}  // namespace vok
