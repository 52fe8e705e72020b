// The log call surface and the scope tracer's lines, through the real log system into a capture.
#include <winsock2.h>
#include <windows.h>
#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "logging/function_trace.h"
#include "support/log_capture.h"

namespace {

int evaluations = 0;
int Counted() { return ++evaluations; }

// "<letter> <text>" of each captured line, without its line feed.
std::vector<std::string> Lettered(const ScopedLogCapture& log) {
    std::vector<std::string> out;
    for (const CapturedLine& line : log->Lines()) {
        out.push_back(std::string(1, LogLevelLetter(line.level)) + " " + line.text.substr(0, line.text.size() - 1));
    }
    return out;
}

TEST(LogCallSites, ADisabledStatementEvaluatesNoArgumentAndTheLoggerTestsTheLevelAgain) {
    ScopedLogCapture log(LOG_INFO);
    evaluations = 0;
    SY_LOG(LOG_DEBUG, "Test::Sites()", "%d\n", Counted());
    SY_LOG_HEX(LOG_DEBUG, "Test::Sites()", "x", Counted());
    SY_LOG_LAST_ERROR(LOG_TRACE, "Test::Sites()", "%d\n", Counted());
    SY_LOG_SOCKET_ERROR(LOG_VERBOSE, "Test::Sites()", "%d\n", Counted());
    SY_LOG_ERROR(static_cast<uint32_t>(Counted()), LOG_NEVER, "Test::Sites()", "%d\n", Counted());
    EXPECT_EQ(evaluations, 0);
    SY_LOG(LOG_INFO, "Test::Sites()", "%d\n", Counted());
    Log("Test::Direct()", LOG_DEBUG, "a direct call below the threshold\n");
    Log("Test::Direct()", LOG_ALWAYS, "always\n");
    EXPECT_EQ(Lettered(log), (std::vector<std::string>{"I 1", "A always"}));
}

// Error forms replace one trailing line feed with the code and the system's text as one line;
// text beyond one message is cut and a dump that doesn't fit ends in the notice.
TEST(LogCallSites, ErrorFormsAndTheCutOfALongText) {
    ScopedLogCapture log;
    LogError(ERROR_FILE_NOT_FOUND, "Test::Errors()", LOG_ERROR, "Open of %s failed.\n", "x.log");
    SetLastError(ERROR_ACCESS_DENIED);
    LogLastError("Test::Errors()", LOG_ERROR, "Last error.\n\n");
    WSASetLastError(WSAECONNRESET);
    LogSocketError("Test::Errors()", LOG_ERROR, "Socket error.");
    Log("Test::Long()", LOG_INFO, "%s", std::string(3000, 'q').c_str());
    LogHex("Test::Hex()", LOG_DEBUG, std::string(400, 'Z').data(), 400);
    auto lines = log->Lines();
    ASSERT_EQ(lines.size(), 5u) << "no second message follows a cut";
    const char* starts[] = {"Open of x.log failed.; (2) ", "Last error.\n; (5) ", "Socket error.; (10054) "};
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(lines[i].text.rfind(starts[i], 0), 0u) << lines[i].text;
        EXPECT_GT(lines[i].text.size(), strlen(starts[i]) + 1) << "the system's text follows";
        EXPECT_EQ(lines[i].text.find('\r'), std::string::npos) << lines[i].text;
    }
    // Header ("@PROXY/3Test::Long()/") and text share one message of 1022 bytes and a line feed.
    EXPECT_EQ(lines[3].text, std::string(1022 - 21, 'q') + "\n");
    EXPECT_TRUE(std::regex_match(lines[4].text, std::regex(R"(0x0000: 5A 5A[\s\S]*\nBUFFER TOO SMALL\n)")));
}

// Entry texts and exit texts at a level of their own are the channel's state lines' test.
TEST(FunctionTraceLines, EnterAndExitByTheLevelsOfTraceExitTextAndThreshold) {
    struct Row {
        const char* what;
        int32_t threshold, level;
        const char* entry;      // null: none
        int32_t exitLevel;      // -1: no exit text
        bool elapsed;
        std::vector<std::string> lines;  // patterns of Lettered
    };
    const Row rows[] = {
        {"plain", LOG_INFO, LOG_INFO, nullptr, -1, false, {"I Enter", "I Exit"}},
        {"elapsed time", LOG_INFO, LOG_INFO, nullptr, -1, true, {"I Enter", R"(I Exit\(\d+ms\))"}},
        {"elapsed time and text", LOG_INFO, LOG_INFO, nullptr, LOG_WARN, true, {"I Enter", R"(W Exit\(\d+ms\) - result 1)"}},
        {"trace below the threshold, exit text above: bare", LOG_INFO, LOG_DEBUG, nullptr, LOG_WARN, true, {"W result 1"}},
        {"trace and exit text below the threshold", LOG_INFO, LOG_DEBUG, nullptr, LOG_DEBUG, false, {}},
        {"trace below the threshold", LOG_INFO, LOG_DEBUG, "id=7", -1, false, {}},
    };
    for (const Row& row : rows) {
        ScopedLogCapture log(row.threshold);
        {
            FunctionTrace trace(row.level, "Test::Traced()", nullptr, row.entry);
            trace.showElapsed = row.elapsed;
            if (row.exitLevel >= 0) trace.SetExitText(row.exitLevel, "result %d\n", 1);
        }
        auto lines = Lettered(log);
        ASSERT_EQ(lines.size(), row.lines.size()) << row.what;
        for (size_t i = 0; i < lines.size(); ++i) {
            EXPECT_TRUE(std::regex_match(lines[i], std::regex(row.lines[i]))) << row.what << ": " << lines[i];
            EXPECT_EQ(log->Lines()[i].function, "Test::Traced()") << row.what;
        }
    }
}

}  // namespace
