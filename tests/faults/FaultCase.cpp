#include "tests/faults/FaultCase.h"

#include <algorithm>
#include <array>
#include <initializer_list>
#include <map>
#include <set>
#include <utility>

namespace vok::test {

namespace {

/// In a test's name, and in the table.
struct Words {
    const char* szName;
    const char* szText;
};

constexpr std::array<Words, 2> kOperations{{{"Open", "open"}, {"Close", "close"}}};
constexpr std::array<Words, 5> kKinds{{{"Process", "process"},
                                       {"Image", "image"},
                                       {"Group", "grouping, first open"},
                                       {"Hosted", "grouping, process runs"},
                                       {"Register", "register"}}};
constexpr std::array<Words, 8> kSteps{{{"Mount", "mount"},
                                       {"Program", "exec"},
                                       {"Start", "start"},
                                       {"Connect", "connect"},
                                       {"Launcher", "launcher's Open"},
                                       {"Report", "report"},
                                       {"Close", "EMP's Close"},
                                       {"Resources", "resources"}}};
constexpr std::array<Words, 17> kFaults{{{"Killed", "killed"},
                                         {"Stopped", "stopped, continued"},
                                         {"Garbage", "garbage"},
                                         {"Closes", "closes mid-message"},
                                         {"Silent", "never answers"},
                                         {"MountFails", "mount fails"},
                                         {"Truncated", "image truncated"},
                                         {"NoImage", "no image"},
                                         {"Empty", "image empty"},
                                         {"Missing", "missing"},
                                         {"NotExecutable", "not executable"},
                                         {"Foreign", "other architecture"},
                                         {"Script", "script"},
                                         {"NoThreads", "no thread to be had"},
                                         {"NoForks", "no process to be had"},
                                         {"NoDescriptors", "no descriptor to be had"},
                                         {"FullLogDisk", "log's disk full"}}};

constexpr char kOtherStep[] = "a fault of another step";

template <std::size_t nSize, typename Enum>
const Words& WordsOf(const std::array<Words, nSize>& words, Enum value) {
    return words[static_cast<std::size_t>(value)];
}

/// Of those that are in the set; "all" when all are.
template <std::size_t nSize, typename Enum>
std::string Join(const std::array<Words, nSize>& words, const std::set<Enum>& values) {
    if (values.size() == nSize) return "all";
    std::string strText;
    for (const Enum value : values)
        strText += (strText.empty() ? "" : "; ") + std::string(WordsOf(words, value).szText);
    return strText;
}

/// Ordered by operation, step, fault, kind.
std::vector<FaultCase> Combinations() {
    std::vector<FaultCase> cases;
    for (std::size_t nOperation = 0; nOperation < kOperations.size(); ++nOperation)
        for (std::size_t nStep = 0; nStep < kSteps.size(); ++nStep)
            for (std::size_t nFault = 0; nFault < kFaults.size(); ++nFault)
                for (std::size_t nKind = 0; nKind < kKinds.size(); ++nKind) {
                    FaultCase fault;
                    fault.operation = static_cast<eOperation>(nOperation);
                    fault.step = static_cast<eStep>(nStep);
                    fault.fault = static_cast<eFault>(nFault);
                    fault.kind = static_cast<eKind>(nKind);
                    cases.push_back(fault);
                }
    return cases;
}

bool AreOfOneGroup(const FaultCase& one, const FaultCase& other) {
    return one.operation == other.operation && one.step == other.step && one.fault == other.fault;
}

/// The step whose faults these are; Start stands for every step at which a peer may fail.
eStep StepOf(eFault fault) {
    if (fault <= eFault::Silent) return eStep::Start;
    if (fault <= eFault::Empty) return eStep::Mount;
    if (fault <= eFault::Script) return eStep::Program;
    return eStep::Resources;
}

bool IsOneOf(eStep step, std::initializer_list<eStep> steps) {
    return std::find(steps.begin(), steps.end(), step) != steps.end();
}

/// The EMP's process, or its launcher, is started by this open.
bool IsForked(eKind kind) {
    return kind == eKind::Process || kind == eKind::Image || kind == eKind::Group;
}

const char* WhyResourcesAreLeftOut(const FaultCase& fault) {
    if (fault.fault != eFault::NoThreads && fault.fault != eFault::NoForks) return nullptr;
    if (!fault.IsOpen()) return "a close makes neither threads nor processes";
    if (fault.kind == eKind::Image) return "who may mount is not bound by the limit of processes";
    if (fault.fault == eFault::NoForks && !IsForked(fault.kind)) return "no process is made";
    return nullptr;
}

FaultPlan PlanOfResources(const FaultCase& fault) {
    FaultPlan plan;
    plan.bSuccess = fault.fault == eFault::FullLogDisk;
    const bool bForked = IsForked(fault.kind);
    if (plan.bSuccess || !fault.IsOpen()) {
        plan.nPeers = 1;
        plan.nForked = fault.kind == eKind::Register ? 0 : 1;
    } else if (fault.fault == eFault::NoThreads) {
        // Without a thread nothing is started; a launcher's report gets no connection.
        plan.when = bForked ? eWhen::AtOnce : eWhen::TenSeconds;
        plan.nPeers = bForked ? 0 : 1;
        plan.nForked = fault.kind == eKind::Hosted ? 1 : 0;
    } else if (fault.fault == eFault::NoForks) {
        plan.when = eWhen::TenSeconds;
    } else if (fault.kind == eKind::Register) {
        plan.nPeers = 1;  // the call to the launcher fails
    } else {
        // What starts cannot be heard. A group that cannot be called is taken for dead.
        plan.when = eWhen::TenSeconds;
        plan.nPeers = fault.kind == eKind::Image ? 0 : fault.kind == eKind::Hosted ? 2 : 1;
        plan.nForked = plan.nPeers;
    }
    return plan;
}

/// A peer that fails where the broker waits for it.
FaultPlan PlanOfPeer(const FaultCase& fault) {
    FaultPlan plan;
    plan.nPeers = 1;
    plan.nForked = fault.kind == eKind::Register ? 0 : 1;
    const bool bAwaited = fault.step == eStep::Start || fault.step == eStep::Report;
    switch (fault.fault) {
        case eFault::Stopped:
            plan.bSuccess = true;
            plan.when = eWhen::GoesOn;
            return plan;
        case eFault::Silent:
            plan.when = bAwaited ? eWhen::TenSeconds : eWhen::Ends;
            plan.nHeld = fault.step == eStep::Report ? 1 : 0;
            break;
        default:
            plan.when = bAwaited ? eWhen::TenSeconds : eWhen::AtOnce;
            break;
    }
    if (plan.when == eWhen::Ends || fault.fault == eFault::Killed) {
        plan.nPeers = 0;
        plan.nForked = 0;
        // A group that has gone before it was asked is started anew.
        if (fault.IsOpen() && fault.step == eStep::Connect && fault.kind == eKind::Hosted) {
            plan.bSuccess = true;
            plan.nPeers = 1;
            plan.nForked = 1;
        }
    }
    return plan;
}

/// The image follows from what became of the open or close, and of the process.
void PlanImage(const FaultCase& fault, FaultPlan& plan) {
    if (fault.kind != eKind::Image) return;
    if (!fault.IsOpen()) {
        // Counted for nobody, mounted until the EMP reports its stop.
        plan.nCount = 0;
        plan.bMounted = true;
        plan.bStaysMounted = true;
    } else if (plan.nPeers > 0) {
        // Busy while the process runs: what could not be unmounted stays counted.
        plan.nCount = 1;
        plan.bMounted = true;
        plan.bStaysMounted = true;
    }
}

/// A grouping process tells its port before it reports the EMP.
bool TellsItsGroup(const FaultCase& fault, const FaultPlan& plan) {
    if (fault.kind == eKind::Hosted) return true;
    if (fault.kind != eKind::Group || fault.step == eStep::Program) return false;
    if (fault.step == eStep::Start) return plan.bSuccess;
    return fault.fault != eFault::NoThreads && fault.fault != eFault::NoForks;
}

}  // namespace

std::string FaultCase::Name() const {
    return std::string(WordsOf(kOperations, operation).szName) + '_' +
           WordsOf(kKinds, kind).szName + '_' + WordsOf(kSteps, step).szName + '_' +
           WordsOf(kFaults, fault).szName;
}

std::string FaultCase::Row() const {
    const char* szKind = WordsOf(kKinds, kind).szText;
    if (!IsOpen() && kind == eKind::Group) szKind = "grouping";
    return std::string("| ") + WordsOf(kOperations, operation).szText + " | " + szKind + " | " +
           WordsOf(kSteps, step).szText + " | " + WordsOf(kFaults, fault).szText + " |";
}

const char* WhyLeftOut(const FaultCase& fault) {
    const bool bOwnStep = IsOneOf(fault.step, {eStep::Mount, eStep::Program, eStep::Resources});
    if (StepOf(fault.fault) != (bOwnStep ? fault.step : eStep::Start)) return kOtherStep;

    if (fault.IsOpen() && fault.step == eStep::Close) return "a step of closes only";
    if (!fault.IsOpen() && !IsOneOf(fault.step, {eStep::Connect, eStep::Close, eStep::Resources}))
        return "a step of opens only";
    if (!fault.IsOpen() && fault.kind == eKind::Hosted)
        return "when an EMP is closed, every grouping process runs";
    if (fault.step == eStep::Resources) return WhyResourcesAreLeftOut(fault);

    if (fault.step == eStep::Mount && fault.kind != eKind::Image) return "there is no image";
    if (IsOneOf(fault.step, {eStep::Program, eStep::Start}) && !IsForked(fault.kind))
        return "it runs already: nothing is executed";
    if (fault.IsOpen() && IsOneOf(fault.step, {eStep::Connect, eStep::Launcher}) &&
        IsForked(fault.kind))
        return "it is started, not called";
    if (IsOneOf(fault.step, {eStep::Start, eStep::Connect}) &&
        (fault.fault == eFault::Garbage || fault.fault == eFault::Closes))
        return "nothing has been said yet that could be spoilt";
    return nullptr;
}

std::vector<FaultCase> AllFaultCases() {
    std::vector<FaultCase> cases;
    for (const FaultCase& combination : Combinations()) {
        if (WhyLeftOut(combination) != nullptr) continue;
        cases.push_back(combination);
        cases.back().nNumber = static_cast<int>(cases.size());
    }
    // The short form takes one of those that differ in the kind only.
    for (std::size_t nFirst = 0, nGroup = 0; nFirst < cases.size(); ++nGroup) {
        std::size_t nNext = nFirst;
        while (nNext < cases.size() && AreOfOneGroup(cases[nFirst], cases[nNext])) ++nNext;
        cases[nFirst + nGroup % (nNext - nFirst)].bShort = true;  // another kind each time
        nFirst = nNext;
    }
    return cases;
}

std::vector<std::string> LeftOutRows() {
    struct Group {
        std::set<eKind> kinds;
        std::set<eFault> faults;
    };
    std::map<std::pair<std::string, std::string>, Group> mapGroups;
    for (const FaultCase& fault : Combinations()) {
        const char* const szWhy = WhyLeftOut(fault);
        if (szWhy == nullptr || szWhy == std::string(kOtherStep)) continue;
        const std::string strWhere = std::string("| ") +
                                     WordsOf(kOperations, fault.operation).szText + " | " +
                                     WordsOf(kSteps, fault.step).szText + " | ";
        Group& group = mapGroups[{strWhere, szWhy}];
        group.kinds.insert(fault.kind);
        group.faults.insert(fault.fault);
    }
    std::vector<std::string> rows;
    for (const auto& [key, group] : mapGroups)
        rows.push_back(key.first + Join(kKinds, group.kinds) + " | " + Join(kFaults, group.faults) +
                       " | " + key.second + " |");
    return rows;
}

const char* Text(eWhen when) {
    switch (when) {
        case eWhen::AtOnce:
            return "at once";
        case eWhen::TenSeconds:
            return "after 10 s";
        case eWhen::GoesOn:
            return "when it goes on";
        case eWhen::Ends:
            return "when it ends";
    }
    return "";
}

FaultPlan PlanOf(const FaultCase& fault) {
    FaultPlan plan;
    if (fault.step == eStep::Resources) {
        plan = PlanOfResources(fault);
    } else if (fault.step == eStep::Mount || fault.step == eStep::Program) {
        plan.when = eWhen::TenSeconds;
        plan.bUnknown = fault.fault == eFault::Missing && fault.kind == eKind::Process;
        if (plan.bUnknown) plan.when = eWhen::AtOnce;
    } else {
        plan = PlanOfPeer(fault);
    }
    PlanImage(fault, plan);
    plan.bGroupRuns = TellsItsGroup(fault, plan);
    return plan;
}

}  // namespace vok::test
