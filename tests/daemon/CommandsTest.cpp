// The command call over the wire: every word and its answer, and messages of an unusual form.
#include <gtest/gtest.h>
#include <thrift/TApplicationException.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>

#include <memory>
#include <string>
#include <vector>

#include "platform/CVOKDebug.h"
#include "tests/support/CBrokerClient.h"
#include "tests/support/CDaemon.h"

namespace vok::test {
namespace {

using apache::thrift::TApplicationException;
using apache::thrift::protocol::TBinaryProtocol;
using apache::thrift::transport::TMemoryBuffer;

class CommandsTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(m_Daemon.Start()) << m_Daemon.Log(); }

    CDaemon m_Daemon;
};

// ---- The words ---------------------------------------------------------------------------------

struct Line {
    int nLevel;
    std::string strMessage;
};

struct CommandCase {
    const char* szName;
    std::vector<std::string> arguments;  // arg1, the word, arg3 to arg6
    const char* szAnswer;
    std::vector<Line> lines;  // what `Execute` logs, in order
};

std::ostream& operator<<(std::ostream& stream, const CommandCase& command) {
    return stream << command.szName;
}

class CommandsWordTest : public CommandsTest, public ::testing::WithParamInterface<CommandCase> {};

TEST_P(CommandsWordTest, IsAnswered) {
    const CommandCase& command = GetParam();
    std::vector<std::string> arguments = command.arguments;
    arguments.resize(6);
    CBrokerClient client;
    EXPECT_EQ(client.Execute(arguments[0], arguments[1], arguments[2], arguments[3], arguments[4],
                             arguments[5]),
              command.szAnswer);

    std::vector<std::string> expected;
    for (const Line& line : command.lines)
        expected.push_back(std::to_string(line.nLevel) + ' ' + line.strMessage);
    std::vector<std::string> logged;
    for (const DaemonLogLine& line : m_Daemon.LogLines())
        if (line.strFunction == "Execute")
            logged.push_back(std::to_string(line.nLevel) + ' ' + line.strMessage);
    EXPECT_EQ(logged, expected);
    EXPECT_EQ(client.Version(), "5.100") << "the connection goes on";
}

const char kReport[] = "__BROKER_CMD_NOTIFY_EMP_SERVER_INFO";
const char kGrouping[] = "__BROKER_CMD_NOTIFY_GROUPINGEMP_SERVER";
const char kLauncher[] = "__BROKER_CMD_NOTIFY_REGISTEREMP_SERVER";
const char kRegister[] = "__BROKER_CMD_NOTIFY_REGISTER_EMP";
const char kUnregister[] = "__BROKER_CMD_NOTIFY_UNREGISTER_EMP";
const char kStopEmp[] = "__BROKER_CMD_NOTIFY_TO_STOP_EMP_SERVER";
const char kCloseAll[] = "CloseAllEmpWithAppID ";
const char kPrepareToClose[] = "__CLIENT_CMD_PREPARE_TO_CLOSE";

const Line kGroupingEntry{
    4, ">>> BROKER_CMD_NOTIFY_GROUPINGEMP_SERVER_PORT cmd is received in CBroker::execute!"};
const Line kLauncherEntry{
    4, ">>> BROKER_CMD_NOTIFY_REGISTEREMP_SERVER_PORT cmd is received in CBroker::execute!"};
const Line kNoGroup{0, ">>> GroupingEmp name or port is empty!"};
const Line kNoLauncher{0, "[Register] Necessary info is empty!"};
const Line kNoRegistration{0, "RegisterEmpName or LauncherServerPort is empty!"};
const Line kNoStop{0, "[BROKER_CMD_NOTIFY_TO_STOP_EMP_SERVER] Any necessary param is empty."};

Line GroupingLine(const char* szName, const char* szPort) {
    return {4, std::string("Grouping EMP Server name[") + szName + "],  port/path:[" + szPort +
                   "], strCmd:[" + kGrouping + "]"};
}

Line LauncherLine(const char* szName, const char* szPort) {
    return {4, std::string("Launcher Info:[") + szName + '|' + szPort + "], strCmd:[" + kLauncher +
                   "]"};
}

Line StopLine(const char* szWhat) {
    return {4, std::string("[BROKER_CMD_NOTIFY_TO_STOP_EMP_SERVER] ") + szWhat};
}

