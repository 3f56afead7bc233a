#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "platform/CLogger.h"
#include "tests/support/CLogCapture.h"
#include "tests/support/LogLines.h"

namespace vok {
namespace {

using namespace test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class CLocalLoggerTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NE(m_pLogger, nullptr); }

    void Configure() {
        EXPECT_TRUE(m_pLogger->SetServiceConf("15_vok", 10, 20, 0, 3, "http://log"));
        EXPECT_TRUE(m_pLogger->AddEvent("VOKERR", 10, 20, 0, 3));
        EXPECT_TRUE(m_pLogger->SetEventHeader({"openfail", "E1", "Weather", "5.100"}));
    }

    CLogCapture m_Log{LEVEL_ERROR};  // the level that no setting filters
    std::unique_ptr<CLogger> m_pLogger = CLogger::Create(nullptr);
};

TEST_F(CLocalLoggerTest, FlushWritesACompleteEventOnOneLine) {
    Configure();
    EXPECT_TRUE(m_pLogger->AddEventLog("EV001", "{errtype=E1}", "Fake TV"));
    EXPECT_THAT(LogLines(m_Log), IsEmpty());

    EXPECT_TRUE(m_pLogger->Flush());

    EXPECT_THAT(LogLines(m_Log),
                ElementsAre("0 CLogger::Flush: KPI event service:[15_vok] url:[http://log] "
                            "category:[VOKERR] id:[EV001] event:[openfail] errtype:[E1] "
                            "emp:[Weather] version:[5.100] model:[Fake TV] desc:[{errtype=E1}]"));
}

TEST_F(CLocalLoggerTest, EventsAreWrittenOnceAndInOrder) {
    EXPECT_TRUE(m_pLogger->AddEventLog("EV001", "first", ""));
    EXPECT_TRUE(m_pLogger->AddEventLog("EV002", "second", ""));

    EXPECT_TRUE(m_pLogger->Flush());
    EXPECT_TRUE(m_pLogger->Flush());

    EXPECT_THAT(
        m_Log.Messages(),
        ElementsAre("KPI event service:[] url:[] category:[] id:[EV001] event:[] errtype:[] emp:[] "
                    "version:[] model:[] desc:[first]",
                    "KPI event service:[] url:[] category:[] id:[EV002] event:[] errtype:[] emp:[] "
                    "version:[] model:[] desc:[second]"));
}

TEST_F(CLocalLoggerTest, ControlCharactersAreEscapedWhereverTheyStand) {
    EXPECT_TRUE(m_pLogger->SetServiceConf("a\nb", 0, 0, 0, 0, "\r"));
    EXPECT_TRUE(m_pLogger->AddEvent("\t", 0, 0, 0, 0));
    EXPECT_TRUE(m_pLogger->SetEventHeader({"\x01", "\x1f", "\x7f", std::string(1, '\0')}));
    EXPECT_TRUE(m_pLogger->AddEventLog("\x1b[2J", "\n[VOK] %s%n\\ \xc3\xa4", "\n"));

    EXPECT_TRUE(m_pLogger->Flush());

    EXPECT_THAT(m_Log.Messages(),
                ElementsAre("KPI event service:[a\\x0ab] url:[\\x0d] category:[\\x09] "
                            "id:[\\x1b[2J] event:[\\x01] errtype:[\\x1f] emp:[\\x7f] "
                            "version:[\\x00] model:[\\x0a] "
                            "desc:[\\x0a[VOK] %s%n\\ \xc3\xa4]"));
}

TEST_F(CLocalLoggerTest, EachTextIsCutForItself) {
    EXPECT_TRUE(m_pLogger->SetServiceConf(std::string(512, 'a'), 0, 0, 0, 0, "url"));
    EXPECT_TRUE(m_pLogger->AddEventLog("EV001", std::string(513, 'b'), std::string(513, '\n')));

    EXPECT_TRUE(m_pLogger->Flush());

    std::string strModel;
    for (int i = 0; i < 512; ++i) strModel += "\\x0a";
    EXPECT_THAT(m_Log.Messages(),
                ElementsAre("KPI event service:[" + std::string(512, 'a') +
                            "] url:[url] category:[] id:[EV001] event:[] errtype:[] emp:[] "
                            "version:[] model:[" +
                            strModel + "] desc:[" + std::string(512, 'b') + "]"));
}

TEST_F(CLocalLoggerTest, WhatIsNotFlushedIsNotWritten) {
    Configure();
    EXPECT_TRUE(m_pLogger->AddEventLog("EV001", "text", ""));

    m_pLogger.reset();

    EXPECT_THAT(LogLines(m_Log), IsEmpty());
}

}  // namespace
}  // namespace vok
