#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <vector>

#include "platform/CUniqueFd.h"
#include "platform/Descriptors.h"
#include "platform/ScopeGuard.h"

namespace vok {
namespace {

using ::testing::Contains;
using ::testing::Each;
using ::testing::Gt;
using ::testing::Not;

bool IsCloseOnExec(int nFd) {
    return (fcntl(nFd, F_GETFD) & FD_CLOEXEC) != 0;
}

TEST(SetCloseOnExec, SweepsEveryOpenDescriptorAboveTwo) {
    const CUniqueFd set{::open("/dev/null", O_RDONLY | O_CLOEXEC)};
    const CUniqueFd unset{::open("/dev/null", O_RDONLY)};
    const CUniqueFd far{fcntl(unset.Get(), F_DUPFD, 700)};
    const int nFormer = fcntl(0, F_GETFD);
    ASSERT_TRUE(set.IsOpen() && unset.IsOpen() && far.IsOpen());

    std::vector<int> told;
    SetCloseOnExec([&](int nFd) { told.push_back(nFd); });

    EXPECT_THAT(told, Contains(unset.Get()));
    EXPECT_THAT(told, Contains(far.Get()));
    EXPECT_THAT(told, Not(Contains(set.Get())));
    EXPECT_THAT(told, Each(Gt(2)));
    EXPECT_TRUE(IsCloseOnExec(unset.Get()));
    EXPECT_TRUE(IsCloseOnExec(far.Get()));
    EXPECT_EQ(fcntl(0, F_GETFD), nFormer);
}

TEST(SetCloseOnExec, SweepsAsFarWithNobodyToTell) {
    const CUniqueFd unset{::open("/dev/null", O_RDONLY)};
    const CUniqueFd far{fcntl(unset.Get(), F_DUPFD, 700)};
    const int nFormer = fcntl(0, F_GETFD);
    ASSERT_TRUE(unset.IsOpen() && far.IsOpen());

    SetCloseOnExec(nullptr);

    EXPECT_TRUE(IsCloseOnExec(unset.Get()));
    EXPECT_TRUE(IsCloseOnExec(far.Get()));
    EXPECT_EQ(fcntl(0, F_GETFD), nFormer);
    const CUniqueFd later{::open("/dev/null", O_RDONLY)};
    EXPECT_FALSE(IsCloseOnExec(later.Get()));
}

TEST(SetCloseOnExec, SecondSweepHasNothingToTell) {
    SetCloseOnExec([](int) {});
    std::vector<int> told;
    SetCloseOnExec([&](int nFd) { told.push_back(nFd); });
    EXPECT_THAT(told, ::testing::IsEmpty());
}

TEST(SetCloseOnExec, OfOneDescriptorKeepsTheOthers) {
    const CUniqueFd one{::open("/dev/null", O_RDONLY)};
    const CUniqueFd other{::open("/dev/null", O_RDONLY)};
    SetCloseOnExec(one.Get());
    SetCloseOnExec(-1);
    EXPECT_TRUE(IsCloseOnExec(one.Get()));
    EXPECT_FALSE(IsCloseOnExec(other.Get()));
}

TEST(RaiseDescriptorLimit, RaisesToTheHardLimitAndRemembers) {
    rlimit former{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &former), 0);
    const ScopeGuard restore{[&] { (void)setrlimit(RLIMIT_NOFILE, &former); }};
    rlimit low = former;
    low.rlim_cur = 200;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    ASSERT_EQ(DescriptorLimit(), 200u);

    RaiseDescriptorLimit();
    EXPECT_EQ(DescriptorLimit(), former.rlim_max);
    RaiseDescriptorLimit();  // nothing is left to raise: what is remembered stays
    const auto original = OriginalDescriptorLimit();
    ASSERT_TRUE(original.has_value());
    EXPECT_EQ(original->rlim_cur, 200u);
    EXPECT_EQ(original->rlim_max, former.rlim_max);
}

}  // namespace
}  // namespace vok
