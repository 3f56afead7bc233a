// Opens and closes when memory is short: a client is connected or not, and the next one gets its
// EMP.
#include "tests/alloc/Stage.h"

namespace vok::test {
namespace {

class OpenAllocationTest : public AllocationTest {};

TEST_P(OpenAllocationTest, IsDoneOrLeavesNothingBehind) {
    FailEveryAllocation();
}

class CloseAllocationTest : public AllocationTest {};

TEST_P(CloseAllocationTest, IsDoneOrCanBeRepeated) {
    FailEveryAllocation();
}

std::string Reported(const char* szPort = kPort) {
    return std::string(szPort) + "|777";
}
bool Open(Stage& stage) {
    return stage.Open();
}
bool FailToOpen(Stage& stage) {
    return !stage.Open();
}
/// The EMP is sound again.
bool OpenSound(Stage& stage) {
    stage.LetForkedReport(Reported(), "0001");
    return stage.Open();
}

Operation OpenOf(const char* szName, std::function<void(Stage&)> prepare) {
    return {szName, std::move(prepare), Open, Open, true, true};
}

void GroupAt(Stage& stage, const std::string& strPort) {
    BrokerProbe::SetGroup(stage.broker, kGroup, strPort, {kEmp});
    stage.fake.AddPreinstalled(kGroup);
}

void RegisteredAt(Stage& stage, const std::string& strPort) {
    BrokerProbe::SetLauncher(stage.broker, kLauncher, strPort, {kEmp});
}

INSTANTIATE_TEST_SUITE_P(
    Roads, OpenAllocationTest,
    ::testing::Values(OpenOf("NewProcess",
                             [](Stage& s) {
                                 s.fake.AddPreinstalled(kEmp);
                                 s.LetForkedReport(Reported(), "0001");
                             }),
                      OpenOf("NewImage",
                             [](Stage& s) {
                                 s.AddImage(kEmp);
                                 s.LetForkedReport(Reported(), "0001");
                             }),
                      OpenOf("AnotherProcess",
                             [](Stage& s) {
                                 s.fake.AddPreinstalled(kEmp);
                                 s.AddOpen("0002", kOtherPort);
                                 s.LetForkedReport(Reported(), "0002");
                             }),
                      OpenOf("LostProcess",
                             [](Stage& s) {
                                 s.fake.AddPreinstalled(kEmp);
                                 s.AddKnown(kEmp, "0001", EMP_CLOSED);
                                 s.LetForkedReport(Reported(), "0001");
                             }),
                      OpenOf("Reuse",
                             [](Stage& s) {
                                 s.fake.AddPreinstalled(kEmp);
                                 s.AddOpen("0001", kPort);
                             }),
                      OpenOf("ReuseOfAMountedImage",
                             [](Stage& s) {
                                 s.AddImage(kEmp);
                                 s.fake.AddMounted(kEmp);
                                 BrokerProbe::SetMountCount(s.broker, kEmp, 1);
                                 s.AddOpen("0001", kPort);
                             }),
                      OpenOf("GroupingProcessThatIsToBeStarted",
                             [](Stage& s) {
                                 GroupAt(s, "N/A");
                                 s.LetForkedReport(Reported(), "0001");
                             }),
                      // Memory that is missing for the look at the process makes it seem not to
                      // run: it is started anew, and its EMP opens.
                      Operation{"GroupingProcessThatRuns",
                                [](Stage& s) {
                                    s.LetLauncherReport(Reported(), "0001");
                                    GroupAt(s, s.pLauncher->PortText());
                                    s.LetForkedReport(Reported(), "0001");
                                },
                                Open, Open, false, true},
                      OpenOf("RegisterLauncher",
                             [](Stage& s) {
                                 s.LetLauncherReport(Reported(), "0001");
                                 RegisteredAt(s, s.pLauncher->PortText());
                             })),
    NameOf);

INSTANTIATE_TEST_SUITE_P(
    Failures, OpenAllocationTest,
    ::testing::Values(Operation{"OneConnectionIsRefused",
                                [](Stage& s) {
                                    s.fake.AddPreinstalled(kEmp);
                                    s.AddOpen("0003", kPort);
                                },
                                FailToOpen, FailToOpen, true, true},
                      Operation{"PendingIsRefused",
                                [](Stage& s) {
                                    s.fake.AddPreinstalled(kEmp);
                                    s.AddKnown(kEmp, "0001", EMP_PENDING);
                                },
                                FailToOpen, FailToOpen, true, true},
                      Operation{"UnknownLocation", {}, FailToOpen, FailToOpen, true, true},
                      Operation{"LauncherIsGone",
                                [](Stage& s) {
                                    static const CRefusedPort s_Port;
                                    RegisteredAt(s, s_Port.PortText());
                                },
                                FailToOpen, FailToOpen, true, true},
                      Operation{"ProcessReportsNoOption",
                                [](Stage& s) {
                                    s.fake.AddPreinstalled(kEmp);
                                    s.LetForkedReport(Reported(), "");
                                },
                                FailToOpen, OpenSound, true, true},
                      Operation{"ImageReportsNoOption",
                                [](Stage& s) {
                                    s.AddImage(kEmp);
                                    s.LetForkedReport(Reported(), "");
                                },
                                FailToOpen, OpenSound, true, true},
                      Operation{"SecondOpenOfAnImageReportsNoPid",
                                [](Stage& s) {
                                    s.AddImage(kEmp);
                                    s.fake.AddMounted(kEmp);
                                    BrokerProbe::SetMountCount(s.broker, kEmp, 1);
                                    s.LetForkedReport(std::string(kPort) + "|0", "0001");
                                },
                                FailToOpen, OpenSound, true, true}),
    NameOf);

bool CloseServed(Stage& stage) {
    return stage.Close(stage.pEmp->PortText());
}
/// A client that has left, or not, comes again and leaves.
bool OpenAndCloseServed(Stage& stage) {
    const std::string strPort = stage.pEmp->PortText();
    stage.LetForkedReport(strPort + "|777", "0001");
    if (stage.pLauncher) stage.LetLauncherReport(strPort + "|777", "0001");
    if (stage.pLauncher) RegisteredAt(stage, stage.pLauncher->PortText());
    return stage.Open() && stage.Close(strPort);
}

Operation CloseOf(const char* szName, std::function<void(Stage&)> prepare) {
    return {szName, std::move(prepare), CloseServed, OpenAndCloseServed};
}

INSTANTIATE_TEST_SUITE_P(
    Outcomes, CloseAllocationTest,
    ::testing::Values(
        CloseOf("LastClientOfAProcess",
                [](Stage& s) {
                    s.fake.AddPreinstalled(kEmp);
                    s.AddServed("0001", 0);
                }),
        CloseOf("LastClientOfAnImage",
                [](Stage& s) {
                    s.fake.AddMounted(kEmp);
                    BrokerProbe::SetMountCount(s.broker, kEmp, 1);
                    s.AddServed("0001", 0);
                }),
        CloseOf("OneOfManyClientsOfAnImage",
                [](Stage& s) {
                    s.fake.AddMounted(kEmp);
                    BrokerProbe::SetMountCount(s.broker, kEmp, 2);
                    s.AddServed("0001", 1);
                }),
        CloseOf("LastClientInAGroupingProcess",
                [](Stage& s) {
                    s.fake.AddMounted(kGroup);
                    BrokerProbe::SetMountCount(s.broker, kGroup, 1);
                    GroupAt(s, "N/A");
                    s.AddServed("0001", 0);
                }),
        CloseOf("LastClientOfARegisterLauncher",
                [](Stage& s) {
                    s.LetLauncherReport(Reported(), "0001");
                    RegisteredAt(s, s.pLauncher->PortText());
                    s.AddServed("0001", 0);
                }),
        Operation{"EmpDoesNotAnswer",
                  [](Stage& s) {
                      static const CRefusedPort s_Port;
                      s.fake.AddMounted(kEmp);
                      BrokerProbe::SetMountCount(s.broker, kEmp, 1);
                      s.AddOpen("0001", s_Port.PortText());
                      s.LetForkedReport(Reported(), "0001");
                  },
                  [](Stage& s) { return !s.Close(s.ConnectionDB().GetEmpPort(kEmp)); }, Open},
        Operation{"EmpFails",
                  [](Stage& s) {
                      s.fake.AddPreinstalled(kEmp);
                      s.AddServed("0002", 0);
                      s.pEmp->FailCalls("no way, today and tomorrow");
                      s.LetForkedReport(Reported(), "0002");
                  },
                  [](Stage& s) { return !CloseServed(s); }, Open},
        Operation{"EmpHasGone",
                  [](Stage& s) { s.fake.AddPreinstalled(kEmp); },
                  [](Stage& s) { return s.Close(kPort); },
                  {}},
        Operation{"StatusIsRefused",
                  [](Stage& s) {
                      s.fake.AddPreinstalled(kEmp);
                      s.AddKnown(kEmp, "0001", EMP_CLOSED);
                  },
                  [](Stage& s) { return !s.Close(kPort); },
                  {}},
        Operation{"UnknownLocation", {}, [](Stage& s) { return !s.Close(kPort); }, {}}),
    NameOf);

}  // namespace
}  // namespace vok::test
