#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "bench/activators/CMessageBus.h"
#include "bench/activators/CXinetd.h"
#include "tests/support/CFakeEmp.h"
#include "tests/support/CPrivateWorld.h"

namespace vok::bench {
namespace {

using std::chrono::nanoseconds;

std::string Program(const char* szName) {
    return vok::test::CPrivateWorld::ProgramFolder() / szName;
}

const auto kSoon = std::chrono::seconds(5);

TEST(MessageBus, ServiceIsActivatedAgainAfterItsRelease) {
    CMessageBus bus{Program("vok-bench-bus-service")};
    for (int n = 0; n < 50; ++n) {
        EXPECT_GT(bus.Activate(), nanoseconds::zero());
        EXPECT_LT(bus.ResolveName(), kSoon);
        EXPECT_LT(bus.Call(), kSoon);
        bus.Release();
    }
}

TEST(MessageBus, NameOfARunningServiceIsResolvedOnManyConnections) {
    CMessageBus bus{Program("vok-bench-bus-service")};
    (void)bus.Activate();
    std::vector<std::thread> threads;
    for (int n = 0; n < 8; ++n) {
        threads.emplace_back([&] {
            CBusConnection connection{bus.Address()};
            for (int nCall = 0; nCall < 100; ++nCall) EXPECT_LT(connection.ResolveName(), kSoon);
        });
    }
    for (std::thread& thread : threads) thread.join();
}

TEST(MessageBus, ActivatingARunningServiceIsAnError) {
    CMessageBus bus{Program("vok-bench-bus-service")};
    (void)bus.Activate();
    EXPECT_THROW((void)bus.Activate(), std::runtime_error);
}

TEST(MessageBus, NameWithoutAnOwnerIsAnError) {
    CMessageBus bus{Program("vok-bench-bus-service")};
    EXPECT_THROW((void)bus.ResolveName(), std::runtime_error);
}

TEST(MessageBus, MissingProgramIsAnError) {
    EXPECT_THROW(CMessageBus{"/no/such/program"}, std::runtime_error);
}

class XinetdTest : public ::testing::TestWithParam<const char*> {};

TEST_P(XinetdTest, EmpIsStartedAgainAfterItsRelease) {
    CXinetd xinetd{45678, Program(GetParam())};
    for (int n = 0; n < 50; ++n) {
        EXPECT_LT(xinetd.FirstAnswer(), kSoon);
        EXPECT_LT(xinetd.FirstAnswer(), kSoon);  // of the same
        xinetd.Release();
    }
}

INSTANTIATE_TEST_SUITE_P(Emp, XinetdTest,
                         ::testing::Values("vok-bench-xinetd-emp", "vok-bench-xinetd-emp-static"));

TEST(Xinetd, ReleaseOfAnEmpThatDoesNotRunIsAnError) {
    CXinetd xinetd{45679, Program("vok-bench-xinetd-emp")};
    EXPECT_THROW(xinetd.Release(), std::runtime_error);
}

TEST(Xinetd, TakenPortIsAnError) {
    const vok::test::CFakeEmp emp;
    EXPECT_THROW(CXinetd(emp.Port(), Program("vok-bench-xinetd-emp")), std::runtime_error);
}

TEST(Xinetd, MissingProgramIsAnError) {
    EXPECT_THROW(CXinetd(45680, "/no/such/program"), std::runtime_error);
}

}  // namespace
}  // namespace vok::bench
