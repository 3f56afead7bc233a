#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <limits>

#include "platform/CUniqueFd.h"
#include "platform/Mount.h"
#include "platform/Move.h"
#include "platform/Platform.h"
#include "platform/SystemInfo.h"
#include "platform/TextFile.h"

namespace vok {

namespace {

class CLinuxMounter : public IMounter {
public:
    bool Mount(const std::string& strImageFile, const std::string& strMountPoint) override {
        return vok::Mount(strImageFile, strMountPoint);
    }
    bool Umount(const std::string& strMountPoint) override { return vok::Umount(strMountPoint); }
    bool IsImgMounted(const std::string& strEmp) override { return vok::IsImgMounted(strEmp); }
    std::optional<MountEntry> MountedOn(const std::string& strMountPoint) override {
        return vok::MountedOn(strMountPoint);
    }
};

class CLinuxFiles : public IFiles {
public:
    bool Exists(const char* szPath) override {
        struct stat info {};
        return ::stat(szPath, &info) == 0;
    }

    bool IsAccessible(const char* szPath) override { return ::access(szPath, F_OK) == 0; }

    std::optional<long> SizeOf(const char* szPath) override {
        const CUniqueFd fd{::open(szPath, O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY)};
        struct stat info {};
        if (!fd.IsOpen() || ::fstat(fd.Get(), &info) != 0) return std::nullopt;
        constexpr off_t kMost = std::numeric_limits<long>::max();
        return static_cast<long>(std::min<off_t>(info.st_size, kMost));
    }

    std::optional<std::string> FirstLine(const char* szPath, std::size_t nMost) override {
        const auto strText = ReadTextFile(szPath, nMost);
        if (!strText) return std::nullopt;
        return strText->substr(0, strText->find('\n'));
    }

    std::optional<std::string> ReadText(const char* szPath, std::size_t nMost) override {
        return ReadTextFile(szPath, nMost);
    }

    std::vector<std::string> List(const char* szPath) override {
        namespace fs = std::filesystem;
        std::vector<std::string> names;
        std::error_code error;
        // A folder that ends to be readable on the way gives what was read.
        for (fs::directory_iterator it{szPath, error}; it != fs::directory_iterator{};
             it.increment(error))
            names.push_back(it->path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }

    bool Move(const std::string& strFrom, const std::string& strTo) override {
        return vok::Move(strFrom, strTo);
    }

    bool CreateEmpty(const char* szPath) override {
        constexpr int kFlags =
            O_CREAT | O_TRUNC | O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
        return CUniqueFd{::open(szPath, kFlags, 0644)}.IsOpen();
    }

    bool Remove(const char* szPath) override { return ::remove(szPath) == 0; }
};

class CLinuxProcesses : public IProcesses {
public:
    ForkResult ForkAndExec(const ExecRequest& request) override {
        return vok::ForkAndExec(request);
    }
    pid_t AwaitChild(pid_t nPid, int* pStatus) override { return vok::AwaitChild(nPid, pStatus); }
    ProcessId Identify(pid_t nPid) override { return IdentifyProcess(nPid); }
    bool Signal(const ProcessId& process, int nSignal) override {
        return SignalProcess(process, nSignal);
    }
    bool AwaitEnd(const ProcessId& process, std::chrono::milliseconds wait) override {
        return AwaitProcessEnd(process, wait);
    }
    std::string ProgramOf(const ProcessId& process) override { return vok::ProgramOf(process); }
};

class CLinuxClock : public IClock {
public:
    void Sleep(std::chrono::microseconds time) override {
        // Until a moment, not for a time: a shower of signals must not make it longer.
        constexpr std::chrono::microseconds kSecond = std::chrono::seconds(1);
        timespec end{};
        (void)::clock_gettime(CLOCK_MONOTONIC, &end);  // this clock exists
        // Up, as a sleep is never shorter.
        const auto fraction = time % kSecond + std::chrono::microseconds(end.tv_nsec / 1000 + 1);
        end.tv_sec += static_cast<time_t>(time / kSecond + fraction / kSecond);
        end.tv_nsec = static_cast<long>((fraction % kSecond).count()) * 1000;
        while (::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr) == EINTR) continue;
    }

    bool SleepUnlessNotified(CVokCondition& condition, std::chrono::milliseconds time) override {
        return condition.Wait(static_cast<int>(time.count())) == 0;
    }
};

class CLinuxKpi : public IKpi {
public:
    bool ParseNodeAttrFromXml(const std::string& strFile, const std::string& strNode,
                              NodeAttributes& attributes) override {
        return vok::ParseNodeAttrFromXml(strFile, strNode, attributes);
    }
    int GetSystemInfo(const char* szKey, std::string& strValue) override {
        return vok::GetSystemInfo(szKey, strValue);
    }
    std::unique_ptr<CLogger> CreateLogger() override { return CLogger::Create(nullptr); }
};

}  // namespace

Platform LinuxPlatform() {
    static Platform& platform = *new Platform{new CLinuxMounter, new CLinuxFiles,
                                              new CLinuxProcesses, new CLinuxClock, new CLinuxKpi};
    return platform;
}

}  // namespace vok
