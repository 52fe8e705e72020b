#include <winsock2.h>
#include <windows.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "logging/every_log_call.h"
#include "logging/log.h"
#include "logging/logger.h"
#include "support/log_capture.h"

namespace {

int evaluations = 0;
int Counted() { return ++evaluations; }

TEST(LogCallSites, NothingHappensWithoutAPrimaryLogger) {
    ASSERT_EQ(LoggerManager::GetInstance().GetPrimaryLogger().Get(), nullptr);
    EXPECT_EQ(processLogLevel, 0);
    LogAtEveryLevelEveryWay();
    // Attaching and detaching again leaves the process as before.
    {
        ScopedLogCapture log(LOG_DEBUG);
        EXPECT_EQ(processLogLevel, LOG_DEBUG);
    }
    EXPECT_EQ(processLogLevel, 0);
    Log("Test::Nothing()", LOG_ALWAYS, "after detach\n");
}

TEST(LogCallSites, DisabledStatementEvaluatesNoArgument) {
    ScopedLogCapture log(LOG_INFO);
    evaluations = 0;
    SY_LOG(LOG_DEBUG, "Test::Sites()", "%d\n", Counted());
    SY_LOG_ERROR(static_cast<uint32_t>(Counted()), LOG_TRACE, "Test::Sites()", "%d\n", Counted());
    EXPECT_EQ(evaluations, 0);
    EXPECT_TRUE(log->Lines().empty());
    SY_LOG(LOG_INFO, "Test::Sites()", "%d\n", Counted());
    EXPECT_EQ(evaluations, 1);
    auto lines = log->Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].function, "Test::Sites()");
    EXPECT_EQ(lines[0].level, LOG_INFO);
    EXPECT_EQ(lines[0].text, "1\n");
}

TEST(LogCallSites, LoggerTestsTheLevelAgainForDirectCalls) {
    ScopedLogCapture log(LOG_WARN);
    Log("Test::Direct()", LOG_INFO, "dropped\n");
    Log("Test::Direct()", LOG_WARN, "kept\n");
    Log("Test::Direct()", LOG_ALWAYS, "always\n");
    auto lines = log->Lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].text, "kept\n");
    EXPECT_EQ(lines[1].text, "always\n");
}

TEST(LogErrorCalls, ErrorTextReplacesOneTrailingLineFeed) {
    ScopedLogCapture log;
    LogError(ERROR_FILE_NOT_FOUND, "Test::Errors()", LOG_ERROR, "Open of %s failed.\n", "x.log");
    SetLastError(ERROR_ACCESS_DENIED);
    LogLastError("Test::Errors()", LOG_ERROR, "Last error.\n\n");
    WSASetLastError(WSAECONNRESET);
    LogSocketError("Test::Errors()", LOG_ERROR, "Socket error.");
    auto lines = log->Lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].text.rfind("Open of x.log failed.; (2) ", 0), 0u) << lines[0].text;
    EXPECT_EQ(lines[1].text.rfind("Last error.\n; (5) ", 0), 0u) << "only one line feed goes: " << lines[1].text;
    EXPECT_EQ(lines[2].text.rfind("Socket error.; (10054) ", 0), 0u) << lines[2].text;
    for (const auto& line : lines) {
        EXPECT_EQ(line.text.find('\r'), std::string::npos) << "system text comes as one line";
    }
}

TEST(LogCallSites, LongTextIsCutToOneMessage) {
    ScopedLogCapture log;
    std::string big(3000, 'q');
    Log("Test::Long()", LOG_INFO, "%s", big.c_str());
    auto lines = log->Lines();
    ASSERT_EQ(lines.size(), 1u);
    // Header and text share one message of 1022 bytes and a line feed.
    const size_t header = std::string("@PROXY/3Test::Long()/").size();
    EXPECT_EQ(lines[0].text, std::string(1022 - header, 'q') + "\n");
}

TEST(LogHexCalls, DumpIsOneMessageAndEndsInTheNoticeWhenTooLong) {
    ScopedLogCapture log;
    const uint8_t small[] = {0x41, 0x00};
    LogHex("Test::Hex()", LOG_DEBUG, small, 2);
    std::vector<uint8_t> large(400, 0x5A);
    LogHex("Test::Hex()", LOG_DEBUG, large.data(), static_cast<int32_t>(large.size()));
    auto lines = log->Lines();
    ASSERT_EQ(lines.size(), 2u) << "no second message follows a cut dump";
    EXPECT_EQ(lines[0].text.rfind("0x0000: 41 00 ", 0), 0u) << lines[0].text;
    const std::string notice = "BUFFER TOO SMALL\n";
    ASSERT_GE(lines[1].text.size(), notice.size());
    EXPECT_EQ(lines[1].text.substr(lines[1].text.size() - notice.size()), notice);
}

TEST(LogLevels, NamesAndLetters) {
    const char* names[] = {"ALWAYS", "ERROR", "WARN", "INFO", "DEBUG", "TRACE", "VERBOSE", "NEVER"};
    for (int level = 0; level < 8; ++level) {
        EXPECT_STREQ(LogLevelName(level), names[level]);
        EXPECT_EQ(LogLevelLetter(level), "AEWIDTVN"[level]);
    }
    EXPECT_STREQ(LogLevelName(8), "UNKNOWN");
    EXPECT_STREQ(LogLevelName(-1), "UNKNOWN");
}

}  // namespace
