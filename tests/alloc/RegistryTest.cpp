// The tables when memory is short: an operation is done, or nothing has changed.
#include <boost/make_shared.hpp>

#include "tests/alloc/Stage.h"

namespace vok::test {
namespace {

class RegistryAllocationTest : public AllocationTest {};

TEST_P(RegistryAllocationTest, IsDoneOrChangesNothing) {
    FailEveryAllocation();
}

constexpr char kOther[] = "NewsOfTheWholeWideWorldAndMore";
constexpr char kOtherClient[] = "/run/clients/mail-of-the-set.socket";
constexpr char kOtherLauncher[] = "LauncherOfEvenMoreManyThreads";

const std::string kEmpText = kEmp;

void Known(Stage& stage) {
    stage.AddKnown(kEmp, "0001", EMP_OPENED, 777);
}
void Connected(Stage& stage) {
    stage.AddOpen("0001", kPort);
}
void Launching(Stage& stage) {
    BrokerProbe::SetLauncher(stage.broker, kLauncher, kPort, {kEmp});
    BrokerProbe::SetGroup(stage.broker, kGroup, kPort, {kEmp});
}
bool Yes(Stage&) {
    return true;
}

INSTANTIATE_TEST_SUITE_P(
    EmpInfo, RegistryAllocationTest,
    ::testing::Values(
        Operation{"Add",
                  {},
                  [](Stage& s) { return s.EmpInfo().Add(kEmp, "1.0 and so on and on"); },
                  [](Stage& s) { return s.EmpInfo().Add(kOther, "1.0"); }},
        Operation{"AddKnown", Known, [](Stage& s) { return !s.EmpInfo().Add(kEmp, kOther); }, {}},
        Operation{"Remove", Known, [](Stage& s) { return s.EmpInfo().Remove(kEmp); }, {}},
        Operation{"IsAdded", Known, [](Stage& s) { return s.EmpInfo().IsAdded(kEmp); }, {}},
        Operation{"SetTypeOption",
                  Known,
                  [](Stage& s) { return s.EmpInfo().SetTypeOption(kEmp, kOther); },
                  {}},
        Operation{"GetTypeOption",
                  [](Stage& s) { s.AddKnown(kEmp, kOther, EMP_OPENED); },
                  [](Stage& s) { return s.EmpInfo().GetTypeOption(kEmp) == kOther; },
                  {}},
        Operation{"SetTypeStatus",
                  Known,
                  [](Stage& s) { return s.EmpInfo().SetTypeStatus(kEmp, EMP_CLOSED); },
                  {}},
        Operation{"GetTypeStatus",
                  Known,
                  [](Stage& s) { return s.EmpInfo().GetTypeStatus(kEmp) == EMP_OPENED; },
                  {}},
        Operation{"SetEmpPid", Known, [](Stage& s) { return s.EmpInfo().SetEmpPid(kEmp, 1); }, {}},
        Operation{
            "GetEmpPid", Known, [](Stage& s) { return s.EmpInfo().GetEmpPid(kEmp) == 777; }, {}},
        Operation{"SetEmpProcess",
                  Known,
                  [](Stage& s) {
                      return s.EmpInfo().SetEmpProcess(kEmp, {1, 2});
                  },
                  {}},
        Operation{"GetEmpProcess",
                  Known,
                  [](Stage& s) { return s.EmpInfo().GetEmpProcess(kEmp).nPid == 777; },
                  {}},
        // What ends a failed open needs no memory at all.
        Operation{"EndFailedOpenOfANewEmp",
                  Known,
                  [](Stage& s) {
                      s.EmpInfo().EndFailedOpen(kEmpText, true);
                      return CFailingAllocations::Count() == 0;
                  },
                  {}},
        Operation{"EndFailedOpenOfAKnownEmp",
                  Known,
                  [](Stage& s) {
                      s.EmpInfo().EndFailedOpen(kEmpText, false);
                      return CFailingAllocations::Count() == 0;
                  },
                  {}},
        Operation{
            "GetEmpInfo", Known, [](Stage& s) { return s.EmpInfo().GetEmpInfo().size() == 1; }, {}},
        Operation{"GetTypeVersion",
                  Known,
                  [](Stage& s) { return s.EmpInfo().GetTypeVersion(kEmp).empty(); },
                  {}},
        Operation{"SetTypeVersion",
                  Known,
                  [](Stage& s) { return s.EmpInfo().SetTypeVersion(kEmp, kOther); },
                  {}}),
    NameOf);

INSTANTIATE_TEST_SUITE_P(
    ConnectionDB, RegistryAllocationTest,
    ::testing::Values(
        Operation{"AddConnectionData",
                  {},
                  [](Stage& s) {
                      return s.ConnectionDB().AddConnectionData({kEmp, kPort}, kClient);
                  },
                  [](Stage& s) {
                      return s.ConnectionDB().AddConnectionData({kOther, kPort}, kClient);
                  }},
        Operation{"AddConnectionDataOfAnotherClient", Connected,
                  [](Stage& s) {
                      return s.ConnectionDB().AddConnectionData({kEmp, kPort}, kOtherClient);
                  },
                  [](Stage& s) {
                      return s.ConnectionDB().AddConnectionData({kEmp, kPort}, kOther);
                  }},
        Operation{"RemoveClientPortFromConnDB",
                  Connected,
                  [](Stage& s) {
                      return s.ConnectionDB().RemoveClientPortFromConnDB({kEmp, kPort}, kClient);
                  },
                  {}},
        Operation{"RemoveConnectionData",
                  Connected,
                  [](Stage& s) {
                      return s.ConnectionDB().RemoveConnectionData({kEmp, kPort}, kClient);
                  },
                  {}},
        Operation{"RemoveEmpInfoFromConnDB",
                  Connected,
                  [](Stage& s) {
                      return s.ConnectionDB().RemoveEmpInfoFromConnDB({kEmp, kPort});
                  },
                  {}},
        Operation{"ModifyConnectionDataOfAClient",
                  Connected,
                  [](Stage& s) {
                      return s.ConnectionDB().ModifyConnectionData(
                          {kEmp, kPort}, SERVER_TYPE_CALLBACK, kClient, kOtherClient);
                  },
                  {}},
        Operation{"ModifyConnectionDataOfAnEmp",
                  Connected,
                  [](Stage& s) {
                      return s.ConnectionDB().ModifyConnectionData({kEmp, kPort}, SERVER_TYPE_EMP,
                                                                   kPort, kOtherPort);
                  },
                  {}},
        Operation{"IncreasePendingCount",
                  Connected,
                  [](Stage& s) {
                      return s.ConnectionDB().IncreasePendingCount({kEmp, kPort}) == 0;
                  },
                  {}},
        Operation{"ResetPendingCount",
                  [](Stage& s) {
                      Connected(s);
                      s.ConnectionDB().IncreasePendingCount({kEmp, kPort});
                  },
                  [](Stage& s) {
                      s.ConnectionDB().ResetPendingCount({kEmp, kPort});
                      return true;
                  },
                  {}},
        Operation{"GetEmpPort",
                  Connected,
                  [](Stage& s) { return s.ConnectionDB().GetEmpPort(kEmp) == kPort; },
                  {}},
        Operation{"GetConnectionKeyList",
                  Connected,
                  [](Stage& s) { return s.ConnectionDB().GetConnectionKeyList().size() == 1; },
                  {}},
        Operation{"GetConnectionDB",
                  Connected,
                  [](Stage& s) { return s.ConnectionDB().GetConnectionDB().size() == 1; },
                  {}},
        Operation{"GetClientPortNumList",
                  Connected,
                  [](Stage& s) {
                      return s.ConnectionDB().GetClientPortNumList({kEmp, kPort}).size() == 1;
                  },
                  {}},
        Operation{"LeaseAndReturn",
                  {},
                  [](Stage& s) {
                      const int nPort = s.ConnectionDB().Lease();
                      return nPort > 0 && s.ConnectionDB().Return(nPort) >= 0;
                  },
                  [](Stage& s) { return s.ConnectionDB().Lease() > 0; }}),
    NameOf);

INSTANTIATE_TEST_SUITE_P(
    Tickets, RegistryAllocationTest,
    ::testing::Values(Operation{"Issue",
                                {},
                                [](Stage& s) {
                                    const auto spTicket = boost::make_shared<Ticket>("-1");
                                    BrokerProbe::SetTicket(s.broker, spTicket->GetSerial(),
                                                           spTicket);
                                    return true;
                                },
                                {}},
                      Operation{"Prune",
                                {},
                                [](Stage&) {
                                    TicketMap tickets;
                                    for (unsigned int n = 0; n < 4; ++n) tickets[n];
                                    PruneTickets(tickets, 2);
                                    return tickets.size() == 2;
                                },
                                {}},
                      Operation{"FindWaiting",
                                {},
                                [](Stage&) {
                                    TicketMap tickets;
                                    const auto spTicket = boost::make_shared<Ticket>("-1");
                                    spTicket->m_bAwaitsReport = true;
                                    tickets[123456] = spTicket;
                                    return FindWaitingTicket(tickets, "12345", {}) == spTicket;
                                },
                                {}}),
    NameOf);

INSTANTIATE_TEST_SUITE_P(
    Launchers, RegistryAllocationTest,
    ::testing::Values(Operation{"AddLauncherInfo",
                                {},
                                [](Stage& s) {
                                    s.broker.AddLauncherInfo(kLauncher, kPort);
                                    return true;
                                },
                                {}},
                      Operation{"AddLauncherInfoOfOneThatComesAgain",
                                Launching,
                                [](Stage& s) {
                                    s.broker.AddLauncherInfo(kLauncher, kOtherPort);
                                    return true;
                                },
                                {}},
                      Operation{"AddLauncherInfoOfOneThatStays",
                                Launching,
                                [](Stage& s) {
                                    s.broker.AddLauncherInfo(kLauncher, kPort);
                                    return true;
                                },
                                {}},
                      Operation{"UpdateLauncherInfo",
                                Launching,
                                [](Stage& s) {
                                    return s.broker.UpdateLauncherInfo(LAU_OPTION_REGISTER,
                                                                       kOtherLauncher, kOtherPort);
                                },
                                {}},
                      Operation{"RemoveLauncherInfo",
                                [](Stage& s) {
                                    Launching(s);
                                    s.AddKnown(kEmp, "0001", EMP_ADDED);  // and not connected
                                },
                                [](Stage& s) {
                                    s.broker.RemoveLauncherInfo(kLauncher, kPort);
                                    return true;
                                },
                                [](Stage& s) {
                                    s.broker.RemoveLauncherInfo(kLauncher, kPort);
                                    return BrokerProbe::Launchers(s.broker).empty() &&
                                           !s.EmpInfo().IsAdded(kEmp);
                                },
                                false},
                      Operation{"RegisterEMP",
                                Launching,
                                [](Stage& s) { return s.broker.RegisterEMP(kOther, kPort); },
                                {}},
                      Operation{"UnRegisterEMP",
                                Launching,
                                [](Stage& s) { return s.broker.UnRegisterEMP(kEmp, kPort); },
                                {}},
                      Operation{"GetRegisterEMPInfo",
                                Launching,
                                [](Stage& s) {
                                    std::string strName;
                                    std::string strPort;
                                    return s.broker.GetRegisterEMPInfo(strName, strPort, kEmp) &&
                                           strName == kLauncher && strPort == kPort;
                                },
                                {}},
                      Operation{"GetGroupingEMPInfo",
                                Launching,
                                [](Stage& s) {
                                    std::string strName;
                                    std::string strPort;
                                    return s.broker.GetGroupingEMPInfo(strName, strPort, kEmp) &&
                                           strName == kGroup && strPort == kPort;
                                },
                                {}},
                      Operation{"InsertGroupingEMP",
                                {},
                                [](Stage& s) {
                                    s.broker.InsertGroupingEMP(kGroup, "N/A", {kEmp, kOther});
                                    return true;
                                },
                                {}},
                      Operation{"InsertGroupingEMPIntoOneThatIsKnown",
                                Launching,
                                [](Stage& s) {
                                    s.broker.InsertGroupingEMP(kGroup, "N/A", {kEmp, kOther});
                                    return true;
                                },
                                {}},
                      Operation{"ConfirmGroupingEmpServer", Launching,
                                [](Stage& s) {
                                    s.broker.ConfirmGroupingEmpServer(kGroup, kOtherPort);
                                    return true;
                                },
                                Yes}),
    NameOf);

}  // namespace
}  // namespace vok::test
