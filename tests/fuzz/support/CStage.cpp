#include "tests/fuzz/support/CStage.h"

#include <boost/lexical_cast.hpp>
#include <boost/make_shared.hpp>

#include <algorithm>
#include <iterator>
#include <numeric>
#include <utility>

#include "broker/AdminServer.h"
#include "broker/Globals.h"
#include "platform/EmpPaths.h"
#include "platform/Number.h"
#include "platform/ScopeGuard.h"
#include "tests/fuzz/support/Target.h"
#include "tests/support/BrokerProbe.h"

namespace vok::test {
namespace {

/// Serials are cut to five characters on their way to an EMP: a few opens lead beyond that.
constexpr unsigned int kSerialBefore = 99'995;

}  // namespace

// ---- The log ----

CForgetfulLog::CForgetfulLog() {
    CVOKDebug::SetSink(this);
    CVOKDebug::SetLogLevel(LEVEL_DETAIL);
}

CForgetfulLog::~CForgetfulLog() {
    CVOKDebug::SetLogLevel(m_nFormerLevel);
    CVOKDebug::SetSink(nullptr);
}

void CForgetfulLog::Write(int nLevel, std::string_view strPrefix, std::string_view) {
    Require(nLevel >= LEVEL_ERROR && nLevel <= LEVEL_DETAIL, "a record has a level");
    Require(strPrefix.substr(0, 6) == "[VOK][", "a record tells where it comes from");
}

// ---- The services ----

/// Notes a call, and has everything looked at after it.
class CStage::CCall {
public:
    CCall(CStage& stage, const std::string& strWhat) : m_Stage(stage) {
        CReached::Note(strWhat);
        ++stage.m_nCalls;
        ++stage.m_nDepth;
    }
    ~CCall() {
        --m_Stage.m_nDepth;
        m_Stage.Check();
    }
    CCall(const CCall&) = delete;
    CCall& operator=(const CCall&) = delete;

private:
    CStage& m_Stage;
};

class CStage::CCheckedBroker : public VokBrokerIf {
public:
    explicit CCheckedBroker(CStage& stage) : m_Stage(stage) {}

    void OpenEmp(ConnectionInfo& info, const std::string& clientPort, const std::string& empName,
                 const std::string& empVersion, const std::string& appInfo) override {
        const CCall call{m_Stage, "VokBroker.OpenEmp"};
        m_Stage.m_Broker.OpenEmp(info, clientPort, empName, empVersion, appInfo);
        if (info.empPort.empty() || info.empPort == kNoPort) return;
        Require(info.empName == empName, "an open answers the EMP that was asked for");
        Require(info.clientPort == clientPort, "an open answers the client that asked");
        Require(info.ip == "127.0.0.1", "an open answers where the EMP is");
    }

    void Execute(std::string& answer, const std::string& arg1, const std::string& cmd,
                 const std::string& arg3, const std::string& arg4, const std::string& arg5,
                 const std::string& arg6) override {
        const CCall call{m_Stage, "VokBroker.Execute"};
        CReached::Note("Execute " + cmd);
        m_Stage.m_Broker.Execute(answer, arg1, cmd, arg3, arg4, arg5, arg6);
        static const std::set<std::string> setKnown{"", "5.100", "ConfirmComplete", "Done",
                                                    "Error"};
        Require(setKnown.count(answer) != 0, "a command has one of the known answers");
    }

    bool CloseEmp(const ConnectionInfo& info) override {
        const CCall call{m_Stage, "VokBroker.CloseEmp"};
        return m_Stage.m_Broker.CloseEmp(info);
    }

private:
    CStage& m_Stage;
};

class CStage::CCheckedAdmin : public admin::VokBrokerAdminIf {
public:
    explicit CCheckedAdmin(CStage& stage)
        : m_Stage(stage), m_pHandler(MakeAdminHandler(stage.m_Broker)) {}

    void SetDebugLevel(const int32_t level) override {
        const CCall call{m_Stage, "VokBrokerAdmin.SetDebugLevel"};
        m_pHandler->SetDebugLevel(level);
        Require(level >= 0 && level <= 65535, "no other level is accepted");
    }

    void EnablePing(const bool enable) override {
        const CCall call{m_Stage, "VokBrokerAdmin.EnablePing"};
        m_pHandler->EnablePing(enable);
    }

    int32_t SweepZombies() override {
        const CCall call{m_Stage, "VokBrokerAdmin.SweepZombies"};
        const int32_t nClosed = m_pHandler->SweepZombies();
        Require(nClosed >= 0, "a sweep counts what it closed");
        return nClosed;
    }

    int32_t CloseAll(const std::string& appId, const std::string& widgetId) override {
        const CCall call{m_Stage, "VokBrokerAdmin.CloseAll"};
        const int32_t nClosed = m_pHandler->CloseAll(appId, widgetId);
        Require(nClosed >= 0 && !appId.empty(), "a close of all counts what it closed");
        return nClosed;
    }

    void GetState(admin::BrokerState& state) override {
        const CCall call{m_Stage, "VokBrokerAdmin.GetState"};
        m_pHandler->GetState(state);
    }

