#include "tests/support/FakePlatform.h"

#include <utility>

#include "platform/EmpPaths.h"

namespace vok::test {
namespace {

using Guard = std::lock_guard<std::mutex>;

std::vector<std::string> Texts(char* const* pTexts) {
    std::vector<std::string> texts;
    for (; *pTexts != nullptr; ++pTexts) texts.emplace_back(*pTexts);
    return texts;
}

}  // namespace

// ---- CFakeMounter ----

bool CFakeMounter::Mount(const std::string& strImageFile, const std::string& strMountPoint) {
    if (m_OnMount) m_OnMount();
    const Guard lock{m_Mutex};
    m_Calls.push_back("Mount " + strImageFile + ' ' + strMountPoint);
    return m_nMountFailures == 0 || m_nMountFailures-- == 0;
}

bool CFakeMounter::Umount(const std::string& strMountPoint) {
    if (m_OnUmount) m_OnUmount();
    const Guard lock{m_Mutex};
    m_Calls.push_back("Umount " + strMountPoint);
    return m_nUmountFailures == 0 || m_nUmountFailures-- == 0;
}

bool CFakeMounter::IsImgMounted(const std::string& strEmp) {
    const Guard lock{m_Mutex};
    return m_setMounted.count(strEmp) != 0;
}

void CFakeMounter::FailMounts(int nTimes) {
    const Guard lock{m_Mutex};
    m_nMountFailures = nTimes;
}

void CFakeMounter::FailUmounts(int nTimes) {
    const Guard lock{m_Mutex};
    m_nUmountFailures = nTimes;
}

std::optional<MountEntry> CFakeMounter::MountedOn(const std::string& strMountPoint) {
    const Guard lock{m_Mutex};
    const auto it = m_mapEntry.find(strMountPoint);
    if (it == m_mapEntry.end()) return std::nullopt;
    return it->second;
}

void CFakeMounter::SetMountedOn(const std::string& strMountPoint, const MountEntry& entry) {
    const Guard lock{m_Mutex};
    m_mapEntry[strMountPoint] = entry;
}

void CFakeMounter::SetImgMounted(const std::string& strEmp, bool bMounted) {
    const Guard lock{m_Mutex};
    if (bMounted)
        m_setMounted.insert(strEmp);
    else
        m_setMounted.erase(strEmp);
}

std::vector<std::string> CFakeMounter::Calls() const {
    const Guard lock{m_Mutex};
    return m_Calls;
}

// ---- CFakeFiles ----

const std::string* CFakeFiles::Find(const std::string& strPath) const {
    const auto it = m_mapContent.find(strPath);
    return it == m_mapContent.end() ? nullptr : &it->second;
}

bool CFakeFiles::Exists(const char* szPath) {
    if (m_OnExists) m_OnExists(szPath);
    const Guard lock{m_Mutex};
    m_Calls.push_back(std::string("Exists ") + szPath);
    return Find(szPath) != nullptr;
}

bool CFakeFiles::IsAccessible(const char* szPath) {
    const Guard lock{m_Mutex};
    m_Calls.push_back(std::string("IsAccessible ") + szPath);
    return Find(szPath) != nullptr;
}

std::optional<long> CFakeFiles::SizeOf(const char* szPath) {
    const Guard lock{m_Mutex};
    m_Calls.push_back(std::string("SizeOf ") + szPath);
    const std::string* const pContent = Find(szPath);
    if (pContent == nullptr) return std::nullopt;
    return static_cast<long>(pContent->size());
}

std::optional<std::string> CFakeFiles::FirstLine(const char* szPath, std::size_t nMost) {
    const Guard lock{m_Mutex};
    m_Calls.push_back(std::string("FirstLine ") + szPath);
    const std::string* const pContent = Find(szPath);
    if (pContent == nullptr) return std::nullopt;
    return pContent->substr(0, pContent->find('\n')).substr(0, nMost);
}

std::optional<std::string> CFakeFiles::ReadText(const char* szPath, std::size_t nMost) {
    const Guard lock{m_Mutex};
    const std::string* const pContent = Find(szPath);
    if (pContent == nullptr) return std::nullopt;
    return pContent->substr(0, nMost);
}

std::vector<std::string> CFakeFiles::List(const char* szPath) {
    const Guard lock{m_Mutex};
    const std::string strFolder = std::string(szPath) + '/';
    std::set<std::string> setName;
    for (const auto& [strPath, strContent] : m_mapContent) {
        if (strPath.rfind(strFolder, 0) != 0) continue;
        const std::size_t nStart = strFolder.size();
        setName.insert(strPath.substr(nStart, strPath.find('/', nStart) - nStart));
    }
    return {setName.begin(), setName.end()};
}

bool CFakeFiles::Move(const std::string& strFrom, const std::string& strTo) {
    const Guard lock{m_Mutex};
    m_Calls.push_back("Move " + strFrom + ' ' + strTo);
    const std::string* const pContent = Find(strFrom);
    if (m_bFailChanges || pContent == nullptr) return false;
    m_mapContent[strTo] = std::string(*pContent);
    m_mapContent.erase(strFrom);
    return true;
}

bool CFakeFiles::CreateEmpty(const char* szPath) {
    const Guard lock{m_Mutex};
    m_Calls.push_back(std::string("CreateEmpty ") + szPath);
    if (m_bFailChanges) return false;
    m_mapContent[szPath].clear();
    return true;
}

bool CFakeFiles::Remove(const char* szPath) {
    const Guard lock{m_Mutex};
    m_Calls.push_back(std::string("Remove ") + szPath);
    return !m_bFailChanges && m_mapContent.erase(szPath) != 0;
}

void CFakeFiles::Add(const std::string& strPath, const std::string& strContent) {
    const Guard lock{m_Mutex};
    m_mapContent[strPath] = strContent;
}

void CFakeFiles::Delete(const std::string& strPath) {
    const Guard lock{m_Mutex};
    m_mapContent.erase(strPath);
}

void CFakeFiles::FailChanges() {
    const Guard lock{m_Mutex};
    m_bFailChanges = true;
}

std::vector<std::string> CFakeFiles::Calls() const {
    const Guard lock{m_Mutex};
    return m_Calls;
}

// ---- CFakeProcesses ----

struct CFakeProcesses::ThreadCount {
    std::mutex mutex;
    std::condition_variable ended;
    int nRunning = 0;

