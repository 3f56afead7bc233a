/// A platform that tests look into, order about and make fail.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/Platform.h"

namespace vok::test {

// All fakes are thread-safe. Hooks run on the calling thread, without the fake's lock, before the
// call answers; they are set before the code under test runs.

/// Mounts nothing and says that it did.
class CFakeMounter : public IMounter {
public:
    bool Mount(const std::string& strImageFile, const std::string& strMountPoint) override;
    bool Umount(const std::string& strMountPoint) override;
    bool IsImgMounted(const std::string& strEmp) override;
    std::optional<MountEntry> MountedOn(const std::string& strMountPoint) override;

    /// The next `nTimes` calls answer false.
    void FailMounts(int nTimes);
    void FailUmounts(int nTimes);
    /// What IsImgMounted answers; false for everything at first.
    void SetImgMounted(const std::string& strEmp, bool bMounted);
    /// What MountedOn answers; nothing at first, whatever has been mounted.
    void SetMountedOn(const std::string& strMountPoint, const MountEntry& entry);
    /// May throw.
    void OnMount(std::function<void()> hook) { m_OnMount = std::move(hook); }
    void OnUmount(std::function<void()> hook) { m_OnUmount = std::move(hook); }

    /// "Mount <image> <mount point>" and "Umount <mount point>", in order.
    std::vector<std::string> Calls() const;

private:
    mutable std::mutex m_Mutex;  // guards all that follows, the hooks excepted
    int m_nMountFailures = 0;
    int m_nUmountFailures = 0;
    std::set<std::string> m_setMounted;
    std::map<std::string, MountEntry> m_mapEntry;
    std::vector<std::string> m_Calls;
    std::function<void()> m_OnMount;
    std::function<void()> m_OnUmount;
};

/// A file system with the files that it was given; empty at first.
class CFakeFiles : public IFiles {
public:
    bool Exists(const char* szPath) override;
    bool IsAccessible(const char* szPath) override;
    std::optional<long> SizeOf(const char* szPath) override;
    std::optional<std::string> FirstLine(const char* szPath, std::size_t nMost) override;
    std::optional<std::string> ReadText(const char* szPath, std::size_t nMost) override;
    std::vector<std::string> List(const char* szPath) override;
    bool Move(const std::string& strFrom, const std::string& strTo) override;
    bool CreateEmpty(const char* szPath) override;
    bool Remove(const char* szPath) override;

    void Add(const std::string& strPath, const std::string& strContent =
                                             "\x7f"
                                             "ELF");
    void Delete(const std::string& strPath);
    /// From now on Move, CreateEmpty and Remove fail and change nothing.
    void FailChanges();
    /// Called with every path that Exists is asked for. May throw.
    void OnExists(std::function<void(const std::string& strPath)> hook) {
        m_OnExists = std::move(hook);
    }

    /// "<operation> <path>" (Move: both paths), in order.
    std::vector<std::string> Calls() const;

private:
    /// Null when there is no such file.
    const std::string* Find(const std::string& strPath) const;

    mutable std::mutex m_Mutex;  // guards all that follows, the hook excepted
    std::map<std::string, std::string> m_mapContent;
    bool m_bFailChanges = false;
    std::vector<std::string> m_Calls;
    std::function<void(const std::string&)> m_OnExists;
};

/// One start of a process.
struct ForkCall {
    std::string strPath;
    std::vector<std::string> arguments;
    std::vector<std::string> environment;
    bool bExecute = false;
    pid_t nPid = 0;  // that it was given
};

/// Starts processes that exist on paper only.
///
/// Knows the threads that come here, and waits for their end: what the broker starts on threads of
/// its own is over before a test takes its platform away.
class CFakeProcesses : public IProcesses {
public:
    CFakeProcesses();
    /// Waits for the threads.
    ~CFakeProcesses() override;

    ForkResult ForkAndExec(const ExecRequest& request) override;
    pid_t AwaitChild(pid_t nPid, int* pStatus) override;
    ProcessId Identify(pid_t nPid) override;
    bool Signal(const ProcessId& process, int nSignal) override;
    bool AwaitEnd(const ProcessId& process, std::chrono::milliseconds wait) override;
    std::string ProgramOf(const ProcessId& process) override;

