/// The fake platform for tests in which memory runs out: what the fakes write down is no part of
/// it.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tests/alloc/Allocations.h"
#include "tests/support/CLogCapture.h"
#include "tests/support/FakePlatform.h"

namespace vok::test {

class CExemptLog : public CLogCapture {
public:
    void Write(int nLevel, std::string_view strPrefix, std::string_view strMessage) override {
        const CExempt exempt;
        CLogCapture::Write(nLevel, strPrefix, strMessage);
    }
};

class CExemptMounter : public IMounter {
public:
    explicit CExemptMounter(IMounter& mounter) : m_Mounter(mounter) {}
    bool Mount(const std::string& strImageFile, const std::string& strMountPoint) override {
        const CExempt exempt;
        return m_Mounter.Mount(strImageFile, strMountPoint);
    }
    bool Umount(const std::string& strMountPoint) override {
        const CExempt exempt;
        return m_Mounter.Umount(strMountPoint);
    }
    bool IsImgMounted(const std::string& strEmp) override {
        const CExempt exempt;
        return m_Mounter.IsImgMounted(strEmp);
    }
    std::optional<MountEntry> MountedOn(const std::string& strMountPoint) override {
        const CExempt exempt;
        return m_Mounter.MountedOn(strMountPoint);
    }

private:
    IMounter& m_Mounter;
};

class CExemptFiles : public IFiles {
public:
    explicit CExemptFiles(IFiles& files) : m_Files(files) {}
    bool Exists(const char* szPath) override {
        const CExempt exempt;
        return m_Files.Exists(szPath);
    }
    bool IsAccessible(const char* szPath) override {
        const CExempt exempt;
        return m_Files.IsAccessible(szPath);
    }
    std::optional<long> SizeOf(const char* szPath) override {
        const CExempt exempt;
        return m_Files.SizeOf(szPath);
    }
    std::optional<std::string> FirstLine(const char* szPath, std::size_t nMost) override {
        const CExempt exempt;
        return m_Files.FirstLine(szPath, nMost);
    }
    std::optional<std::string> ReadText(const char* szPath, std::size_t nMost) override {
        const CExempt exempt;
        return m_Files.ReadText(szPath, nMost);
    }
    std::vector<std::string> List(const char* szPath) override {
        const CExempt exempt;
        return m_Files.List(szPath);
    }
    bool Move(const std::string& strFrom, const std::string& strTo) override {
        const CExempt exempt;
        return m_Files.Move(strFrom, strTo);
    }
    bool CreateEmpty(const char* szPath) override {
        const CExempt exempt;
        return m_Files.CreateEmpty(szPath);
    }
    bool Remove(const char* szPath) override {
        const CExempt exempt;
        return m_Files.Remove(szPath);
    }

private:
    IFiles& m_Files;
};

/// The hooks of the fake run exempt, too: an EMP that reports from there is another process.
class CExemptProcesses : public IProcesses {
public:
    explicit CExemptProcesses(IProcesses& processes) : m_Processes(processes) {}
    ForkResult ForkAndExec(const ExecRequest& request) override {
        const CExempt exempt;
        return m_Processes.ForkAndExec(request);
    }
    pid_t AwaitChild(pid_t nPid, int* pStatus) override {
        const CExempt exempt;
        return m_Processes.AwaitChild(nPid, pStatus);
    }
    ProcessId Identify(pid_t nPid) override {
        const CExempt exempt;
        return m_Processes.Identify(nPid);
    }
    bool Signal(const ProcessId& process, int nSignal) override {
        const CExempt exempt;
        return m_Processes.Signal(process, nSignal);
    }
    bool AwaitEnd(const ProcessId& process, std::chrono::milliseconds wait) override {
        const CExempt exempt;
        return m_Processes.AwaitEnd(process, wait);
    }
    std::string ProgramOf(const ProcessId& process) override {
        const CExempt exempt;
        return m_Processes.ProgramOf(process);
    }

private:
    IProcesses& m_Processes;
};

class CExemptClock : public IClock {
public:
    explicit CExemptClock(IClock& clock) : m_Clock(clock) {}
    void Sleep(std::chrono::microseconds time) override {
        const CExempt exempt;
        m_Clock.Sleep(time);
    }
    bool SleepUnlessNotified(CVokCondition& condition, std::chrono::milliseconds time) override {
        const CExempt exempt;
        return m_Clock.SleepUnlessNotified(condition, time);
    }

private:
    IClock& m_Clock;
};

class CExemptKpi : public IKpi {
public:
    explicit CExemptKpi(IKpi& kpi) : m_Kpi(kpi) {}
    bool ParseNodeAttrFromXml(const std::string& strFile, const std::string& strNode,
                              NodeAttributes& attributes) override {
        const CExempt exempt;
        return m_Kpi.ParseNodeAttrFromXml(strFile, strNode, attributes);
    }
    int GetSystemInfo(const char* szKey, std::string& strValue) override {
        const CExempt exempt;
        return m_Kpi.GetSystemInfo(szKey, strValue);
    }
    std::unique_ptr<CLogger> CreateLogger() override {
        const CExempt exempt;
        return std::make_unique<CExemptLogger>(m_Kpi.CreateLogger());
    }

private:
    class CExemptLogger : public CLogger {
    public:
        explicit CExemptLogger(std::unique_ptr<CLogger> pLogger) : m_pLogger(std::move(pLogger)) {}
        ~CExemptLogger() override {
            const CExempt exempt;
            m_pLogger.reset();
        }
        bool SetServiceConf(const std::string& strService, int nQueueMax, int nExpiration,
                            int nReserved, int nLogLevel, const std::string& strUrl) override {
            const CExempt exempt;
            return m_pLogger->SetServiceConf(strService, nQueueMax, nExpiration, nReserved,
                                             nLogLevel, strUrl);
        }
        bool AddEvent(const std::string& strCategory, int nQueueMax, int nExpiration, int nReserved,
                      int nLogLevel) override {
            const CExempt exempt;
            return m_pLogger->AddEvent(strCategory, nQueueMax, nExpiration, nReserved, nLogLevel);
        }
        bool SetEventHeader(const KpiEventHeader& header) override {
            const CExempt exempt;
            return m_pLogger->SetEventHeader(header);
        }
        bool AddEventLog(const std::string& strEventId, const std::string& strDescription,
                         const std::string& strModel) override {
            const CExempt exempt;
            return m_pLogger->AddEventLog(strEventId, strDescription, strModel);
        }
        bool Flush() override {
            const CExempt exempt;
            return m_pLogger->Flush();
        }

    private:
        std::unique_ptr<CLogger> m_pLogger;
    };

    IKpi& m_Kpi;
};

/// Must outlive the brokers that use it.
struct ExemptPlatform {
    explicit ExemptPlatform(FakePlatform& fake)
        : mounter(fake.mounter),
          files(fake.files),
          processes(fake.processes),
          clock(fake.clock),
          kpi(fake.kpi) {}

    Platform Get() { return {&mounter, &files, &processes, &clock, &kpi}; }

    CExemptMounter mounter;
    CExemptFiles files;
    CExemptProcesses processes;
    CExemptClock clock;
    CExemptKpi kpi;
};

}  // namespace vok::test