    /// A thread's membership, given up when the thread has left all of its code.
    struct Member {
        std::shared_ptr<ThreadCount> pThreads;
        ~Member() {
            if (!pThreads) return;
            const Guard lock{pThreads->mutex};
            --pThreads->nRunning;
            pThreads->ended.notify_all();
        }
    };
};

CFakeProcesses::CFakeProcesses() : m_pThreads(std::make_shared<ThreadCount>()) {}

CFakeProcesses::~CFakeProcesses() {
    AwaitThreads();
}

void CFakeProcesses::Attach() {
    thread_local ThreadCount::Member t_Member;
    if (std::this_thread::get_id() == m_Owner || t_Member.pThreads) return;
    t_Member.pThreads = m_pThreads;
    const Guard lock{m_pThreads->mutex};
    ++m_pThreads->nRunning;
}

void CFakeProcesses::AwaitThreads() {
    std::unique_lock<std::mutex> lock{m_pThreads->mutex};
    m_pThreads->ended.wait(lock, [this] { return m_pThreads->nRunning == 0; });
}

void CFakeProcesses::Record(std::string strCall) {
    m_Calls.push_back(std::move(strCall));
    m_Changed.notify_all();
}

ForkResult CFakeProcesses::ForkAndExec(const ExecRequest& request) {
    Attach();
    ForkCall call{request.szPath, Texts(request.argv), Texts(request.envp), request.bExecute, 0};
    ForkResult result;
    {
        const Guard lock{m_Mutex};
        result = m_Result;
        if (result.nPid >= 0) {
            result.nPid = call.nPid = m_nNextPid++;
            if (request.pPid != nullptr) *request.pPid = call.nPid;
        }
        m_Forks.push_back(call);
        m_Changed.notify_all();
    }
    if (result.nPid > 0 && m_OnFork) m_OnFork(call);
    return result;
}

pid_t CFakeProcesses::AwaitChild(pid_t nPid, int* pStatus) {
    Attach();
    const Guard lock{m_Mutex};
    Record("AwaitChild " + std::to_string(nPid));
    *pStatus = m_nStatus;
    return nPid;
}

ProcessId CFakeProcesses::Identify(pid_t nPid) {
    Attach();
    const Guard lock{m_Mutex};
    Record("Identify " + std::to_string(nPid));
    ProcessId process;
    process.nPid = nPid;
    process.nStartTime = m_nStartTime;
    process.nParentPid = m_nParentPid;
    return process;
}

bool CFakeProcesses::Signal(const ProcessId& process, int nSignal) {
    Attach();
    const Guard lock{m_Mutex};
    ++m_nSignals;
    Record("Signal " + std::to_string(process.nPid) + '/' + std::to_string(process.nStartTime) +
           ' ' + std::to_string(nSignal));
    return !m_bRefuseSignals;
}

bool CFakeProcesses::AwaitEnd(const ProcessId& process, std::chrono::milliseconds wait) {
    Attach();
    const Guard lock{m_Mutex};
    Record("AwaitEnd " + std::to_string(process.nPid) + ' ' + std::to_string(wait.count()));
    return true;
}

std::string CFakeProcesses::ProgramOf(const ProcessId& process) {
    Attach();
    const Guard lock{m_Mutex};
    const auto it = m_mapProgram.find(process.nPid);
    return it == m_mapProgram.end() || process.nStartTime != m_nStartTime ? "" : it->second;
}

void CFakeProcesses::SetProgram(pid_t nPid, const std::string& strProgram) {
    const Guard lock{m_Mutex};
    m_mapProgram[nPid] = strProgram;
}

void CFakeProcesses::SetForkResult(const ForkResult& result) {
    const Guard lock{m_Mutex};
    m_Result = result;
}

void CFakeProcesses::SetExitStatus(int nStatus) {
    const Guard lock{m_Mutex};
    m_nStatus = nStatus;
}

void CFakeProcesses::RefuseSignals() {
    const Guard lock{m_Mutex};
    m_bRefuseSignals = true;
}

void CFakeProcesses::SetStartTime(unsigned long long nStartTime) {
    const Guard lock{m_Mutex};
    m_nStartTime = nStartTime;
}

void CFakeProcesses::SetParentPid(pid_t nParentPid) {
    const Guard lock{m_Mutex};
    m_nParentPid = nParentPid;
}

std::vector<ForkCall> CFakeProcesses::Forks() const {
    const Guard lock{m_Mutex};
    return m_Forks;
}

std::vector<std::string> CFakeProcesses::Calls() const {
    const Guard lock{m_Mutex};
    return m_Calls;
}

void CFakeProcesses::AwaitForks(std::size_t nCount) {
    std::unique_lock<std::mutex> lock{m_Mutex};
    m_Changed.wait(lock, [&] { return m_Forks.size() >= nCount; });
}

void CFakeProcesses::AwaitSignals(std::size_t nCount) {
    std::unique_lock<std::mutex> lock{m_Mutex};
    m_Changed.wait(lock, [&] { return m_nSignals >= nCount; });
}

// ---- CFakeClock ----

void CFakeClock::Sleep(std::chrono::microseconds time) {
    int nSleep = 0;
    {
        const Guard lock{m_Mutex};
        m_Sleeps.push_back(time);
        nSleep = static_cast<int>(m_Sleeps.size());
    }
    if (m_OnSleep) m_OnSleep(nSleep);
}

bool CFakeClock::SleepUnlessNotified(CVokCondition& condition, std::chrono::milliseconds time) {
    Sleep(time);
    return condition.Wait(1) == 0;
}

std::vector<std::chrono::microseconds> CFakeClock::Sleeps() const {
    const Guard lock{m_Mutex};
    return m_Sleeps;
}

// ---- CFakeKpi ----

class CFakeKpi::CFakeLogger : public CLogger {
public:
    explicit CFakeLogger(CFakeKpi& kpi) : m_Kpi(kpi) {}
    ~CFakeLogger() override { (void)m_Kpi.Record("Destroy", ""); }

