#include "tests/alloc/Stage.h"

#include <new>
#include <sstream>

#include "platform/EmpPaths.h"
#include "platform/ThreadMaker.h"
#include "tests/support/BrokerLocks.h"

namespace vok::test {
namespace {

void Replace(std::string& strText, const std::string& strOld, const std::string& strNew) {
    for (std::size_t n = strText.find(strOld); n != std::string::npos; n = strText.find(strOld, n))
        strText.replace(n, strOld.size(), strNew);
}

}  // namespace

Stage::Stage() : m_nFormerSerial(Ticket::m_nCurSerial) {
    Ticket::m_nCurSerial = 1;
    fake.kpi.SetPolicy(paths::kLogPolicy, "15_vok",
                       {{"url", "http://log.server.of.the.platform/faults"},
                        {"queue_max", "10"},
                        {"expiration", "20"},
                        {"loglevel", "3"}});
    fake.files.Add(paths::kFaultInfo, "what the kernel knows about the fault\n");
    log.Clear();
}

Stage::~Stage() {
    fake.processes.AwaitThreads();
    Ticket::m_nCurSerial = m_nFormerSerial;
    ThreadMaker::NameThisThread("vok_alloc_tests");
}

void Stage::AddKnown(const std::string& strEmp, const std::string& strOption, EMP_STATUS eStatus,
                     int nPid) {
    EmpInfo().Add(strEmp, "1.0");
    EmpInfo().SetTypeOption(strEmp, strOption);
    EmpInfo().SetTypeStatus(strEmp, eStatus);
    if (nPid != 0) EmpInfo().SetEmpProcess(strEmp, {nPid, 4711});
}

void Stage::AddOpen(const std::string& strOption, const std::string& strPort, int nPid) {
    AddKnown(kEmp, strOption, EMP_OPENED, nPid);
    ConnectionDB().AddConnectionData({kEmp, strPort}, kClient);
}

void Stage::AddServed(const std::string& strOption, int nCloseAnswer) {
    pEmp = std::make_unique<CFakeEmp>();
    pEmp->AnswerClose(nCloseAnswer);
    AddOpen(strOption, pEmp->PortText());
}

void Stage::AddImage(const std::string& strImage) {
    fake.AddImage(strImage);
    const std::string strProgram = paths::DownloadedProgram(strImage);
    fake.mounter.OnMount([this, strProgram] { fake.files.Add(strProgram); });
    fake.mounter.OnUmount([this, strProgram] { fake.files.Delete(strProgram); });
}

void Stage::LetForkedReport(const std::string& strPortAndPid, const std::string& strOption) {
    fake.processes.OnFork(
        [=](const ForkCall& call) { Report(call.arguments.at(2), strPortAndPid, strOption); });
}

void Stage::LetLauncherReport(const std::string& strPortAndPid, const std::string& strOption) {
    pLauncher = std::make_unique<CFakeLauncher>();
    pLauncher->OnOpen([=](const LauncherOpen& open) {
        Report(std::to_string(open.nTicketSerial), strPortAndPid, strOption);
    });
}

void Stage::Report(const std::string& strSerial, const std::string& strPortAndPid,
                   const std::string& strOption) {
    std::string strResult;
    broker.Execute(strResult, "", "__BROKER_CMD_NOTIFY_EMP_SERVER_INFO", strSerial, strPortAndPid,
                   "__SERVER_SUCCESS_TO_RUN", strOption);
}

bool Stage::Open(const char* szEmp) {
    std::string texts[4];
    ConnectionInfo result;
    {
        const CExempt noRequest;  // what has come with the request
        texts[0] = kClient;
        texts[1] = szEmp;
        texts[2] = "version 1.0 of the weather";
        texts[3] = "the application that asks for it";
    }
    broker.OpenEmp(result, texts[0], texts[1], texts[2], texts[3]);
    return !result.empPort.empty() && result.empPort != "-1";
}

bool Stage::Close(const std::string& strPort, const char* szEmp) {
    ConnectionInfo info;
    {
        const CExempt noRequest;
        info.empName = szEmp;
        info.clientPort = kClient;
        info.empPort = strPort;
    }
    return broker.CloseEmp(info);
}

bool Stage::Execute(const char* szAnswer, const char* szArg1, const char* szCmd, const char* szArg3,
                    const char* szArg4, const char* szArg5, const char* szArg6) {
    std::vector<std::string> texts;
    {
        const CExempt noRequest;
        texts = {szArg1, szCmd, szArg3, szArg4, szArg5, szArg6};
    }
    std::string strAnswer;
    broker.Execute(strAnswer, texts[0], texts[1], texts[2], texts[3], texts[4], texts[5]);
    return strAnswer == szAnswer;
}

std::string Stage::Tables() {
    std::ostringstream text;
    for (const auto& [strEmp, info] : EmpInfo().GetEmpInfo())
        text << "emp " << strEmp << ' ' << info.GetStatus() << ' ' << info.GetOption() << ' '
             << info.GetEmpPid() << '\n';
    for (const auto& [key, data] : ConnectionDB().GetConnectionDB()) {
        text << "connection " << key.first << ' ' << key.second << ' ' << data.m_nPendingCount;
        for (const auto& client : data.m_mapClient) text << ' ' << client.first;
        text << '\n';
    }
    for (const auto& [strImage, nCount] : BrokerProbe::MountCounts(broker))
        text << "count " << strImage << ' ' << nCount << '\n';
    for (const auto& [nSerial, spTicket] : BrokerProbe::Tickets(broker)) {
        if (spTicket)
            text << "ticket " << nSerial << ' ' << spTicket->m_nPid << ' ' << spTicket->m_strPort
                 << ' ' << spTicket->m_strOption << ' ' << spTicket->m_bAnswered << '\n';
    }
    for (const auto& table : {BrokerProbe::Launchers(broker), BrokerProbe::Groups(broker)}) {
        for (const auto& [key, setEmp] : table) {
            text << "launcher " << key.first << ' ' << key.second;
            for (const std::string& strEmp : setEmp) text << ' ' << strEmp;
            text << '\n';
        }
    }
    // Every stage has servers of its own.
    std::string strText = text.str();
    if (pEmp) Replace(strText, pEmp->PortText(), "EMPPORT");
    if (pLauncher) Replace(strText, pLauncher->PortText(), "LAUNCHERPORT");
    return strText;
}

void PrintTo(const Operation& operation, std::ostream* pStream) {
    *pStream << operation.strName;
}

namespace {

struct Trial {
    bool bFailed = false;     // an allocation has
    bool bSucceeded = false;  // the operation has
    bool bThrew = false;
    long nAllocations = 0;
    std::string strBefore;
    std::string strAfter;
};

/// Runs the operation on a new stage, once with failing allocations and then `next`.
Trial Try(const Operation& operation, long nFirst, CFailingAllocations::eMode mode) {
    Trial trial;
    Stage stage;
    if (operation.prepare) operation.prepare(stage);
    trial.strBefore = stage.Tables();
    {
        const CFailingAllocations failing{nFirst, mode};
        try {
            trial.bSucceeded = operation.run(stage);
        } catch (const std::bad_alloc&) {
            trial.bThrew = true;
        }
    }
    trial.nAllocations = CFailingAllocations::Count();
    trial.bFailed = CFailingAllocations::HasFailed();
    TakeEveryLock(stage.broker);
    trial.strAfter = stage.Tables();
    if (trial.bFailed) {
        EXPECT_TRUE(operation.next ? operation.next(stage) : operation.run(stage))
            << stage.log.Text() << trial.strAfter << "->\n"
            << stage.Tables();
    }
    return trial;
}

}  // namespace

void AllocationTest::FailEveryAllocation() {
    const Operation& operation = GetParam();
    (void)Try(operation, 0, CFailingAllocations::ONCE);  // what is made only once
    const Trial complete = Try(operation, 0, CFailingAllocations::ONCE);
    ASSERT_TRUE(complete.bSucceeded);
    ASSERT_FALSE(complete.bThrew);
    const long nLive = CFailingAllocations::LiveBlocks();

    for (const auto mode : {CFailingAllocations::ONCE, CFailingAllocations::FROM_THEN_ON}) {
        Trial trial;
        long nFirst = 0;
        do {
            ++nFirst;
            SCOPED_TRACE("allocation " + std::to_string(nFirst) + " of " +
                         std::to_string(complete.nAllocations) +
                         (mode == CFailingAllocations::ONCE ? "" : " and all that follow"));
            trial = Try(operation, nFirst, mode);
            EXPECT_EQ(CFailingAllocations::LiveBlocks(), nLive) << "a leak";
            EXPECT_FALSE(trial.bThrew && operation.bNeverThrows);
            if (operation.bAllOrNothing && mode == CFailingAllocations::ONCE) {
                const bool bComplete = trial.strAfter == complete.strAfter;
                EXPECT_TRUE(bComplete || trial.strAfter == complete.strBefore)
                    << trial.strAfter << "instead of\n"
                    << complete.strAfter;
                EXPECT_FALSE(operation.bTells && trial.bSucceeded && !bComplete) << trial.strAfter;
            }
            if (HasFailure()) return;
        } while (trial.bFailed);
        EXPECT_EQ(nFirst, complete.nAllocations + 1) << "each has failed once, and none other";
    }
    RecordProperty("Allocations", static_cast<int>(complete.nAllocations));
}

}  // namespace vok::test
