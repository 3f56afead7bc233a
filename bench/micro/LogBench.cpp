// The logger: what a message costs that nobody wants, and one that is written.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "bench/support/CBrokerStage.h"
#include "platform/CUniqueFd.h"
#include "platform/Log.h"
#include "tests/support/CTemporaryFolder.h"

namespace vok::bench {
namespace {

void LogOne(int nLevel, const std::string& strEmp, const std::string& strPort) {
    VOK_LOG(nLevel, "name:[%s], empPort:[%s]", strEmp.c_str(), strPort.c_str());
}

/// The process's log file, which is opened with the first record and stays the same: to log
/// elsewhere, another file takes the place of its descriptor.
class CLogFile {
public:
    static CLogFile& Get() {
        static CLogFile file;
        return file;
    }

    void Aim(const std::string& strFile) const {
        const CUniqueFd fd{
            ::open(strFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644)};
        if (!fd.IsOpen() || ::dup3(fd.Get(), m_nDescriptor, O_CLOEXEC) < 0)
            throw std::runtime_error("cannot log into " + strFile);
    }
    std::string Path() const { return m_Folder.Path("log"); }

private:
    CLogFile() {
        (void)::setenv("VOK_LOG_FILE", Path().c_str(), 1);  // fails for a bad name only
        LogOne(LEVEL_ERROR, "", "");
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code ignored;  // the iterator's own descriptor
            if (std::filesystem::read_symlink(entry.path(), ignored) == Path())
                m_nDescriptor = std::stoi(entry.path().filename());
        }
        if (m_nDescriptor < 0) throw std::runtime_error("something has been logged before");
    }

    const vok::test::CTemporaryFolder m_Folder;
    int m_nDescriptor = -1;
};

/// Messages of a level; the log's own is 2.
void Run(benchmark::State& state, int nLevel) {
    CVOKDebug::SetLogLevel(LEVEL_NOTICE);
    const std::string strEmp = "Weather";
    const std::string strPort = "51000";
    for (auto _ : state) LogOne(nLevel, strEmp, strPort);
}

void LogFiltered(benchmark::State& state) {
    Run(state, LEVEL_DETAIL);
}
BENCHMARK(LogFiltered);
BENCHMARK(LogFiltered)->Threads(2);

/// Formatted and handed over to a sink that forgets it.
void LogFormatted(benchmark::State& state) {
    const CForgetfulLog log;
    Run(state, LEVEL_NOTICE);
}
BENCHMARK(LogFormatted);

constexpr int kRecords = 100'000;  // a limit: they fill a disk

void LogToFile(benchmark::State& state) {
    CLogFile::Get().Aim(CLogFile::Get().Path());
    Run(state, LEVEL_NOTICE);
}
BENCHMARK(LogToFile)->Iterations(kRecords);

void LogToDevNull(benchmark::State& state) {
    CLogFile::Get().Aim("/dev/null");
    Run(state, LEVEL_NOTICE);
}
BENCHMARK(LogToDevNull)->Iterations(kRecords);

}  // namespace
}  // namespace vok::bench