INSTANTIATE_TEST_SUITE_P(
    Clients, CommandsWordTest,
    ::testing::Values(
        CommandCase{"Version",
                    {"4711", "GetVOKVersion"},
                    "5.100",
                    {{4, "fromPort:[4711] , strCmd:[GetVOKVersion]"},
                     {4, "ThreadName:[B-E-GetVOKVer] len:[13]"},
                     {4, "VOK FullVERSION STRING[5.100]"}}},
        CommandCase{"CloseAll",
                    {"4711", kCloseAll, "app", "widget"},
                    "",
                    {{4, "Port/Path:[app] , strCmd:[CloseAllEmpWithAppID ]"},
                     {4, "ThreadName:[B-E-CloseAllEm] len:[14]"}}},
        CommandCase{"CloseAllOfNobody",
                    {"4711", kCloseAll, "", "widget"},
                    "",
                    {{4, "Port/Path:[] , strCmd:[CloseAllEmpWithAppID ]"},
                     {0, "Broker got wrong parametres from Port/Path:[4711]"}}},
        CommandCase{"PrepareToClose",
                    {"4711", kPrepareToClose, "app", "widget"},
                    "",
                    {{4, "Port/Path:[4711], strCmd:[__CLIENT_CMD_PREPARE_TO_CLOSE]"},
                     {4, "ThreadName:[B-E-CloseAllEm] len:[14]"}}},
        CommandCase{"PrepareToCloseNobody",
                    {"4711", kPrepareToClose},
                    "",
                    {{4, "Port/Path:[4711], strCmd:[__CLIENT_CMD_PREPARE_TO_CLOSE]"},
                     {0, "Broker got wrong parametres from Port/Path:[4711]"}}},
        CommandCase{"CloseAllWithoutTheBlank",
                    {"4711", "CloseAllEmpWithAppID", "app"},
                    "",
                    {{0, "there is no command for broker execution[CloseAllEmpWithAppID]"}}},
        CommandCase{"WordOfAnotherCase",
                    {"", "getvokversion"},
                    "",
                    {{0, "there is no command for broker execution[getvokversion]"}}},
        CommandCase{"NoWord", {}, "", {{0, "there is no command for broker execution[]"}}}),
    [](const auto& info) { return info.param.szName; });

INSTANTIATE_TEST_SUITE_P(
    Emps, CommandsWordTest,
    ::testing::Values(
        CommandCase{"ReportThatNobodyAwaits",
                    {"", kReport, "77", "4000|1234", "__SERVER_SUCCESS_TO_RUN", "0001"},
                    "ConfirmComplete",
                    {{4, std::string("EMP Server:[4000|1234], strCmd:[") + kReport + "]"},
                     {4, "ThreadName:[B-E-NOTIFY_EMP] len:[14]"}}},
        CommandCase{"ReportWithoutSerial",
                    {"", kReport, "", "4000|1234", "__SERVER_SUCCESS_TO_RUN", "0001"},
                    "",
                    {{4, std::string("EMP Server:[4000|1234], strCmd:[") + kReport + "]"},
                     {0, ">>> Ticket Serial is NULL!!!"}}},
        CommandCase{"StopOfAnUnknownEmp",
                    {"4711", kStopEmp, "Weather", "4000", "0"},
                    "",
                    {StopLine("Name:[Weather], C|S:[4711|4000], Type:[0]."),
                     {0, "EMP:[Weather]->pid:[0], maybe it's not existed."}}},
        CommandCase{"StopWithoutName",
                    {"4711", kStopEmp, "", "4000", "0"},
                    "",
                    {StopLine("Name:[], C|S:[4711|4000], Type:[0]."), kNoStop}},
        CommandCase{"StopWithoutPort",
                    {"4711", kStopEmp, "Weather", "", "0"},
                    "",
                    {StopLine("Name:[Weather], C|S:[4711|], Type:[0]."), kNoStop}},
        CommandCase{"StopWithoutType",
                    {"4711", kStopEmp, "Weather", "4000", ""},
                    "",
                    {StopLine("Name:[Weather], C|S:[4711|4000], Type:[]."), kNoStop}}),
    [](const auto& info) { return info.param.szName; });

