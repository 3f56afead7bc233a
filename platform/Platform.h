/// The seams between the broker and the system: what a test replaces.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/CLogger.h"
#include "platform/CVokCondition.h"
#include "platform/MountInfo.h"
#include "platform/NodeAttributes.h"
#include "platform/Process.h"

namespace vok {

/// Mounts images. Implementations are thread-safe and throw nothing but std::bad_alloc.
struct IMounter {
    virtual ~IMounter() = default;
    /// See Mount.h.
    virtual bool Mount(const std::string& strImageFile, const std::string& strMountPoint) = 0;
    virtual bool Umount(const std::string& strMountPoint) = 0;
    virtual bool IsImgMounted(const std::string& strEmp) = 0;
    virtual std::optional<MountEntry> MountedOn(const std::string& strMountPoint) = 0;
};

/// Looks at files and changes the few that are the broker's. Implementations are thread-safe and
/// throw nothing but std::bad_alloc.
struct IFiles {
    virtual ~IFiles() = default;
    /// True when stat(2) succeeds; directories count.
    virtual bool Exists(const char* szPath) = 0;
    /// True when access(2) with F_OK succeeds.
    virtual bool IsAccessible(const char* szPath) = 0;
    /// The size in bytes of a file that can be opened for reading; none when it cannot.
    virtual std::optional<long> SizeOf(const char* szPath) = 0;
    /// The first line of a file without its line feed, at most `nMost` bytes of it; none when it
    /// cannot be opened. Never waits, whatever kind of file it is.
    virtual std::optional<std::string> FirstLine(const char* szPath, std::size_t nMost) = 0;
    /// See TextFile.h.
    virtual std::optional<std::string> ReadText(const char* szPath, std::size_t nMost) = 0;
    /// The names in a folder, "." and ".." excepted, in byte order; none when it cannot be read.
    virtual std::vector<std::string> List(const char* szPath) = 0;
    /// See Move.h.
    virtual bool Move(const std::string& strFrom, const std::string& strTo) = 0;
    /// Makes an empty file, or empties it; never follows a link.
    virtual bool CreateEmpty(const char* szPath) = 0;
    virtual bool Remove(const char* szPath) = 0;
};

/// Starts and ends processes; see Process.h. Implementations are thread-safe and never throw, where
/// nothing else is said.
struct IProcesses {
    virtual ~IProcesses() = default;
    virtual ForkResult ForkAndExec(const ExecRequest& request) = 0;
    virtual pid_t AwaitChild(pid_t nPid, int* pStatus) = 0;
    virtual ProcessId Identify(pid_t nPid) = 0;
    virtual bool Signal(const ProcessId& process, int nSignal) = 0;
    virtual bool AwaitEnd(const ProcessId& process, std::chrono::milliseconds wait) = 0;
    /// Throws std::bad_alloc.
    virtual std::string ProgramOf(const ProcessId& process) = 0;
};

struct IClock {
    virtual ~IClock() = default;
    virtual void Sleep(std::chrono::microseconds time) = 0;
    /// Sleeps until `condition` is notified, at most for `time`, which is not 0; true when it was.
    /// The caller has announced itself as its waiter.
    virtual bool SleepUnlessNotified(CVokCondition& condition, std::chrono::milliseconds time) = 0;
};

/// What fault reports need of the platform. Implementations are thread-safe.
struct IKpi {
    virtual ~IKpi() = default;
    /// See NodeAttributes.h.
    virtual bool ParseNodeAttrFromXml(const std::string& strFile, const std::string& strNode,
                                      NodeAttributes& attributes) = 0;
    /// See SystemInfo.h.
    virtual int GetSystemInfo(const char* szKey, std::string& strValue) = 0;
    /// Null on failure.
    virtual std::unique_ptr<CLogger> CreateLogger() = 0;
};

/// Not owned: whoever makes a broker keeps these alive longer.
struct Platform {
    IMounter* pMounter;
    IFiles* pFiles;
    IProcesses* pProcesses;
    IClock* pClock;
    IKpi* pKpi;
};

/// The real system. Lives for ever, so that threads may use it while the process ends.
Platform LinuxPlatform();

}  // namespace vok