    bool SetServiceConf(const std::string& strService, int nQueueMax, int nExpiration,
                        int nReserved, int nLogLevel, const std::string& strUrl) override {
        return m_Kpi.Record("SetServiceConf", ' ' + strService + '|' + std::to_string(nQueueMax) +
                                                  '|' + std::to_string(nExpiration) + '|' +
                                                  std::to_string(nReserved) + '|' +
                                                  std::to_string(nLogLevel) + '|' + strUrl);
    }
    bool AddEvent(const std::string& strCategory, int nQueueMax, int nExpiration, int nReserved,
                  int nLogLevel) override {
        return m_Kpi.Record("AddEvent", ' ' + strCategory + '|' + std::to_string(nQueueMax) + '|' +
                                            std::to_string(nExpiration) + '|' +
                                            std::to_string(nReserved) + '|' +
                                            std::to_string(nLogLevel));
    }
    bool SetEventHeader(const KpiEventHeader& header) override {
        return m_Kpi.Record("SetEventHeader", ' ' + header.strDescription + '|' +
                                                  header.strErrType + '|' + header.strEmp + '|' +
                                                  header.strBrokerVersion);
    }
    bool AddEventLog(const std::string& strEventId, const std::string& strDescription,
                     const std::string& strModel) override {
        return m_Kpi.Record("AddEventLog",
                            ' ' + strEventId + '|' + strDescription + '|' + strModel);
    }
    bool Flush() override { return m_Kpi.Record("Flush", ""); }

private:
    CFakeKpi& m_Kpi;
};

bool CFakeKpi::ParseNodeAttrFromXml(const std::string& strFile, const std::string& strNode,
                                    NodeAttributes& attributes) {
    const Guard lock{m_Mutex};
    const auto it = m_mapPolicy.find({strFile, strNode});
    if (it == m_mapPolicy.end()) return false;
    attributes = it->second;
    return true;
}

int CFakeKpi::GetSystemInfo(const char*, std::string& strValue) {
    const Guard lock{m_Mutex};
    if (m_nModelResult == 0) strValue = m_strModel;
    return m_nModelResult;
}

std::unique_ptr<CLogger> CFakeKpi::CreateLogger() {
    if (!Record("Create", "")) return nullptr;
    return std::make_unique<CFakeLogger>(*this);
}

void CFakeKpi::SetPolicy(const std::string& strFile, const std::string& strNode,
                         const NodeAttributes& attributes) {
    const Guard lock{m_Mutex};
    m_mapPolicy[{strFile, strNode}] = attributes;
}

void CFakeKpi::SetModel(int nResult, const std::string& strModel) {
    const Guard lock{m_Mutex};
    m_nModelResult = nResult;
    m_strModel = strModel;
}

void CFakeKpi::Fail(const std::string& strOperation) {
    const Guard lock{m_Mutex};
    m_setFailing.insert(strOperation);
}

bool CFakeKpi::Record(const std::string& strOperation, const std::string& strArguments) {
    const Guard lock{m_Mutex};
    m_Calls.push_back(strOperation + strArguments);
    return m_setFailing.count(strOperation) == 0;
}

std::vector<std::string> CFakeKpi::Calls() const {
    const Guard lock{m_Mutex};
    return m_Calls;
}

// ---- FakePlatform ----

void FakePlatform::AddPreinstalled(const std::string& strEmp) {
    files.Add(paths::PreinstalledProgram(strEmp));
}

void FakePlatform::AddImage(const std::string& strEmp) {
    files.Add(paths::ImageFile(strEmp));
}

void FakePlatform::AddMounted(const std::string& strEmp) {
    AddImage(strEmp);
    files.Add(paths::DownloadedProgram(strEmp));
}

}  // namespace vok::test
