#include "tests/alloc/Allocations.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <new>

namespace vok::test {
namespace {

thread_local bool t_bCounted = false;
thread_local int t_nExempt = 0;

std::atomic<long> s_nCount{0};
std::atomic<long> s_nFirst{0};
std::atomic<bool> s_bFromThenOn{false};
std::atomic<bool> s_bFailed{false};
std::atomic<long> s_nLive{0};

std::mutex s_ThreadMutex;
std::condition_variable s_ThreadEnded;
int s_nThreads = 0;  // guarded by s_ThreadMutex

bool IsCounted() {
    return t_bCounted && t_nExempt == 0;
}

/// Counts an allocation; true when it is to fail.
bool MustFail() {
    const long nThis = ++s_nCount;
    const long nFirst = s_nFirst;
    if (nFirst == 0 || nThis < nFirst || (nThis > nFirst && !s_bFromThenOn)) return false;
    s_bFailed = true;
    return true;
}

/// Stands in front of every block.
struct alignas(std::max_align_t) Header {
    void* pBegin;  // what malloc gave
    bool bCounted;
};

/// Null when there is no memory, in truth or as ordered.
void* Allocate(std::size_t nSize, std::size_t nAlignment) noexcept {
    const bool bCounted = IsCounted();
    if (bCounted && MustFail()) return nullptr;
    const std::size_t nPadding = std::max(nAlignment, alignof(Header));
    void* const pBegin = std::malloc(sizeof(Header) + nPadding + nSize);
    if (pBegin == nullptr) return nullptr;
    const auto nBegin = reinterpret_cast<std::uintptr_t>(pBegin);
    const std::uintptr_t nBlock = (nBegin + sizeof(Header) + nPadding - 1) / nPadding * nPadding;
    Header* const pHeader = reinterpret_cast<Header*>(nBlock) - 1;
    pHeader->pBegin = pBegin;
    pHeader->bCounted = bCounted;
    if (bCounted) ++s_nLive;
    return reinterpret_cast<void*>(nBlock);
}

void* AllocateOrThrow(std::size_t nSize, std::size_t nAlignment = alignof(std::max_align_t)) {
    void* const pBlock = Allocate(nSize, nAlignment);
    if (pBlock == nullptr) throw std::bad_alloc{};
    return pBlock;
}

void Free(void* pBlock) noexcept {
    if (pBlock == nullptr) return;
    const Header* const pHeader = static_cast<Header*>(pBlock) - 1;
    if (pHeader->bCounted) --s_nLive;
    std::free(pHeader->pBegin);
}

/// What a counted thread's successor starts with. Made with malloc: no operation pays for it.
struct ThreadStart {
    void* (*pRoutine)(void*);
    void* pArgument;
};

void* RunCounted(void* pStart) {
    const ThreadStart start = *static_cast<ThreadStart*>(pStart);
    std::free(pStart);
    t_bCounted = true;
    void* const pResult = start.pRoutine(start.pArgument);
    t_bCounted = false;
    const std::lock_guard<std::mutex> lock{s_ThreadMutex};
    --s_nThreads;
    s_ThreadEnded.notify_all();
    return pResult;
}

}  // namespace

CFailingAllocations::CFailingAllocations(long nFirst, eMode mode) {
    s_nCount = 0;
    s_nFirst = nFirst;
    s_bFromThenOn = mode == FROM_THEN_ON;
    s_bFailed = false;
    t_bCounted = true;
}

CFailingAllocations::~CFailingAllocations() {
    t_bCounted = false;
    std::unique_lock<std::mutex> lock{s_ThreadMutex};
    s_ThreadEnded.wait(lock, [] { return s_nThreads == 0; });
    s_nFirst = 0;
}

long CFailingAllocations::Count() {
    return s_nCount;
}

bool CFailingAllocations::HasFailed() {
    return s_bFailed;
}

long CFailingAllocations::LiveBlocks() {
    return s_nLive;
}

CExempt::CExempt() {
    ++t_nExempt;
}

CExempt::~CExempt() {
    --t_nExempt;
}

}  // namespace vok::test

// ---- Threads: the linker leads the calls of our own code here -----------------------------------

extern "C" int __real_pthread_create(pthread_t* pThread, const pthread_attr_t* pAttributes,
                                     void* (*pRoutine)(void*), void* pArgument);

extern "C" int __wrap_pthread_create(pthread_t* pThread, const pthread_attr_t* pAttributes,
                                     void* (*pRoutine)(void*), void* pArgument) {
    using namespace vok::test;
    if (!t_bCounted) return __real_pthread_create(pThread, pAttributes, pRoutine, pArgument);
    auto* const pStart = static_cast<ThreadStart*>(std::malloc(sizeof(ThreadStart)));
    if (pStart == nullptr) return EAGAIN;
    *pStart = {pRoutine, pArgument};
    {
        const std::lock_guard<std::mutex> lock{s_ThreadMutex};
        ++s_nThreads;
    }
    const int nResult = __real_pthread_create(pThread, pAttributes, &RunCounted, pStart);
    if (nResult == 0) return 0;
    std::free(pStart);
    const std::lock_guard<std::mutex> lock{s_ThreadMutex};
    --s_nThreads;
    return nResult;
}

// ---- The replaced operators --------------------------------------------------------------------

using vok::test::Allocate;
using vok::test::AllocateOrThrow;
using vok::test::Free;

void* operator new(std::size_t nSize) {
    return AllocateOrThrow(nSize);
}
void* operator new[](std::size_t nSize) {
    return AllocateOrThrow(nSize);
}
void* operator new(std::size_t nSize, const std::nothrow_t&) noexcept {
    return Allocate(nSize, alignof(std::max_align_t));
}
void* operator new[](std::size_t nSize, const std::nothrow_t&) noexcept {
    return Allocate(nSize, alignof(std::max_align_t));
}
void* operator new(std::size_t nSize, std::align_val_t nAlignment) {
    return AllocateOrThrow(nSize, static_cast<std::size_t>(nAlignment));
}
void* operator new[](std::size_t nSize, std::align_val_t nAlignment) {
    return AllocateOrThrow(nSize, static_cast<std::size_t>(nAlignment));
}
void operator delete(void* pBlock) noexcept {
    Free(pBlock);
}
void operator delete[](void* pBlock) noexcept {
    Free(pBlock);
}
void operator delete(void* pBlock, std::size_t) noexcept {
    Free(pBlock);
}
void operator delete[](void* pBlock, std::size_t) noexcept {
    Free(pBlock);
}
void operator delete(void* pBlock, const std::nothrow_t&) noexcept {
    Free(pBlock);
}
void operator delete[](void* pBlock, const std::nothrow_t&) noexcept {
    Free(pBlock);
}
void operator delete(void* pBlock, std::align_val_t) noexcept {
    Free(pBlock);
}
void operator delete[](void* pBlock, std::align_val_t) noexcept {
    Free(pBlock);
}
void operator delete(void* pBlock, std::size_t, std::align_val_t) noexcept {
    Free(pBlock);
}
void operator delete[](void* pBlock, std::size_t, std::align_val_t) noexcept {
    Free(pBlock);
}

#if defined(__SANITIZE_ADDRESS__)
// The RPC library forgets its list of addresses when memory ends while it connects.
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_suppressions() {
    return "leak:apache::thrift::transport::TSocket::local_open\n";
}
#endif
