#include "logging/function_trace.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <regex>

#include "support/log_capture.h"

namespace {

TEST(FunctionTraceLines, EnterAndExitAtTheTraceLevel) {
    ScopedLogCapture log(LOG_INFO);
    { FunctionTrace trace(LOG_INFO, "Test::Plain()"); }
    { FunctionTrace trace(LOG_INFO, "Test::WithText()", nullptr, "id=%d", 7); }
    auto lines = log->Lines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0].text, "Enter\n");
    EXPECT_EQ(lines[0].function, "Test::Plain()");
    EXPECT_EQ(lines[0].level, LOG_INFO);
    EXPECT_EQ(lines[1].text, "Exit\n");
    EXPECT_EQ(lines[2].text, "Enter - id=7\n") << "every message ends in a line feed";
    EXPECT_EQ(lines[3].text, "Exit\n");
}

TEST(FunctionTraceLines, ExitTextAndElapsedTime) {
    ScopedLogCapture log(LOG_DEBUG);
    {
        FunctionTrace trace(LOG_INFO, "Test::Exit()");
        trace.SetExitText(LOG_DEBUG, "\"%s\"\n", "fido2");
    }
    {
        FunctionTrace trace(LOG_INFO, "Test::Timed()");
        trace.showElapsed = true;
        Sleep(5);
    }
    {
        FunctionTrace trace(LOG_INFO, "Test::TimedText()");
        trace.showElapsed = true;
        trace.SetExitText(LOG_WARN, "result %d\n", 1);
    }
    auto lines = log->Lines();
    ASSERT_EQ(lines.size(), 6u);
    EXPECT_EQ(lines[1].text, "Exit - \"fido2\"\n");
    EXPECT_EQ(lines[1].level, LOG_DEBUG);
    EXPECT_TRUE(std::regex_match(lines[3].text, std::regex("Exit\\(\\d+ms\\)\n"))) << lines[3].text;
    EXPECT_EQ(lines[3].level, LOG_INFO);
    EXPECT_TRUE(std::regex_match(lines[5].text, std::regex("Exit\\(\\d+ms\\) - result 1\n"))) << lines[5].text;
    EXPECT_EQ(lines[5].level, LOG_WARN);
}

TEST(FunctionTraceLines, BelowThresholdOnlyAPassingExitTextIsWrittenBare) {
    ScopedLogCapture log(LOG_INFO);
    {
        FunctionTrace trace(LOG_DEBUG, "Test::Quiet()");
        trace.SetExitText(LOG_WARN, "bare %s\n", "text");
    }
    {
        FunctionTrace trace(LOG_DEBUG, "Test::Silent()");
        trace.SetExitText(LOG_DEBUG, "never seen\n");
    }
    { FunctionTrace trace(LOG_DEBUG, "Test::Nothing()"); }
    auto lines = log->Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].text, "bare text\n");
    EXPECT_EQ(lines[0].level, LOG_WARN);
    EXPECT_EQ(lines[0].function, "Test::Quiet()");
}

TEST(FunctionTraceLines, GivenLoggerIsUsedWithoutThePrimary) {
    ASSERT_EQ(processLogLevel, 0);
    LogCapture* own = nullptr;
    RCPtr<Logger> logger = CaptureLogger("FunctionTraceOwn", &own);
    logger->level = LOG_TRACE;
    {
        FunctionTrace trace(LOG_TRACE, "Test::Own()", logger.Get());
        trace.SetExitText(LOG_TRACE, "done\n");
    }
    {
        FunctionTrace trace(LOG_VERBOSE, "Test::OwnQuiet()", logger.Get());
    }
    auto lines = own->Lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].text, "Enter\n");
    EXPECT_EQ(lines[1].text, "Exit - done\n");
}

TEST(FunctionTraceLines, NoLogNoLines) {
    ASSERT_EQ(LoggerManager::GetInstance().GetPrimaryLogger().Get(), nullptr);
    FunctionTrace trace(LOG_ALWAYS, "Test::Nowhere()");
    trace.SetExitText(LOG_ALWAYS, "x\n");
}

}  // namespace
