#include "bench/Emps.h"

#include <csignal>
#include <stdexcept>

#include "tests/support/CEmpInstaller.h"

namespace vok::bench {

using test::CEmpInstaller;

void InstallEmp(const std::string& strEmp, eLinkage eKind) {
    CEmpInstaller::PreinstallCopy(
        strEmp, eKind == eLinkage::Static ? "vok-bench-static-emp" : "example-emp");
}

void KillEmp(const std::string& strEmp) {
    const std::string strProgram = CEmpInstaller::ProgramPath(strEmp);
    for (const int nPid : test::ProcessesOf(strProgram)) (void)::kill(nPid, SIGKILL);
    if (!test::WaitUntilEnded(strProgram)) throw std::runtime_error(strEmp + " does not end");
}

}  // namespace vok::bench
