// The dispatch of each command word when memory is short.
#include <boost/make_shared.hpp>

#include "tests/alloc/Stage.h"

namespace vok::test {
namespace {

class CommandAllocationTest : public AllocationTest {};

TEST_P(CommandAllocationTest, IsDoneOrCanBeRepeated) {
    FailEveryAllocation();
}

constexpr char kApp[] = "org.example.application.of.the.set";
constexpr char kWidget[] = "org.example.widget.of.the.set";

Operation Command(const char* szName, std::function<void(Stage&)> prepare,
                  std::function<bool(Stage&)> run) {
    return {szName, std::move(prepare), run, run};
}

/// A command whose answer is the same whatever was done.
Operation Silent(const char* szName, std::function<void(Stage&)> prepare,
                 std::function<bool(Stage&)> run) {
    Operation operation = Command(szName, std::move(prepare), std::move(run));
    operation.bTells = false;
    return operation;
}

/// A ticket whose opener waits.
void Awaiting(Stage& stage) {
    const auto spTicket = boost::make_shared<Ticket>("-1");
    spTicket->m_Condition.SetDoWaiting(true);
    spTicket->m_bAwaitsReport = true;
    BrokerProbe::SetTicket(stage.broker, spTicket->GetSerial(), spTicket);
}

bool ReportStart(Stage& stage) {
    return stage.Execute("ConfirmComplete", "", "__BROKER_CMD_NOTIFY_EMP_SERVER_INFO", "2",
                         "/run/emps/weather-of-the-world.socket|777", "__SERVER_SUCCESS_TO_RUN",
                         "an option that is much too long");
}

/// The opener, who has waited all along, finds the report.
bool ReportStartAndWake(Stage& stage) {
    if (!ReportStart(stage)) return false;
    return BrokerProbe::Tickets(stage.broker).at(2)->m_Condition.Wait(1) == 0;
}

void WithLauncher(Stage& stage) {
    BrokerProbe::SetLauncher(stage.broker, kLauncher, kPort, {kEmp});
}

bool Register(Stage& stage, const char* szPort) {
    return stage.Execute("Done", "1", "__BROKER_CMD_NOTIFY_REGISTEREMP_SERVER", kLauncher, szPort);
}

/// Its launcher goes, and with it the connection of its EMP.
void ServedByLauncher(Stage& stage) {
    WithLauncher(stage);
    stage.AddServed("0001", 0);
}
bool Unregister(Stage& stage) {
    return stage.Execute("Done", "0", "__BROKER_CMD_NOTIFY_REGISTEREMP_SERVER", kLauncher, kPort);
}
/// Comes again and serves.
bool RegisterAndOpen(Stage& stage) {
    stage.LetLauncherReport("/run/emps/weather-of-the-world.socket|777", "0001");
    const std::string strPort = stage.pLauncher->PortText();
    return Unregister(stage) && Register(stage, strPort.c_str()) &&
           stage.Execute("Done", "", "__BROKER_CMD_NOTIFY_REGISTER_EMP", kEmp, strPort.c_str()) &&
           stage.Open();
}

bool ReportStop(Stage& stage, const char* szType) {
    return stage.Execute("", kClient, "__BROKER_CMD_NOTIFY_TO_STOP_EMP_SERVER", kEmp, kPort,
                         szType);
}
bool OpenAnew(Stage& stage) {
    stage.LetForkedReport("/run/emps/weather-of-the-world.socket|778", "0001");
    return stage.Open();
}

INSTANTIATE_TEST_SUITE_P(
    Words, CommandAllocationTest,
    ::testing::Values(
        Command("GetVOKVersion", {},
                [](Stage& s) { return s.Execute("5.100", kClient, "GetVOKVersion"); }),
        Operation{"EmpServerInfo", Awaiting, ReportStart, ReportStartAndWake},
        Command("EmpServerInfoOfAnUnknownTicket", {}, ReportStart),
        Command(
            "GroupingEmpServer",
            [](Stage& s) { BrokerProbe::SetGroup(s.broker, kGroup, "N/A", {kEmp}); },
            [](Stage& s) {
                return s.Execute("ConfirmComplete", "", "__BROKER_CMD_NOTIFY_GROUPINGEMP_SERVER",
                                 kGroup, kPort);
            }),
        Command("RegisterEmpServer", {}, [](Stage& s) { return Register(s, kPort); }),
        Command("RegisterEmpServerThatComesAgain", WithLauncher,
                [](Stage& s) { return Register(s, kOtherPort); }),
        // A connection that could not be closed is logged, and the launcher goes all the same.
        Operation{"RegisterEmpServerThatGoes", ServedByLauncher, Unregister, RegisterAndOpen,
                  false},
        Command("RegisterEmp", WithLauncher,
                [](Stage& s) {
                    return s.Execute("Done", "", "__BROKER_CMD_NOTIFY_REGISTER_EMP",
                                     "NewsOfTheWholeWideWorldAndMore", kPort);
                }),
        Command("UnregisterEmp", WithLauncher,
                [](Stage& s) {
                    return s.Execute("Done", "", "__BROKER_CMD_NOTIFY_UNREGISTER_EMP", kEmp, kPort);
                }),
        // The connection and the record go together; the process and the image follow, or stay to
        // be used again.
        Operation{"StopEmpServerOfAProcess",
                  [](Stage& s) {
                      s.fake.AddPreinstalled(kEmp);
                      s.AddOpen("0001", kPort);
                  },
                  [](Stage& s) { return ReportStop(s, "0"); }, OpenAnew},
        Operation{"StopEmpServerOfAnImage",
                  [](Stage& s) {
                      s.AddImage(kEmp);
                      s.fake.AddMounted(kEmp);
                      BrokerProbe::SetMountCount(s.broker, kEmp, 0);
                      s.AddOpen("0001", kPort);
                  },
                  [](Stage& s) { return ReportStop(s, "0"); }, OpenAnew, false},
        Operation{"StopEmpServerInAGroupingProcess",
                  [](Stage& s) {
                      s.AddImage(kGroup);
                      s.fake.AddMounted(kGroup);
                      BrokerProbe::SetMountCount(s.broker, kGroup, 0);
                      static const CRefusedPort s_Port;
                      BrokerProbe::SetGroup(s.broker, kGroup, s_Port.PortText(), {kEmp});
                      s.AddOpen("0001", kPort);
                  },
                  [](Stage& s) { return ReportStop(s, "1"); }, OpenAnew, false},
        Operation{"StopEmpServerThatIsAThread",
                  [](Stage& s) {
                      s.fake.AddPreinstalled(kEmp);
                      s.AddOpen("0001", kPort);
                  },
                  [](Stage& s) { return ReportStop(s, "2"); }, OpenAnew},
        // The command has no answer. A client that could not be asked keeps its connection, as
        // one whose EMP does not answer.
        Silent(
            "CloseAllEmpWithAppID",
            [](Stage& s) {
                s.fake.AddPreinstalled(kEmp);
                s.AddServed("0001", 0);
                s.pEmp->AnswerExecute("CompareAppID", "EMP_OWNS_APP_ID");
            },
            [](Stage& s) {
                return s.Execute("", kClient, "CloseAllEmpWithAppID ", kApp, kWidget);
            }),
        Silent(
            "PrepareToClose",
            [](Stage& s) {
                s.fake.AddPreinstalled(kEmp);
                s.AddServed("0001", 1);
                s.pEmp->AnswerExecute("CompareAppID", "EMP_OWNS_APP_ID");
            },
            [](Stage& s) {
                return s.Execute("", kClient, "__CLIENT_CMD_PREPARE_TO_CLOSE", kApp, kWidget);
            }),
        Command("AnUnknownWord", {},
                [](Stage& s) { return s.Execute("", kClient, "a word that nobody knows"); })),
    NameOf);

}  // namespace
}  // namespace vok::test