    /// What ForkAndExec answers from now on; with pid -1 and an errno, with pid 0 the next free pid
    /// (kFirstPid, then on) and an errno of execve.
    void SetForkResult(const ForkResult& result);
    /// The raw status of every process's end; 0 at first.
    void SetExitStatus(int nStatus);
    void RefuseSignals();
    /// The start time by which processes are recognised; 0: as if none ran.
    void SetStartTime(unsigned long long nStartTime);
    /// What a pid runs, while processes start as they do now; nothing at first.
    void SetProgram(pid_t nPid, const std::string& strProgram);
    /// The parent of every process that is identified; 0 at first.
    void SetParentPid(pid_t nParentPid);
    /// Called with every start that did not fail, after the pid has been told.
    void OnFork(std::function<void(const ForkCall&)> hook) { m_OnFork = std::move(hook); }

    std::vector<ForkCall> Forks() const;
    /// "Identify <pid>", "Signal <pid>/<start time> <signal>", "AwaitEnd <pid> <ms>", "AwaitChild
    /// <pid>", in order.
    std::vector<std::string> Calls() const;

    /// Waits until so many processes have been started, or signals been sent or refused.
    void AwaitForks(std::size_t nCount);
    void AwaitSignals(std::size_t nCount);
    /// Waits until every other thread that has come here has ended.
    void AwaitThreads();

    static constexpr pid_t kFirstPid = 700001;

private:
    struct ThreadCount;
    void Attach();
    void Record(std::string strCall);

    const std::thread::id m_Owner = std::this_thread::get_id();
    const std::shared_ptr<ThreadCount> m_pThreads;

    mutable std::mutex m_Mutex;  // guards all that follows, the hook excepted
    std::condition_variable m_Changed;
    ForkResult m_Result{0, 0, 0};
    pid_t m_nNextPid = kFirstPid;
    int m_nStatus = 0;
    bool m_bRefuseSignals = false;
    unsigned long long m_nStartTime = 4711;
    pid_t m_nParentPid = 0;
    std::map<pid_t, std::string> m_mapProgram;
    std::size_t m_nSignals = 0;
    std::vector<ForkCall> m_Forks;
    std::vector<std::string> m_Calls;
    std::function<void(const ForkCall&)> m_OnFork;
};

/// Sleeps no longer than it takes to write it down.
class CFakeClock : public IClock {
public:
    void Sleep(std::chrono::microseconds time) override;
    /// True, without any sleep, when it was notified before or by the hook.
    bool SleepUnlessNotified(CVokCondition& condition, std::chrono::milliseconds time) override;

    /// Called with the number of the sleep, from 1 on.
    void OnSleep(std::function<void(int nSleep)> hook) { m_OnSleep = std::move(hook); }
    std::vector<std::chrono::microseconds> Sleeps() const;

private:
    mutable std::mutex m_Mutex;  // guards the sleeps
    std::vector<std::chrono::microseconds> m_Sleeps;
    std::function<void(int nSleep)> m_OnSleep;
};

/// Knows one policy node and one model, and makes loggers that write down what they are asked.
class CFakeKpi : public IKpi {
public:
    bool ParseNodeAttrFromXml(const std::string& strFile, const std::string& strNode,
                              NodeAttributes& attributes) override;
    int GetSystemInfo(const char* szKey, std::string& strValue) override;
    std::unique_ptr<CLogger> CreateLogger() override;

    /// What a policy file answers for a node; without it, there is none.
    void SetPolicy(const std::string& strFile, const std::string& strNode,
                   const NodeAttributes& attributes);
    /// What GetSystemInfo answers: 0 and "Fake TV" at first.
    void SetModel(int nResult, const std::string& strModel);
    /// From now on an operation of loggers fails: "Create", "SetServiceConf", "AddEvent",
    /// "SetEventHeader", "AddEventLog" or "Flush".
    void Fail(const std::string& strOperation);

    /// "<operation> <argument>|<argument>...", "Create" and "Destroy", in order.
    std::vector<std::string> Calls() const;

private:
    class CFakeLogger;
    bool Record(const std::string& strOperation, const std::string& strArguments);

    mutable std::mutex m_Mutex;  // guards all that follows
    std::map<std::pair<std::string, std::string>, NodeAttributes> m_mapPolicy;
    int m_nModelResult = 0;
    std::string m_strModel = "Fake TV";
    std::set<std::string> m_setFailing;
    std::vector<std::string> m_Calls;
};

/// All of it. Must outlive the brokers that use it.
struct FakePlatform {
    CFakeMounter mounter;
    CFakeFiles files;
    CFakeClock clock;
    CFakeKpi kpi;
    CFakeProcesses processes;  // the last: its end waits for threads that use the others

    Platform Get() { return {&mounter, &files, &processes, &clock, &kpi}; }

    /// An EMP with its program, or its image, or both the image and the program mounted from it.
    void AddPreinstalled(const std::string& strEmp);
    void AddImage(const std::string& strEmp);
    void AddMounted(const std::string& strEmp);
};

}  // namespace vok::test