INSTANTIATE_TEST_SUITE_P(
    Launchers, CommandsWordTest,
    ::testing::Values(
        CommandCase{"GroupingReport",
                    {"", kGrouping, "Group", "4000"},
                    "ConfirmComplete",
                    {kGroupingEntry, GroupingLine("Group", "4000")}},
        CommandCase{"GroupingReportWithoutName",
                    {"", kGrouping, "", "4000"},
                    "",
                    {kGroupingEntry, GroupingLine("", "4000"), kNoGroup}},
        CommandCase{"GroupingReportWithoutPort",
                    {"", kGrouping, "Group", ""},
                    "",
                    {kGroupingEntry, GroupingLine("Group", ""), kNoGroup}},
        CommandCase{"LauncherComes",
                    {"1", kLauncher, "Launcher", "4000"},
                    "Done",
                    {kLauncherEntry, LauncherLine("Launcher", "4000")}},
        CommandCase{"UnknownLauncherGoes",
                    {"0", kLauncher, "Launcher", "4000"},
                    "Done",
                    {kLauncherEntry, LauncherLine("Launcher", "4000")}},
        CommandCase{"LauncherWithAnUnknownOption",
                    {"7", kLauncher, "Launcher", "4000"},
                    "Done",
                    {kLauncherEntry, LauncherLine("Launcher", "4000")}},
        CommandCase{"LauncherWithoutOption",
                    {"", kLauncher, "Launcher", "4000"},
                    "",
                    {kLauncherEntry, LauncherLine("Launcher", "4000"), kNoLauncher}},
        CommandCase{"LauncherWithoutName",
                    {"1", kLauncher, "", "4000"},
                    "",
                    {kLauncherEntry, LauncherLine("", "4000"), kNoLauncher}},
        CommandCase{"LauncherWithoutPort",
                    {"1", kLauncher, "Launcher", ""},
                    "",
                    {kLauncherEntry, LauncherLine("Launcher", ""), kNoLauncher}},
        CommandCase{"RegisterWithAnUnknownLauncher",
                    {"", kRegister, "Weather", "4000"},
                    "Error",
                    {{4, "[REGISTER] comes from Launcher[Weather,4000]."},
                     {0, ">>RegisterEMP:[Weather|4000] failed."}}},
        CommandCase{"RegisterWithoutName",
                    {"", kRegister, "", "4000"},
                    "",
                    {{4, "[REGISTER] comes from Launcher[,4000]."}, kNoRegistration}},
        CommandCase{"RegisterWithoutPort",
                    {"", kRegister, "Weather", ""},
                    "",
                    {{4, "[REGISTER] comes from Launcher[Weather,]."}, kNoRegistration}},
        CommandCase{"UnregisterWithAnUnknownLauncher",
                    {"", kUnregister, "Weather", "4000"},
                    "Error",
                    {{4, "[UNREGISTER] comes from Launcher[Weather,4000]."},
                     {0, ">>UnRegisterEMP:[Weather|4000] failed."}}},
        CommandCase{"UnregisterWithoutName",
                    {"", kUnregister, "", "4000"},
                    "",
                    {{4, "[UNREGISTER] comes from Launcher[,4000]."}, kNoRegistration}},
        CommandCase{"UnregisterWithoutPort",
                    {"", kUnregister, "Weather", ""},
                    "",
                    {{4, "[UNREGISTER] comes from Launcher[Weather,]."}, kNoRegistration}}),
    [](const auto& info) { return info.param.szName; });

TEST_F(CommandsTest, LauncherRegistersItselfAndItsEmp) {
    CBrokerClient launcher;
    EXPECT_EQ(launcher.Execute("1", kLauncher, "Launcher", "4000"), "Done");
    EXPECT_EQ(launcher.Execute("", kRegister, "Weather", "4000"), "Done");
    EXPECT_EQ(launcher.Execute("", kRegister, "Weather", "4001"), "Error");
    EXPECT_EQ(launcher.Execute("", kUnregister, "Weather", "4000"), "Done");
    EXPECT_EQ(launcher.Execute("0", kLauncher, "Launcher", "4000"), "Done");
    EXPECT_EQ(launcher.Execute("", kRegister, "Weather", "4000"), "Error") << "it has gone";
}

TEST_F(CommandsTest, AnswersThatAreLogged) {
    CBrokerClient client;
    EXPECT_EQ(client.Version(), "5.100");
    EXPECT_TRUE(m_Daemon.HasLine(LEVEL_DETAIL, "GetFullVersion", "GetFullVersion : [5.100]."))
        << m_Daemon.Log();
}

// ---- The thread's name -------------------------------------------------------------------------

TEST_F(CommandsTest, ThreadIsNamedAfterTheLastCommandThatNamesIt) {
    CBrokerClient client;
    EXPECT_EQ(client.Version(), "5.100");
    EXPECT_TRUE(m_Daemon.HasThread("B-E-GetVOKVer"));
    (void)client.Execute("", kReport, "77", "4000|1234");
    EXPECT_TRUE(m_Daemon.HasThread("B-E-NOTIFY_EMP"));
    (void)client.Execute("", kPrepareToClose, "app");
    EXPECT_TRUE(m_Daemon.HasThread("B-E-CloseAllEm"));
    (void)client.Execute("", kGrouping, "Group", "4000");
    EXPECT_TRUE(m_Daemon.HasThread("B-E-CloseAllEm")) << "this one has no name to give";
    EXPECT_FALSE(m_Daemon.HasThread("B-E-GetVOKVer"));
    EXPECT_TRUE(m_Daemon.HasThread("VOK-B-Server"));

    client.Disconnect();
    EXPECT_TRUE(CDaemon::Await([&] { return !m_Daemon.HasThread("B-E-CloseAllEm"); }));
}

