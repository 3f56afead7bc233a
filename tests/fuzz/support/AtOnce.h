/// Threads and waits that take no time.
#pragma once

namespace vok::test {

/// For as long as it lives, what would start a thread runs it to its end first, and a wait for a
/// notification that has not come is over: there is nobody left who could send it. What an input
/// does is then the same every time, and takes as long as the work in it.
///
/// One at a time. The binary is linked with --wrap=pthread_create and --wrap=sem_clockwait.
class CAtOnce {
public:
    CAtOnce();
    ~CAtOnce();
    CAtOnce(const CAtOnce&) = delete;
    CAtOnce& operator=(const CAtOnce&) = delete;
};

}  // namespace vok::test
