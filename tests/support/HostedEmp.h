/// EMPs of the daemon under test whose calls the test answers itself.
#pragma once

#include <unistd.h>

#include <string>

#include "tests/support/CEmpInstaller.h"
#include "tests/support/CFakeEmp.h"

namespace vok::test {

/// Preinstalls a program that, once started, reports `emp` as its server: that one gets the calls
/// of the broker and of clients. Its process is said to be the test's: it must not report its stop.
inline void PreinstallHosted(const std::string& strEmp, const CFakeEmp& emp) {
    const std::string strPid = std::to_string(::getpid());
    CEmpInstaller::Preinstall(strEmp,
                              CEmpBehaviour().With("portandpid", emp.PortText() + "|" + strPid));
}

}  // namespace vok::test