    void Where(admin::Whereabouts& whereabouts, const std::string& empName) override {
        const CCall call{m_Stage, "VokBrokerAdmin.Where"};
        m_pHandler->Where(whereabouts, empName);
        Require(!empName.empty(), "nothing is told of no name");
        CheckWhereabouts(whereabouts);
    }

    void GetOpens(std::vector<admin::OpenTimes>& opens) override {
        const CCall call{m_Stage, "VokBrokerAdmin.GetOpens"};
        m_pHandler->GetOpens(opens);
    }

private:
    CStage& m_Stage;
    const std::shared_ptr<admin::VokBrokerAdminIf> m_pHandler;
};

// ---- The stage ----

CStage::CStage()
    : m_Peers([this] { return OnPeer(); }),
      m_nFormerSerial(std::exchange(Ticket::m_nCurSerial, kSerialBefore)),
      m_Broker(m_Fake.Get()),
      m_TheBroker(m_Broker),
      m_pService(std::make_shared<CCheckedBroker>(*this)),
      m_pAdminService(std::make_shared<CCheckedAdmin>(*this)) {
    gbVokBrokerServerFail = false;
    m_Fake.processes.OnFork([this](const ForkCall&) { OnFork(); });
    FillFiles();
    FillTables();
    SetMeanwhile({});
    Check();
}

CStage::~CStage() {
    Ticket::m_nCurSerial = m_nFormerSerial;
}

void CStage::FillFiles() {
    for (const char* szEmp : {"Weather", "Player", "Solo", "Band", "Choir"})
        m_Fake.AddPreinstalled(szEmp);
    m_Fake.AddMounted("Movie");
    m_Fake.AddImage("Clock");
    const std::string strProgram = paths::DownloadedProgram("Clock");
    m_Fake.mounter.OnMount([this, strProgram] { m_Fake.files.Add(strProgram); });
    m_Fake.mounter.OnUmount([this, strProgram] { m_Fake.files.Delete(strProgram); });
    m_Fake.files.Add(paths::PreinstalledProgram("Script"), "#!/bin/sh\n");
    m_Fake.files.Add(paths::kFaultInfo, "what the kernel knows\n");
    m_Fake.kpi.SetPolicy(paths::kLogPolicy, "15_vok", {{"url", "http://log"}, {"queue_max", "9"}});
}

void CStage::FillTables() {
    BrokerProbe::SetGroup(m_Broker, "Band", kGroupNotRunning, {"Drum", "Bass"});
    BrokerProbe::SetGroup(m_Broker, "Choir", "50401", {"Alto", "Tenor"});
    BrokerProbe::SetLauncher(m_Broker, "Radio", "50501", {"News", "Sport"});
    AddOpened("Player", "0001", "50601", {"50701", "/run/browser.sock"});
    AddOpened("Solo", "0003", "50602", {"50702"});
    AddOpened("Movie", "0002", "50603", {"50701"});
    AddOpened("News", "0001", "50604", {"50703"});
    AddOpened("Alto", "0001", "50605", {"50702"});
    BrokerProbe::SetMountCount(m_Broker, "Movie", 1);
}

void CStage::AddOpened(const std::string& strEmp, const std::string& strOption,
                       const std::string& strPort, const std::vector<std::string>& clientPorts) {
    CEmpInfo& info = BrokerProbe::EmpInfo(m_Broker);
    (void)info.Add(strEmp, "1.0");
    (void)info.SetTypeOption(strEmp, strOption);
    (void)info.SetTypeStatus(strEmp, EMP_OPENED);
    (void)info.SetEmpProcess(strEmp, {801, 4711});
    for (const std::string& strClientPort : clientPorts)
        (void)BrokerProbe::ConnectionDB(m_Broker).AddConnectionData({strEmp, strPort},
                                                                    strClientPort);
}

void CStage::AddWaitingTicket(unsigned int nSerial, pid_t nForkedPid) {
    const unsigned int nNext = std::exchange(Ticket::m_nCurSerial, nSerial - 1);
    const auto spTicket = boost::make_shared<Ticket>("-1");
    Ticket::m_nCurSerial = nNext;
    spTicket->m_Condition.SetDoWaiting(true);
    spTicket->m_bAwaitsReport = true;
    spTicket->m_nForkedPid = nForkedPid;
    BrokerProbe::SetTicket(m_Broker, nSerial, spTicket);
    m_setWaiting.insert(nSerial);
}

// ---- Lines ----

struct CStage::Operation {
    const char* szName;
    void (*pPerform)(CStage& stage, const std::vector<std::string>& args);
};

const CStage::Operation CStage::kOperations[] = {
    {"OpenEmp",
     [](CStage& stage, const auto& args) {
         ConnectionInfo info;
         stage.m_pService->OpenEmp(info, args[0], args[1], args[2], args[3]);
     }},
    {"Execute",
     [](CStage& stage, const auto& args) {
         std::string strAnswer;
         stage.m_pService->Execute(strAnswer, args[0], args[1], args[2], args[3], args[4], args[5]);
     }},
    {"CloseEmp",
     [](CStage& stage, const auto& args) {
         ConnectionInfo info;
         info.empName = args[0];
         info.clientPort = args[1];
         info.empPort = args[2];
         info.serial = LeadingNumber(args[3]);
         info.ip = args[4];
         (void)stage.m_pService->CloseEmp(info);
     }},
    {"SetDebugLevel",
     [](CStage& stage, const auto& args) {
         stage.m_pAdminService->SetDebugLevel(LeadingNumber(args[0]));
     }},
    {"EnablePing",
     [](CStage& stage, const auto& args) { stage.m_pAdminService->EnablePing(args[0] == "1"); }},
    {"SweepZombies",
     [](CStage& stage, const auto&) { (void)stage.m_pAdminService->SweepZombies(); }},
    {"CloseAll", [](CStage& stage,
                    const auto& args) { (void)stage.m_pAdminService->CloseAll(args[0], args[1]); }},
    {"GetState",
     [](CStage& stage, const auto&) {
         admin::BrokerState state;
         stage.m_pAdminService->GetState(state);
     }},
    {"Where",
     [](CStage& stage, const auto& args) {
         admin::Whereabouts whereabouts;
         stage.m_pAdminService->Where(whereabouts, args[0]);
     }},
    {"GetOpens",
     [](CStage& stage, const auto&) {
         std::vector<admin::OpenTimes> opens;
         stage.m_pAdminService->GetOpens(opens);
     }},
    // What else happens to a broker.
    {"a round of pings",
     [](CStage& stage, const auto&) {
         const CCall call{stage, "a round of pings"};
         BrokerProbe::PingEmps(stage.m_Broker);
     }},
    {"mounts fail", [](CStage& stage, const auto&) { stage.m_Fake.mounter.FailMounts(1); }},
    {"unmounts fail", [](CStage& stage, const auto&) { stage.m_Fake.mounter.FailUmounts(1); }},
    {"starts fail",
     [](CStage& stage, const auto&) {
         stage.m_Fake.processes.SetForkResult({-1, 11, 0});
     }},
};

void CStage::Perform(const std::vector<ScriptLine>& lines) {
    for (const ScriptLine& line : lines) Perform(line);
}

void CStage::SetMeanwhile(std::vector<ScriptLine> lines) {
    m_Ambient = std::move(lines);
    m_Meanwhile = {{&m_Ambient, 0}};
}

std::string CStage::Meant(const std::string& strText) {
    return strText == "@" ? std::to_string(Ticket::m_nCurSerial) : strText;
}

void CStage::Perform(const ScriptLine& line) {
    constexpr std::size_t kMostArguments = 6;
    std::vector<std::string> args;
    for (std::size_t i = 1; i <= kMostArguments; ++i) args.push_back(Meant(line.Text(i)));

    const std::string& strName = line.Text(0);
    const auto* pOperation =
        std::find_if(std::begin(kOperations), std::end(kOperations),
                     [&](const Operation& operation) { return strName == operation.szName; });
    if (pOperation == std::end(kOperations))
        pOperation = &kOperations[std::accumulate(strName.begin(), strName.end(), std::size_t{0}) %
                                  std::size(kOperations)];

    // A call without lines of its own leaves to those around it what happens meanwhile.
    if (!line.meanwhile.empty()) m_Meanwhile.push_back({&line.meanwhile, 0});
    const ScopeGuard forget{[&] {
        if (!line.meanwhile.empty()) m_Meanwhile.pop_back();
    }};
    try {
        pOperation->pPerform(*this, args);
    } catch (const boost::bad_lexical_cast&) {
        // A number was expected: the caller is told.
    } catch (const admin::BadRequest&) {
    }
}

// ---- Meanwhile ----

/// Null when nothing more happens.
const ScriptLine* CStage::NextMeanwhile() {
    Meanwhile& meanwhile = m_Meanwhile.back();
    if (meanwhile.nNext == meanwhile.pLines->size()) return nullptr;
    return &(*meanwhile.pLines)[meanwhile.nNext++];
}

/// All that happens until a peer is called.
void CStage::OnFork() {
    while (const ScriptLine* pLine = NextMeanwhile()) {
        if (pLine->Text(0) == "then") return;
        Perform(*pLine);
    }
}

/// What the next line about a peer says; what stands before it happens first.
PeerAnswer CStage::OnPeer() {
    static const struct {
        const char* szName;
        PeerAnswer::eKind kind;
    } kKinds[] = {{"refuses", PeerAnswer::REFUSES},
                  {"hangs up", PeerAnswer::HANGS_UP},
                  {"answers", PeerAnswer::ANSWERS},
                  {"garbage", PeerAnswer::GARBAGE}};
    while (const ScriptLine* pLine = NextMeanwhile()) {
        for (const auto& [szName, kind] : kKinds) {
            if (pLine->Text(0) != szName) continue;
            Perform(pLine->meanwhile);  // between its accepting and its answer
            return {kind, LeadingNumber(pLine->Text(1)), pLine->Text(2)};
        }
        Perform(*pLine);
    }
    return {};
}

}  // namespace vok::test
