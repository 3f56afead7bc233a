/// Where operations run whose allocations fail one after the other.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "broker/CBroker.h"
#include "tests/alloc/ExemptPlatform.h"
#include "tests/support/BrokerProbe.h"
#include "tests/support/CFakeEmp.h"
#include "tests/support/CFakeLauncher.h"

namespace vok::test {

// Names and ports that no string keeps without memory of its own.
inline constexpr char kEmp[] = "WeatherOfTheWholeWideWorld";
inline constexpr char kGroup[] = "GroupOfRatherManySmallEmps";
inline constexpr char kLauncher[] = "LauncherOfRatherManyThreads";
inline constexpr char kClient[] = "/run/clients/browser-of-the-set.socket";
inline constexpr char kPort[] = "/run/emps/weather-of-the-world.socket";
inline constexpr char kOtherPort[] = "/run/emps/weather-of-the-moon.socket";

/// One broker on a fake platform, with its peers. The first ticket gets serial 2.
class Stage {
public:
    Stage();
    ~Stage();
    Stage(const Stage&) = delete;
    Stage& operator=(const Stage&) = delete;

    CEmpInfo& EmpInfo() { return BrokerProbe::EmpInfo(broker); }
    CConnectionDB& ConnectionDB() { return BrokerProbe::ConnectionDB(broker); }

    /// An EMP whose record says so.
    void AddKnown(const std::string& strEmp, const std::string& strOption, EMP_STATUS eStatus,
                  int nPid = 0);
    /// An EMP that is open, with one client.
    void AddOpen(const std::string& strOption, const std::string& strPort, int nPid = 777);
    /// The same, with a server that answers closes so.
    void AddServed(const std::string& strOption, int nCloseAnswer);
    /// An image that is there once it is mounted, and as long.
    void AddImage(const std::string& strImage);
    /// The EMPs that are forked report so.
    void LetForkedReport(const std::string& strPortAndPid, const std::string& strOption);
    /// There is a launcher, or grouping process, whose EMPs report so.
    void LetLauncherReport(const std::string& strPortAndPid, const std::string& strOption);
    /// The report of an EMP, from outside: it never fails for want of memory.
    void Report(const std::string& strSerial, const std::string& strPortAndPid,
                const std::string& strOption);

    /// True when the answer tells of a connection.
    bool Open(const char* szEmp = kEmp);
    bool Close(const std::string& strPort, const char* szEmp = kEmp);
    /// True when the command was answered with `szAnswer`.
    bool Execute(const char* szAnswer, const char* szArg1, const char* szCmd,
                 const char* szArg3 = "", const char* szArg4 = "", const char* szArg5 = "",
                 const char* szArg6 = "");

    /// All tables, for comparison. Entries of unknown tickets are left out: late reports leave
    /// them.
    std::string Tables();

    CExemptLog log;
    FakePlatform fake;
    ExemptPlatform exempt{fake};
    /// Made by those that call them: they are servers.
    std::unique_ptr<CFakeEmp> pEmp;
    std::unique_ptr<CFakeLauncher> pLauncher;
    CBroker broker{exempt.Get()};

private:
    const unsigned int m_nFormerSerial;
};

/// One operation. `run` and `next` answer whether they succeeded; `run` may throw std::bad_alloc,
/// except where it says otherwise.
struct Operation {
    std::string strName;
    std::function<void(Stage&)> prepare;
    std::function<bool(Stage&)> run;
    /// The next operation of its kind, after memory has come back. Without one: `run`.
    std::function<bool(Stage&)> next;
    /// The tables are as before the failed operation or as after a complete one, and a success is
    /// answered only in the latter case. Otherwise only `next` has to succeed.
    bool bAllOrNothing = true;
    /// `run` answers by itself, whatever happens.
    bool bNeverThrows = false;
    /// What `run` answers tells whether all was done.
    bool bTells = true;
};

void PrintTo(const Operation& operation, std::ostream* pStream);

/// The test of all operations: every allocation fails once, and every one from each on.
class AllocationTest : public ::testing::TestWithParam<Operation> {
protected:
    void FailEveryAllocation();
};

inline std::string NameOf(const ::testing::TestParamInfo<Operation>& info) {
    return info.param.strName;
}

}  // namespace vok::test
