#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/prctl.h>

#include <csignal>
#include <future>
#include <memory>
#include <thread>

#include "platform/Limits.h"
#include "platform/ThreadMaker.h"

namespace vok {
namespace {

struct Seen {
    std::size_t nStackSize = 0;
    int nDetachState = -1;
    bool bTermBlocked = false;
    bool bUsrBlocked = false;
    char szName[16] = "";
};

void* Look(void* pArg) {
    const std::unique_ptr<std::promise<Seen>> pPromise(static_cast<std::promise<Seen>*>(pArg));
    Seen seen;
    pthread_attr_t attr;
    if (pthread_getattr_np(pthread_self(), &attr) == 0) {
        pthread_attr_getstacksize(&attr, &seen.nStackSize);
        pthread_attr_getdetachstate(&attr, &seen.nDetachState);
        pthread_attr_destroy(&attr);
    }
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    seen.bTermBlocked = sigismember(&mask, SIGTERM) == 1;
    seen.bUsrBlocked = sigismember(&mask, SIGUSR1) == 1;
    ThreadMaker::NameThisThread("VOK-B-LongerThanFifteen");
    prctl(PR_GET_NAME, seen.szName);
    pPromise->set_value(seen);
    return nullptr;
}

Seen LookInNewThread() {
    auto* const pPromise = new std::promise<Seen>;
    std::future<Seen> seen = pPromise->get_future();
    EXPECT_TRUE(ThreadMaker::CreateThread("name", &Look, pPromise, kThreadStack, true));
    return seen.get();
}

TEST(CreateThread, GivesTheStackThatWasAskedFor) {
    const Seen seen = LookInNewThread();
    EXPECT_GE(seen.nStackSize, kThreadStack);
    EXPECT_LE(seen.nStackSize, kThreadStack + 65536);
}

TEST(CreateThread, DetachesWhenAsked) {
    EXPECT_EQ(LookInNewThread().nDetachState, PTHREAD_CREATE_DETACHED);
}

TEST(CreateThread, BlocksAllSignalsThereAndNoneHere) {
    const Seen seen = LookInNewThread();
    EXPECT_TRUE(seen.bTermBlocked && seen.bUsrBlocked);
    sigset_t mask;
    ASSERT_EQ(pthread_sigmask(SIG_SETMASK, nullptr, &mask), 0);
    EXPECT_EQ(sigismember(&mask, SIGTERM), 0);
}

TEST(CreateThread, FailsForAStackThatCannotBe) {
    EXPECT_FALSE(ThreadMaker::CreateThread("name", &Look, nullptr, 1, true));
}

TEST(CreateThread, FailsWithoutARoutine) {
    EXPECT_FALSE(ThreadMaker::CreateThread("name", nullptr, nullptr, kThreadStack, true));
}

TEST(NameThisThread, KeepsFifteenCharacters) {
    EXPECT_STREQ(LookInNewThread().szName, "VOK-B-LongerTha");
}

TEST(NameThisThread, TakesEveryNameAlsoOneThatItHadBefore) {
    std::thread([] {
        for (const char* szName :
             {"B-O-Weather", "B-O-Weather2", "B-O-Weather", "", "B-O-Weather"}) {
            ThreadMaker::NameThisThread(szName);
            char szNow[16] = "";
            prctl(PR_GET_NAME, szNow);
            EXPECT_STREQ(szNow, szName);
        }
    }).join();
}

TEST(NameThisThread, TakesAnEmptyNameFirst) {
    std::thread([] {
        ThreadMaker::NameThisThread("");
        char szNow[16] = "none";
        prctl(PR_GET_NAME, szNow);
        EXPECT_STREQ(szNow, "");
    }).join();
}

}  // namespace
}  // namespace vok
