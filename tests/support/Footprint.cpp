#include "tests/support/Footprint.h"

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <system_error>

#include "tests/support/CEmpInstaller.h"

namespace vok::test {

namespace {

namespace fs = std::filesystem;

bool IsNumber(const std::string& strName) {
    return strName.find_first_not_of("0123456789") == std::string::npos;
}

int CountEntries(const fs::path& folder) {
    std::error_code gone;
    const fs::directory_iterator entries(folder, gone);
    return gone ? 0 : static_cast<int>(std::distance(entries, fs::directory_iterator()));
}

int CountProcesses() {
    int nCount = 0;
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc")) {
        const std::string strName = entry.path().filename();
        if (IsNumber(strName) && IsAlive(std::stoi(strName))) ++nCount;
    }
    return nCount;
}

}  // namespace

bool Footprint::operator==(const Footprint& other) const {
    return nProcesses == other.nProcesses && nThreads == other.nThreads &&
           nDescriptors == other.nDescriptors && nMounts == other.nMounts &&
           nLoopDevices == other.nLoopDevices;
}

Footprint Footprint::operator-(const Footprint& other) const {
    return {nProcesses - other.nProcesses, nThreads - other.nThreads,
            nDescriptors - other.nDescriptors, nMounts - other.nMounts,
            nLoopDevices - other.nLoopDevices};
}

std::string Footprint::Text() const {
    struct Part {
        int nCount;
        const char* szOne;
        const char* szMany;
    };
    std::string strText;
    for (const Part& part :
         {Part{nProcesses, "process", "processes"}, Part{nThreads, "thread", "threads"},
          Part{nDescriptors, "descriptor", "descriptors"}, Part{nMounts, "mount", "mounts"},
          Part{nLoopDevices, "loop device", "loop devices"}}) {
        if (part.nCount == 0) continue;
        if (!strText.empty()) strText += ", ";
        strText +=
            std::to_string(part.nCount) + ' ' + (part.nCount == 1 ? part.szOne : part.szMany);
    }
    return strText.empty() ? "nothing" : strText;
}

Footprint Measure(const CDaemon& daemon, const std::string& strImage) {
    Footprint footprint;
    footprint.nProcesses = CountProcesses();
    footprint.nThreads = static_cast<int>(daemon.Threads().size());
    footprint.nDescriptors = static_cast<int>(daemon.OpenDescriptors().size());
    footprint.nMounts = CountAllMounts();
    footprint.nLoopDevices = CountLoopDevices(strImage);
    return footprint;
}

char ProcessState(int nPid) {
    std::ifstream file("/proc/" + std::to_string(nPid) + "/stat");
    std::string strStat;
    std::getline(file, strStat);
    const std::size_t nName = strStat.rfind(')');
    return nName == std::string::npos || nName + 2 >= strStat.size() ? 'X' : strStat[nName + 2];
}

bool IsAlive(int nPid) {
    const char cState = ProcessState(nPid);
    return cState != 'X' && cState != 'Z';
}

int CountTasksOf(unsigned int nUser) {
    int nCount = 0;
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc")) {
        struct stat info {};
        if (!IsNumber(entry.path().filename()) || ::stat(entry.path().c_str(), &info) != 0)
            continue;
        if (info.st_uid == nUser) nCount += CountEntries(entry.path() / "task");
    }
    return nCount;
}

}  // namespace vok::test
