// The broker as a library of a host process.
#include <cxxabi.h>
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <set>
#include <sstream>
#include <thread>

#include "broker/CBroker.h"
#include "platform/EmpPaths.h"
#include "platform/Limits.h"
#include "platform/TextFile.h"
#include "tests/daemon/OpenCloseTest.h"
#include "tests/support/Command.h"

namespace vok::test {
namespace {

namespace fs = std::filesystem;
using ::testing::ExitedWithCode;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::IsSupersetOf;

constexpr char kLogFile[] = "/tmp/host.log";

std::string Library() {
    return CEmpInstaller::BuiltProgram("../lib/libvokbroker.so");
}

/// What the example host writes, and its exit status. The RPC library, and an EMP whose broker has
/// gone, complain on standard error: that is no part of it.
std::string RunHost(const std::string& strEmp) {
    return OutputOf(CEmpInstaller::BuiltProgram("example-host") + ' ' + strEmp +
                    " 2>/tmp/host.err");
}

std::string ReadFile(const std::string& strPath) {
    return ReadTextFile(strPath.c_str(), kMaxTextFile).value_or("");
}

bool IsServed() {
    try {
        return CBrokerClient().Version() == "5.100";
    } catch (const apache::thrift::TException&) {
        return false;
    }
}

// ---- The example --------------------------------------------------------------------------------

class Host : public ::testing::Test {
protected:
    void SetUp() override {
        CDaemon::LayOutPlugins();
        ASSERT_EQ(::setenv("VOK_LOG_FILE", kLogFile, 1), 0);
        ASSERT_EQ(::setenv("VOK_LOG_LEVEL", "4", 1), 0);
        CEmpInstaller::PreinstallCopy("Example", "example-emp");
    }

    static void ExpectNothingLeft() {
        EXPECT_FALSE(IsServed());
        EXPECT_FALSE(fs::exists(paths::kReadyFlag));
        EXPECT_FALSE(fs::exists(paths::kAdminSocket));
    }
};

TEST_F(Host, ServesOpensSweepsAndEnds) {
    EXPECT_THAT(RunHost("Example"), ::testing::MatchesRegex("version 5.100\n"
                                                            "opened Example empPort=[0-9]+\n"
                                                            "clients 1\n"
                                                            "swept\n"
                                                            "0\n"));

    const std::string strLog = ReadFile(kLogFile);
    EXPECT_THAT(strLog, HasSubstr("End with retCnt:[1]")) << "its application was not closed";
    EXPECT_THAT(strLog, HasSubstr("PingTest_For_Webkit Begins"));
    ExpectNothingLeft();
    EXPECT_THAT(ProcessesOf(CEmpInstaller::BuiltProgram("example-host")), IsEmpty());
}

TEST_F(Host, IsToldOfARefusalAndEnds) {
    EXPECT_EQ(RunHost("Nowhere"), "version 5.100\nrefused Nowhere\n1\n");
    ExpectNothingLeft();
}

TEST_F(Host, CannotServeBesideADaemon) {
    CDaemon daemon;
    ASSERT_TRUE(daemon.Start()) << daemon.Log();
    CDaemon::LayOutPlugins();  // the daemon's start has used up what was there

    EXPECT_EQ(RunHost("Example"), "1\n");

    EXPECT_TRUE(IsServed());
    EXPECT_TRUE(fs::exists(paths::kReadyFlag));
    EXPECT_TRUE(fs::exists(paths::kAdminSocket));
}

// ---- What the library leaves to the host --------------------------------------------------------

std::atomic<pid_t> s_nHandledBy{0};

void NoteThread(int) {
    s_nHandledBy = ::gettid();
}

/// Ends the process of the host with a failure.
void Require(bool bOk, const std::string& strWhat) {
    if (bOk) return;
    std::fprintf(stderr, "not so: %s\n", strWhat.c_str());
    ::_exit(1);
}

/// The library, found as hosts find it that load it late.
class CLoadedBroker {
public:
    CLoadedBroker() : m_pLibrary(::dlopen(Library().c_str(), RTLD_NOW | RTLD_LOCAL)) {
        Require(m_pLibrary != nullptr, "the library can be loaded");
        Find("vok_BrokerStart", &Start);
        Find("vok_IsBrokerServerRunning", &IsRunning);
        Find("_Z13vok_GetBrokerv", &GetBroker);
        Find("_ZN3vok7CBroker7DestoryEv", &Destory);
    }

