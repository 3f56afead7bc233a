/// Memory that runs out at a moment of the test's choice.
#pragma once

namespace vok::test {

/// For as long as it lives, allocations of the thread that made it count, and those of all threads
/// that this thread makes, and that these make: what the broker does on threads of its own is part
/// of an operation. The peers that a test plays run on threads of the test, and do not count.
///
/// What counts is operator new in all its forms, whoever calls it: the broker, the standard
/// library, Boost or the RPC library. malloc does not count.
///
/// One at a time.
class CFailingAllocations {
public:
    enum eMode {
        ONCE,          // the n-th allocation fails
        FROM_THEN_ON,  // and every later one
    };

    /// `nFirst` 0: none fails, they are only counted.
    CFailingAllocations(long nFirst, eMode mode);
    /// Waits until the counted threads have ended.
    ~CFailingAllocations();
    CFailingAllocations(const CFailingAllocations&) = delete;
    CFailingAllocations& operator=(const CFailingAllocations&) = delete;

    /// Allocations so far, failed ones included.
    static long Count();
    /// True when one has failed.
    static bool HasFailed();
    /// How many blocks that were allocated while it counted have not been freed. Of all time.
    static long LiveBlocks();
};

/// What the calling thread allocates while this lives does not count and never fails: the test's
/// own doings in the middle of the code under test.
class CExempt {
public:
    CExempt();
    ~CExempt();
    CExempt(const CExempt&) = delete;
    CExempt& operator=(const CExempt&) = delete;
};

}  // namespace vok::test
