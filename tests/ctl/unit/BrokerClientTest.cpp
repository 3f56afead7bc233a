// What came of an open, in words.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ctl/BrokerClient.h"
#include "platform/Limits.h"

namespace vok::ctl {
namespace {

using ::testing::HasSubstr;

ConnectionInfo Answer(const std::string& strEmpPort) {
    ConnectionInfo info;
    info.empPort = strEmpPort;
    return info;
}

TEST(NotOpenedText, OfARefusalAtOnceDoesNotSpeakOfAReportThatIsLate) {
    EXPECT_EQ(NotOpenedText("Clock", Answer("-1"), 240),
              "the broker did not open Clock: refused after 240 us: it takes one connection only "
              "and has it, or could not be started; \"vokctl where Clock\" tells which, and the "
              "broker's log says why");
}

TEST(NotOpenedText, AfterTheWaitForAReportSpeaksOfIt) {
    EXPECT_EQ(NotOpenedText("Clock", Answer("-1"), (kReportWaitMs + 20) * 1000),
              "the broker did not open Clock: it did not start, or not report, within 10.0 s; "
              "\"vokctl where Clock\" tells what there is, and the broker's log says why");
    EXPECT_THAT(NotOpenedText("Clock", Answer("-1"), kReportWaitMs * 1000 - 1),
                HasSubstr("refused after"));
}

TEST(NotOpenedText, OfWhatIsNowhereSaysSo) {
    EXPECT_THAT(NotOpenedText("Nowhere", Answer(""), 240), HasSubstr("it is not installed"));
}

TEST(NotOpenedText, OfTheBrokerItselfBlamesTheName) {
    EXPECT_EQ(NotOpenedText("Broker", Answer("-1"), 240),
              "the broker did not open Broker: that is its own name, and no EMP's");
}

}  // namespace
}  // namespace vok::ctl
