// The log call surface: the level test at the call site, the error forms, the 1024-byte cut and
// the scope tracer's lines, all through the real log system into a capture.
#include <winsock2.h>
#include <windows.h>
#include <gtest/gtest.h>

#include <atomic>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "logging/function_trace.h"
#include "support/log_capture.h"
#include "support/log_wait.h"

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
    EXPECT_EQ(log->Lines()[0].function, "Test::Sites()");
    EXPECT_STREQ(LogLevelName(8), "UNKNOWN");
    EXPECT_STREQ(LogLevelName(-1), "UNKNOWN");
}

TEST(LogCallSites, ErrorFormsReplaceOneTrailingLineFeedWithTheCodeAndItsOneLineText) {
    ScopedLogCapture log;
    LogError(ERROR_FILE_NOT_FOUND, "Test::Errors()", LOG_ERROR, "Open of %s failed.\n", "x.log");
    SetLastError(ERROR_ACCESS_DENIED);
    LogLastError("Test::Errors()", LOG_ERROR, "Last error.\n\n");
    WSASetLastError(WSAECONNRESET);
    LogSocketError("Test::Errors()", LOG_ERROR, "Socket error.");
    const char* starts[] = {"Open of x.log failed.; (2) ", "Last error.\n; (5) ", "Socket error.; (10054) "};
    auto lines = log->Lines();
    ASSERT_EQ(lines.size(), 3u);
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(lines[i].text.rfind(starts[i], 0), 0u) << lines[i].text;
        EXPECT_GT(lines[i].text.size(), strlen(starts[i]) + 1) << "the system's text follows";
        EXPECT_EQ(lines[i].text.find('\r'), std::string::npos) << "the system's text comes as one line";
    }
}

TEST(LogCallSites, TextBeyondOneMessageIsCutAndADumpEndsInTheNotice) {
    ScopedLogCapture log;
    Log("Test::Long()", LOG_INFO, "%s", std::string(3000, 'q').c_str());
    const uint8_t small[] = {0x41, 0x00};
    LogHex("Test::Hex()", LOG_DEBUG, small, 2);
    std::vector<uint8_t> large(400, 0x5A);
    LogHex("Test::Hex()", LOG_DEBUG, large.data(), static_cast<int32_t>(large.size()));
    auto lines = log->Lines();
    ASSERT_EQ(lines.size(), 3u) << "no second message follows a cut";
    // Header ("@PROXY/3Test::Long()/") and text share one message of 1022 bytes and a line feed.
    EXPECT_EQ(lines[0].text, std::string(1022 - 21, 'q') + "\n");
    EXPECT_EQ(lines[1].text, "0x0000: 41 00 " + std::string(43, ' ') + "A." + std::string(14, ' ') + "\n");
    const std::string notice = "BUFFER TOO SMALL\n";
    ASSERT_GE(lines[2].text.size(), notice.size());
    EXPECT_EQ(lines[2].text.substr(lines[2].text.size() - notice.size()), notice);
}

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
        {"entry text", LOG_INFO, LOG_INFO, "id=7", -1, false, {"I Enter - id=7", "I Exit"}},
        {"exit text at its own level", LOG_DEBUG, LOG_INFO, nullptr, LOG_DEBUG, false, {"I Enter", "D Exit - result 1"}},
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

TEST(FunctionTraceLines, AGivenLoggerIsUsedWithoutThePrimary) {
    ASSERT_EQ(processLogLevel, 0);
    LogCapture* own = nullptr;
    RCPtr<Logger> logger = CaptureLogger("FunctionTraceOwn", &own);
    logger->level = LOG_TRACE;
    {
        FunctionTrace trace(LOG_TRACE, "Test::Own()", logger.Get());
        trace.SetExitText(LOG_TRACE, "done\n");
        FunctionTrace quiet(LOG_VERBOSE, "Test::OwnQuiet()", logger.Get());
    }
    auto lines = own->Lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].text + lines[1].text, "Enter\nExit - done\n");
}

// Logs once from the log's own poll thread, as the writers' items and the folder's scan do.
class PollThreadSpeaker : public SyPollItem {
public:
    PollThreadSpeaker() : SyPollItem("Speaker") {}
    bool Run(bool) override {
        SY_LOG(LOG_INFO, "Test::Poll()", "from the poll thread\n");
        spoke = true;
        return false;
    }
    std::atomic<bool> spoke{false};
};

TEST(LogCapture, HearsEveryThreadButTheLogsPollThreadUnlessAskedFor) {
    for (bool asked : {false, true}) {
        ScopedLogCapture log(LOG_NEVER, asked);
        RCPtr<PollThreadSpeaker> speaker(new PollThreadSpeaker);
        LoggerManager::GetInstance().GetPollThread()->AddItem(speaker.Get(), 0);
        ASSERT_TRUE(WaitUntil([&] { return speaker->spoke.load(); }, 60000));
        std::thread([] { SY_LOG(LOG_INFO, "Test::Other()", "from another thread\n"); }).join();
        EXPECT_EQ(log->Count("from another thread"), 1u);
        EXPECT_EQ(log->Count("from the poll thread"), asked ? 1u : 0u) << asked;
        size_t scheduler = 0;  // the poll thread's own chatter, at level 7
        for (const CapturedLine& line : log->Lines()) scheduler += line.function == "SyPollThread::Scheduler()";
        EXPECT_EQ(scheduler > 0, asked);
    }
}

}  // namespace
