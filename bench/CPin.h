/// One processor for all.
#pragma once

#include <sched.h>

#include <stdexcept>

namespace vok::bench {

/// Until its end, the calling thread, and every thread and process that it makes meanwhile, runs on
/// one processor: the last one that it may use. Nothing waits there for another one to wake up.
class CPin {
public:
    CPin() {
        if (::sched_getaffinity(0, sizeof m_Former, &m_Former) != 0)
            throw std::runtime_error("sched_getaffinity");
        int nLast = CPU_SETSIZE - 1;
        while (nLast > 0 && !CPU_ISSET(nLast, &m_Former)) --nLast;
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(nLast, &one);
        if (::sched_setaffinity(0, sizeof one, &one) != 0)
            throw std::runtime_error("sched_setaffinity");
    }
    ~CPin() { (void)::sched_setaffinity(0, sizeof m_Former, &m_Former); }
    CPin(const CPin&) = delete;
    CPin& operator=(const CPin&) = delete;

private:
    cpu_set_t m_Former;
};

}  // namespace vok::bench
