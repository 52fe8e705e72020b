// The message pool: its own lines in front of the next message, growth by blocks and the
// release of idle blocks. The cut of a message's text is the log calls' test.
#include "logging/log_message.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "support/log_capture.h"

namespace {

RCPtr<LogMessage> Take(LogMessageCache* cache, const std::string& text) {
    RCPtr<LogMessage> message(cache->NewMessage());
    message->Set(LOG_WARN, text.c_str(), static_cast<int32_t>(text.size()));
    return message;
}

std::string TextOf(const RCPtr<LogMessage>& message) { return std::string(message->text, message->length); }

const std::string kPoolHeader = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} <[0-9A-F]{4,}> \[[0-9A-F]{4,}\] )";

TEST(LogMessagePendingLines, GoInFrontOnlyWhenTheMessageLeavesRoom) {
    const struct {
        const char* what;
        int32_t pending, message;
        int32_t frontBytes;  // of the pending text in front, line feed included; 0: it waits
    } rows[] = {
        {"room of 21 for 100: waits", 100, 1000, 0},
        {"room of 621 for 600: all of it", 600, 400, 600},
        {"room exactly the pending length", 100, 921, 100},
        {"room one short of it: waits", 100, 922, 0},
        {"room above 511 but short: cut to the room, line feed added", 1000, 300, 722},
    };
    // The header that a pending line gets in front of its text, line feed included.
    RCPtr<LogMessageCache> probe(new LogMessageCache);
    probe->AddPendingLine("Pool::Test()", LOG_ALWAYS, "%s", "");
    const int32_t header = probe->PendingLength();
    for (const auto& row : rows) {
        RCPtr<LogMessageCache> cache(new LogMessageCache);
        cache->AddPendingLine("Pool::Test()", LOG_ALWAYS, "%s", std::string(row.pending - header, 'p').c_str());
        ASSERT_EQ(cache->PendingLength(), row.pending);
        const std::string own = std::string(row.message - 1, 'm') + "\n";
        std::string text = TextOf(Take(cache.Get(), own));
        if (row.frontBytes == 0) {
            EXPECT_EQ(text, own) << row.what;
            text = TextOf(Take(cache.Get(), "short\n"));
            EXPECT_EQ(text.substr(row.pending), "short\n") << row.what << ": the lines go with the next message";
            continue;
        }
        EXPECT_TRUE(std::regex_match(text.substr(0, row.frontBytes), std::regex(kPoolHeader + R"(A Pool::Test\(\): p+\n)")))
            << row.what << ": " << text.substr(0, 80);
        const bool cut = row.frontBytes + row.message > 1022;
        EXPECT_EQ(text.substr(row.frontBytes), own.substr(0, 1022 - row.frontBytes) + (cut ? "\n" : "")) << row.what;
        EXPECT_EQ(cache->PendingLength(), 0) << row.what;
    }
    // A full buffer takes no more; a line above processLogLevel (0 here) isn't kept at all.
    RCPtr<LogMessageCache> cache(new LogMessageCache);
    cache->AddPendingLine("Pool::Test()", LOG_INFO, "above the process level\n");
    EXPECT_EQ(cache->PendingLength(), 0);
    cache->AddPendingLine("Pool::Test()", LOG_ALWAYS, "%s", std::string(1100, 'x').c_str());
    EXPECT_EQ(cache->PendingLength(), 1023) << "filled up to the last byte";
    cache->AddPendingLine("Pool::Test()", LOG_ALWAYS, "more\n");
    EXPECT_EQ(cache->PendingLength(), 1023);
}

TEST(LogMessagePool, GrowsByBlocksTellsItsSizeAndGivesAnIdleSurplusBlockBack) {
    for (int32_t level : {LOG_TRACE, LOG_VERBOSE}) {
        ScopedLogCapture process(level);  // the pool's own lines test processLogLevel
        RCPtr<LogMessageCache> cache(new LogMessageCache);
        const std::string first = TextOf(Take(cache.Get(), "own\n"));
        // The very first block is told only at VERBOSE.
        const std::string told = kPoolHeader + R"(V LogMessageCache::NewMessage\(\): Log message cache size is 100\n)";
        EXPECT_TRUE(std::regex_match(first, std::regex((level == LOG_TRACE ? "" : told) + "own\n"))) << first;
    }
    ScopedLogCapture log(LOG_TRACE);
    RCPtr<LogMessageCache> cache(new LogMessageCache);
    std::vector<RCPtr<LogMessage>> held;
    for (int i = 0; i < 100; ++i) held.push_back(Take(cache.Get(), "held\n"));
    EXPECT_EQ(cache->BlockCount() * 1000 + cache->FreeCount(), 1000);
    EXPECT_FALSE(cache->HasReleaseTimer());
    held.push_back(Take(cache.Get(), "extra\n"));
    EXPECT_EQ(cache->BlockCount() * 1000 + cache->FreeCount(), 2099);
    EXPECT_TRUE(cache->HasReleaseTimer());
    EXPECT_TRUE(std::regex_match(TextOf(held.back()), std::regex(kPoolHeader +
        R"(T LogMessageCache::NewMessage\(\): Log message cache size is 200\nextra\n)"))) << TextOf(held.back());

    // Given back: a surplus block that has been idle for ten minutes goes, one per timer event.
    RCPtr<LogMessageBlock> blocks[] = {held.front()->block, held.back()->block};
    const LogMessage* given = held.front().Get();
    held.clear();
    EXPECT_EQ(given->block.Get(), nullptr) << "a free message doesn't keep its block";
    auto age = [&](double seconds) {
        for (auto& block : blocks) {
            SyElapsedTimer& idle = block->idleTimer;
            idle.Elapsed(TimerOp::Start, idle.GetTicks() - static_cast<int64_t>(seconds * idle.GetFrequency()));
        }
    };
    age(599);
    cache->OnBlockReleaseTimer();
    EXPECT_EQ(cache->BlockCount(), 2) << "not idle for ten minutes yet";
    age(601);
    cache->OnBlockReleaseTimer();
    cache->OnBlockReleaseTimer();
    EXPECT_EQ(cache->BlockCount(), 1) << "the last block is never given back";
    auto lines = log->Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].function + " " + LogLevelName(lines[0].level) + " " + lines[0].text,
              "LogMessageCache::OnBlockReleaseTimer() TRACE Log message cache size is 100\n");
}

}  // namespace
