/// A file descriptor with one owner.
#pragma once

#include <unistd.h>

#include <utility>

namespace vok {

/// Closes its descriptor when it goes. -1 is "none".
class CUniqueFd {
public:
    CUniqueFd() = default;
    explicit CUniqueFd(int nFd) : m_nFd(nFd) {}
    ~CUniqueFd() { Reset(); }
    CUniqueFd(CUniqueFd&& other) noexcept : m_nFd(std::exchange(other.m_nFd, -1)) {}
    CUniqueFd& operator=(CUniqueFd&& other) noexcept {
        Reset(std::exchange(other.m_nFd, -1));
        return *this;
    }

    bool IsOpen() const { return m_nFd >= 0; }
    int Get() const { return m_nFd; }

    /// Closes what is held and holds `nFd` instead.
    void Reset(int nFd = -1) {
        // close(2): on Linux the descriptor is gone even after EINTR, so it is never repeated.
        if (m_nFd >= 0) (void)::close(m_nFd);
        m_nFd = nFd;
    }

private:
    int m_nFd = -1;
};

}  // namespace vok