// ---- Reports with numbers that are none --------------------------------------------------------

class CommandsGarbageSerialTest : public CommandsTest,
                                  public ::testing::WithParamInterface<const char*> {};

TEST_P(CommandsGarbageSerialTest, IsAnsweredWithAnException) {
    CBrokerClient client;
    EXPECT_THROW((void)client.Execute("", kReport, GetParam(), "4000|1234",
                                      "__SERVER_SUCCESS_TO_RUN", "0001"),
                 TApplicationException);
    EXPECT_EQ(CBrokerClient().Version(), "5.100");
    EXPECT_TRUE(m_Daemon.IsRunning());
}

INSTANTIATE_TEST_SUITE_P(Serials, CommandsGarbageSerialTest,
                         ::testing::Values("x", "7x", " 7", "4294967296", "1.0", "0x7"));

TEST_F(CommandsTest, ArgumentsOfAnyLengthAndContentAreTaken) {
    CBrokerClient client;
    const std::string strLong(1 << 20, 'x');
    EXPECT_EQ(client.Execute(strLong, "GetVOKVersion", strLong, strLong, strLong, strLong),
              "5.100");
    EXPECT_EQ(client.Execute("%s%n%d", "%s%n%d", "%s"), "");
    EXPECT_EQ(client.Execute(std::string("a\0b", 3), std::string("GetVOKVersion\0", 14)), "")
        << "a word with a NUL is another word";
    EXPECT_EQ(client.Version(), "5.100");
}

// More than the library takes in one message: the bound is one of a message, not of a connection.
TEST_F(CommandsTest, ConnectionIsNotUsedUp) {
    CBrokerClient client;
    const std::string strLong(4 << 20, 'x');
    for (int n = 0; n < 8; ++n)
        ASSERT_EQ(client.Execute(strLong, "GetVOKVersion", strLong, strLong, strLong, strLong),
                  "5.100");
}

// ---- Messages ----------------------------------------------------------------------------------

/// The bytes of a message without the version word, as old peers send them.
std::string OldFormVersionCall() {
    const auto pBytes = std::make_shared<TMemoryBuffer>();
    VokBrokerClient writer{std::make_shared<TBinaryProtocol>(pBytes, 0, 0, false, false)};
    writer.send_Execute("", "GetVOKVersion", "", "", "", "");
    return pBytes->getBufferAsString();
}

/// A call of a method that has no arguments.
std::string CallOf(const std::string& strMethod) {
    const auto pBytes = std::make_shared<TMemoryBuffer>();
    TBinaryProtocol protocol{pBytes};
    protocol.writeMessageBegin(strMethod, apache::thrift::protocol::T_CALL, 7);
    protocol.writeStructBegin("");
    protocol.writeFieldStop();
    protocol.writeStructEnd();
    protocol.writeMessageEnd();
    return pBytes->getBufferAsString();
}

TEST_F(CommandsTest, MessageWithoutVersionWordIsAccepted) {
    CBrokerClient client;
    const std::string strCall = OldFormVersionCall();
    ASSERT_EQ(strCall[0], '\0') << "the length of the method's name comes first";
    client.SendRaw(strCall);
    std::string strAnswer;
    client.Rpc().recv_Execute(strAnswer);
    EXPECT_EQ(strAnswer, "5.100");
    EXPECT_EQ(client.Version(), "5.100") << "both forms on one connection";
}

TEST_F(CommandsTest, AnswerHasTheVersionWord) {
    CBrokerClient client;
    client.SendRaw(OldFormVersionCall());
    EXPECT_EQ(client.ReceiveRaw(2), "\x80\x01");
}

TEST_F(CommandsTest, UnknownMethodIsAnsweredWithTheProtocolsException) {
    CBrokerClient client;
    for (const char* szMethod : {"Ping", "execute", "Open", ""}) {
        client.SendRaw(CallOf(szMethod));
        std::string strAnswer;
        try {
            client.Rpc().recv_Execute(strAnswer);
            ADD_FAILURE() << szMethod << " was answered: " << strAnswer;
        } catch (const TApplicationException& e) {
            EXPECT_EQ(e.getType(), TApplicationException::UNKNOWN_METHOD) << e.what();
        }
    }
    EXPECT_EQ(client.Version(), "5.100") << "the connection goes on";
}

TEST_F(CommandsTest, ArgumentsThatAreNotSentAreEmpty) {
    CBrokerClient client;
    client.SendRaw(CallOf("Execute"));
    std::string strAnswer = "?";
    client.Rpc().recv_Execute(strAnswer);
    EXPECT_EQ(strAnswer, "");
    EXPECT_TRUE(
        m_Daemon.HasLine(LEVEL_ERROR, "Execute", "there is no command for broker execution[]"));
}

}  // namespace
}  // namespace vok::test