    int (*Start)() = nullptr;
    bool (*IsRunning)() = nullptr;
    CBroker* (*GetBroker)() = nullptr;
    void (*Destory)(CBroker*) = nullptr;

private:
    template <typename Function>
    void Find(const char* szName, Function* pFunction) {
        void* const pSymbol = ::dlsym(m_pLibrary, szName);
        Require(pSymbol != nullptr, szName);
        std::memcpy(pFunction, &pSymbol, sizeof pSymbol);
    }

    void* const m_pLibrary;
};

std::set<pid_t> ThreadIds() {
    std::set<pid_t> ids;
    for (const auto& entry : fs::directory_iterator("/proc/self/task"))
        ids.insert(std::stoi(entry.path().filename()));
    return ids;
}

/// Of the signals 1 to 31; those that cannot be blocked count as blocked.
bool BlocksAll(pid_t nThread) {
    const std::string strStatus =
        ReadFile("/proc/self/task/" + std::to_string(nThread) + "/status");
    const std::size_t nField = strStatus.find("SigBlk:\t");
    if (nField == std::string::npos) return true;  // it has ended
    const unsigned long long nBlocked = std::stoull(strStatus.substr(nField + 8), nullptr, 16) |
                                        1ULL << (SIGKILL - 1) | 1ULL << (SIGSTOP - 1);
    return (nBlocked & 0x7fffffffULL) == 0x7fffffffULL;
}

std::array<struct sigaction, 32> Dispositions() {
    std::array<struct sigaction, 32> actions{};
    for (int nSignal = 1; nSignal < 32; ++nSignal)
        (void)::sigaction(nSignal, nullptr, &actions[static_cast<std::size_t>(nSignal)]);
    return actions;
}

void RequireSameDispositions(const std::array<struct sigaction, 32>& before) {
    const std::array<struct sigaction, 32> now = Dispositions();
    for (std::size_t i = 1; i < now.size(); ++i)
        Require(now[i].sa_handler == before[i].sa_handler && now[i].sa_flags == before[i].sa_flags,
                "the disposition of signal " + std::to_string(i) + " is the host's");
}

rlimit DescriptorLimit() {
    rlimit limit{};
    (void)::getrlimit(RLIMIT_NOFILE, &limit);
    return limit;
}

bool HasSockets() {
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        if (fs::read_symlink(entry.path(), gone).string().rfind("socket:", 0) == 0) return true;
    }
    return false;
}

/// Signals to the process are delivered to the host's threads, and to no other.
void RequireSignalsAtHost(const std::set<pid_t>& before, pid_t nServing) {
    int nOfLibrary = 0;
    for (const pid_t nThread : ThreadIds()) {
        if (before.count(nThread) != 0 || nThread == nServing) continue;
        ++nOfLibrary;
        Require(BlocksAll(nThread), "a thread of the library takes no signals");
    }
    Require(nOfLibrary >= 5, "server, connection, pings, admin service, EMP");

    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    Require(pthread_sigmask(SIG_BLOCK, &stop, nullptr) == 0, "the mask");
    for (int i = 0; i < 50; ++i) {
        s_nHandledBy = 0;
        (void)::kill(::getpid(), SIGTERM);
        Require(CDaemon::Await([] { return s_nHandledBy != 0; }), "the signal is handled");
        Require(s_nHandledBy == nServing, "the one thread that admits it handles it");
    }
}

/// The whole life of a host, in a process of its own.
[[noreturn]] void LiveAsHost() {
    struct sigaction action {};
    action.sa_handler = &NoteThread;
    action.sa_flags = SA_RESTART;
    for (const int nSignal : {SIGTERM, SIGCHLD, SIGUSR1})
        (void)::sigaction(nSignal, &action, nullptr);
    const auto dispositions = Dispositions();
    const rlimit limit = DescriptorLimit();
    std::thread([] {}).join();  // whatever a runtime starts beside the first thread is there now
    const std::set<pid_t> threads = ThreadIds();

    CLoadedBroker broker;
    std::atomic<pid_t> nServing{0};
    std::thread serving{[&] {
        nServing = ::gettid();
        (void)broker.Start();
    }};
    Require(CDaemon::Await([&] { return broker.IsRunning() && fs::exists(paths::kReadyFlag); }),
            "the broker serves");
    {
        CBrokerClient client;  // connected to the end: there is a thread for it, too
        const ConnectionInfo info = client.Open(kClient, "Example", kVersion, kApp);
        Require(info.empPort != "-1", "an EMP can be opened");
        RequireSameDispositions(dispositions);
        Require(DescriptorLimit().rlim_cur == limit.rlim_cur, "the descriptor limit is the host's");
        RequireSignalsAtHost(threads, nServing);
        Require(broker.IsRunning() && client.Version() == "5.100", "a signal stops no broker");
    }

    broker.Destory(broker.GetBroker());
    serving.join();
    delete broker.GetBroker();
    RequireSameDispositions(dispositions);
    for (const int nPid : ProcessesOf(CEmpInstaller::ProgramPath("Example")))
        (void)::kill(nPid, SIGKILL);  // its reaper goes with it
    Require(CDaemon::Await([&] { return ThreadIds() == threads; }), "no thread stays");
    Require(!HasSockets(), "no socket stays");
    std::fprintf(stderr, "a good life\n");
    ::_exit(0);
}

TEST_F(Host, KeepsItsSignalsLimitsAndThreads) {
    EXPECT_EXIT(LiveAsHost(), ExitedWithCode(0), "a good life");
    ExpectNothingLeft();
}

// ---- What the library exports -------------------------------------------------------------------

std::string Demangle(const std::string& strSymbol) {
    int nStatus = 0;
    char* const pName = abi::__cxa_demangle(strSymbol.c_str(), nullptr, nullptr, &nStatus);
    const std::string strName = nStatus == 0 ? pName : strSymbol;
    std::free(pName);
    return strName;
}

/// True for a member of the broker itself, not of what is nested in it, and for what C++ makes of
/// it.
bool IsOfBroker(const std::string& strName) {
    for (const char* szMade : {"vtable", "typeinfo", "typeinfo name"}) {
        if (strName == std::string(szMade) + " for vok::CBroker") return true;
    }
    constexpr char kMember[] = "vok::CBroker::";
    return strName.rfind(kMember, 0) == 0 &&
           strName.substr(0, strName.find('(')).find("::", sizeof kMember - 1) == std::string::npos;
}

TEST(HostLibrary, ExportsTheFunctionsTheBrokerAndNothingElse) {
    std::istringstream output{OutputOf("nm -D --defined-only " + Library())};
    std::set<std::string> functions;
    std::set<std::string> members;
    std::string strLine;
    while (std::getline(output, strLine) && strLine != "0") {
        const std::string strName = Demangle(strLine.substr(strLine.rfind(' ') + 1));
        if (IsOfBroker(strName))
            members.insert(strName.substr(0, strName.find_first_of("([")));
        else
            functions.insert(strName);
    }
    ASSERT_EQ(strLine, "0") << "nm has failed";

    EXPECT_EQ(functions,
              (std::set<std::string>{
                  "vok_BrokerStart", "vok_CheckLoopback", "vok_IsBrokerServerRunning",
                  "vok_GetVersion", "vok_PingTest_For_Webkit", "vok_CloseAllEmpWithAppID",
                  "vok_GetBroker()", "vok_BrokerEnablePingTest()", "vok_BrokerDisablePingTest()"}));
    EXPECT_THAT(members, IsSupersetOf({"vtable for vok::CBroker", "typeinfo for vok::CBroker",
                                       "vok::CBroker::CBroker", "vok::CBroker::~CBroker",
                                       "vok::CBroker::OpenEmp", "vok::CBroker::Execute",
                                       "vok::CBroker::CloseEmp", "vok::CBroker::Destory",
                                       "vok::CBroker::StartServer", "vok::CBroker::GetFullVersion",
                                       "vok::CBroker::OnSetDebugLevel"}));
}

}  // namespace
}  // namespace vok::test
