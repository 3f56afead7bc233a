/// Runs an action when its block ends, by whichever way.
#pragma once

#include <utility>

namespace vok {

/// Name the guard after its act: `const ScopeGuard closeFile{[&] { ... }};`. The act must not
/// throw.
template <typename Act>
class ScopeGuard {
public:
    explicit ScopeGuard(Act act) : m_Act(std::move(act)) {}
    ~ScopeGuard() {
        if (m_bArmed) m_Act();
    }
    ScopeGuard(const ScopeGuard&) = delete;
    ScopeGuard& operator=(const ScopeGuard&) = delete;

    /// What was to be undone shall stay.
    void Dismiss() { m_bArmed = false; }

private:
    Act m_Act;
    bool m_bArmed = true;
};

}  // namespace vok
