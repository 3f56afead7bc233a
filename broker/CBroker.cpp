// The broker's birth and death.
#include "broker/CBroker.h"

#include <thrift/server/TThreadedServer.h>

#include <cstdlib>
#include <cstring>

#include "broker/Globals.h"
#include "platform/Limits.h"
#include "platform/Log.h"
#include "platform/ThreadMaker.h"

namespace vok {

template <>
CBroker* CSingleton<CBroker>::m_hInstance = nullptr;

CBroker::CBroker(Platform platform) : CSingleton<CBroker>(this), m_Platform(platform) {
    is_vok_client_log_info_initialized = true;
    if (!SetLibraryPath()) return;
    MakeTicketMutex();
    VOK_LOG(LEVEL_DETAIL, "Creator started.");
}

CBroker::~CBroker() {
    VOK_LOG(LEVEL_DETAIL, "Destory");
    Destory();
    // Connection threads work on this object until the server has ended.
    if (m_bServerLaunched) (void)m_ServerEnded.Wait(0);
    while (m_nInUse > 0) m_Platform.pClock->Sleep(kStopPoll);

    // Not before the last start has read it.
    std::free(gpVokBrokerLibraryPath);
    gpVokBrokerLibraryPath = nullptr;
    CBroker* pSelf = this;
    (void)g_pBroker.compare_exchange_strong(pSelf, nullptr);
}

/// False when memory is short: the construction ends there.
bool CBroker::SetLibraryPath() {
    constexpr const char* kOperation = "CBroker";
    std::string strEntry = "LD_LIBRARY_PATH=";
    if (const char* szPath = std::getenv("LD_LIBRARY_PATH"); szPath != nullptr)
        strEntry += szPath;
    else
        VOK_LOG_AS(kOperation, LEVEL_DETAIL,
                   "INFO: getenv(LD_LIBRARY_PATH) is Null, extern EMP will not be able to run.");

    if (strEntry.size() > kMaxLibraryPath) {
        VOK_LOG_AS(kOperation, LEVEL_ERROR, "Error: stringSize is out of bounds");
    } else {
        std::free(gpVokBrokerLibraryPath);  // of a broker that was never destroyed
        gpVokBrokerLibraryPath = ::strdup(strEntry.c_str());
        if (gpVokBrokerLibraryPath == nullptr) {
            VOK_LOG_AS(kOperation, LEVEL_ERROR, "Malloc for gpVokBrokerLibraryPath failed!");
            return false;
        }
    }
    VOK_LOG_AS(kOperation, LEVEL_DETAIL, "LibraryPath[%s]",
               gpVokBrokerLibraryPath == nullptr ? "(null)" : gpVokBrokerLibraryPath);
    return true;
}

void CBroker::MakeTicketMutex() {
    if (Ticket::m_pTicketScopedMutex == nullptr)
        Ticket::m_pTicketScopedMutex = new CMutex;
    else
        VOK_LOG_AS("CBroker", LEVEL_ERROR, "m_pTicketScopedMutex must be null at first time[%p]",
                   static_cast<void*>(Ticket::m_pTicketScopedMutex));
}

void CBroker::Destory() {
    RequestStop();
    StopServer();
    StopAdminServer();
}

void CBroker::RequestStop() noexcept {
    m_bStopRequested = true;
    // Nobody may be waiting yet: the flag tells later.
    (void)m_StopCondition.NotifyOne();
    (void)m_PingStop.NotifyOne();
}

std::shared_ptr<void> CBroker::HoldInUse() {
    ++m_nInUse;
    return {&m_nInUse, [](void* pInUse) { --*static_cast<std::atomic<int>*>(pInUse); }};
}

struct CBroker::ThreadStart {
    CBroker& broker;
    void (*pBody)(CBroker&);
    std::shared_ptr<void> spBrokerInUse;
};

bool CBroker::LaunchThread(const char* szName, void (*pBody)(CBroker&)) {
    std::unique_ptr<ThreadStart> pStart{new ThreadStart{*this, pBody, HoldInUse()}};
    if (!ThreadMaker::CreateThread(szName, &CBroker::RunThread, pStart.get(), kThreadStack, true))
        return false;
    (void)pStart.release();  // the thread's now
    return true;
}

void* CBroker::RunThread(void* pStart) {
    const std::unique_ptr<ThreadStart> pThread{static_cast<ThreadStart*>(pStart)};
    try {
        pThread->pBody(pThread->broker);
    } catch (...) {
        VOK_LOG(LEVEL_ERROR, "A thread of the broker has ended early.");
    }
    return nullptr;
}

void CBroker::SetInvalidConnectionInfo(ConnectionInfo& info) {
    info.empName.clear();
    info.clientPort = kNoPort;
    info.empPort = kNoPort;
}

}  // namespace vok
