#include "tests/faults/CPeers.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>

#include "tests/faults/FaultPeer.h"
#include "tests/support/CDaemon.h"
#include "tests/support/Footprint.h"

namespace vok::test {

namespace {

namespace fs = std::filesystem;

/// A queue of length 0 takes one or two.
constexpr int kLongestQueue = 16;
/// On the loopback interface a connection is made within the call that asks for it.
constexpr int kConnectMs = 200;

/// A connection that is made, or has been asked for.
CUniqueFd Connect(const std::string& strPort) {
    CUniqueFd fd{::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)};
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(std::stoi(strPort)));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    (void)::connect(fd.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address);
    return fd;
}

}  // namespace

CPeers::CPeers() {
    fs::create_directories(kPeerFolder);
    fs::permissions(kPeerFolder, fs::perms::all);
    std::ofstream(kPids).flush();
    fs::permissions(kPids, fs::perms::all);
}

CPeers::~CPeers() {
    (void)Kill();
}

void CPeers::Script(const std::string& strStep, const std::string& strFault) {
    fs::remove(kReached);
    std::ofstream(kScript) << strStep << ' ' << strFault << std::flush;
}

void CPeers::Behave() {
    fs::remove(kScript);
}

bool CPeers::AwaitFault() const {
    return CDaemon::Await([] { return fs::exists(kReached); });
}

bool CPeers::AwaitStopped() const {
    return CDaemon::Await([this] {
        const std::vector<int> pids = Pids();
        return !pids.empty() && std::all_of(pids.begin(), pids.end(),
                                            [](int nPid) { return ProcessState(nPid) == 'T'; });
    });
}

bool CPeers::Stop() const {
    Signal(SIGSTOP);
    return AwaitStopped();
}

void CPeers::Continue() const {
    Signal(SIGCONT);
}

bool CPeers::Kill() const {
    // One that is just being started may have missed the first look.
    return CDaemon::Await([this] {
        Signal(SIGKILL);
        return Pids().empty();
    });
}

bool CPeers::FillQueue(const std::string& strPort) {
    for (int n = 0; n < kLongestQueue; ++n) {
        m_Queue.push_back(Connect(strPort));
        pollfd event{m_Queue.back().Get(), POLLOUT, 0};
        if (::poll(&event, 1, kConnectMs) == 0) return true;
    }
    return false;
}

std::vector<int> CPeers::Pids() const {
    std::vector<int> pids;
    std::ifstream file(kPids);
    for (int nPid = 0; file >> nPid;)
        if (IsAlive(nPid)) pids.push_back(nPid);
    return pids;
}

void CPeers::Signal(int nSignal) const {
    for (const int nPid : Pids()) (void)::kill(nPid, nSignal);
}

}  // namespace vok::test
