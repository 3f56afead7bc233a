// The configuration file of an EMP: its version, and what it hosts.
//
// Input: the file.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <set>
#include <string>
#include <string_view>

#include "platform/CUniqueFd.h"
#include "platform/EmpPaths.h"
#include "tests/fuzz/support/CStage.h"
#include "tests/fuzz/support/Target.h"
#include "tests/support/BrokerProbe.h"

namespace vok::test {
namespace {

/// Of a file that is in memory only.
double ReadVersion(CBroker& broker, std::string_view strXml) {
    const CUniqueFd fd{::memfd_create("emp.xml", MFD_CLOEXEC)};
    Require(fd.IsOpen(), "there is memory for a file");
    const ssize_t nWritten = ::write(fd.Get(), strXml.data(), strXml.size());
    Require(nWritten == static_cast<ssize_t>(strXml.size()), "there is memory for its text");
    return broker.m_ParseLocalEmpCfgFile("/proc/self/fd/" + std::to_string(fd.Get()));
}

bool IsBlank(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

/// What an EMP called Host hosts, besides what its group is known for.
void ReadHosted(std::string_view strXml) {
    FakePlatform fake;
    fake.files.Add(paths::PreinstalledConfig("Host"), std::string(strXml));
    CBroker broker{fake.Get()};
    BrokerProbe::ReadGroupingEmps(broker);
    const LauncherTable first = BrokerProbe::Groups(broker);
    Require(first.size() <= 1, "a file tells of one grouping process");
    for (const auto& [key, setEmp] : first) {
        Require(key.first == "Host" && key.second == kGroupNotRunning, "that of the file");
        Require(!setEmp.empty(), "a grouping process hosts something");
        for (const std::string& strEmp : setEmp)
            Require(!strEmp.empty() && !IsBlank(strEmp.front()) && !IsBlank(strEmp.back()),
                    "names have no blanks around them");
    }
    BrokerProbe::ReadGroupingEmps(broker);
    Require(BrokerProbe::Groups(broker) == first, "reading again changes nothing");
}

}  // namespace
}  // namespace vok::test

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t nSize) {
    using namespace vok::test;
    const std::string_view strXml{reinterpret_cast<const char*>(pData), nSize};
    const CForgetfulLog log;
    ReadHosted(strXml);

    FakePlatform fake;
    vok::CBroker broker{fake.Get()};
    const double dFirst = ReadVersion(broker, strXml);
    const double dAgain = ReadVersion(broker, strXml);
    Require(dFirst == dAgain || (dFirst != dFirst && dAgain != dAgain), "a file has one version");
    return 0;
}
