// The message pool: the text a message keeps, the pool's own lines in front of the next
// message, growth by blocks, recycling and the release of idle blocks.
#include "logging/log_message.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "support/log_capture.h"

namespace {

// A pool of its own, so that what a test holds and counts is what it made.
RCPtr<LogMessageCache> FreshCache() { return RCPtr<LogMessageCache>(new LogMessageCache); }

RCPtr<LogMessage> Take(LogMessageCache* cache, const std::string& text) {
    RCPtr<LogMessage> message(cache->NewMessage());
    message->Set(LOG_INFO, text.c_str(), static_cast<int32_t>(text.size()));
    return message;
}

std::string TextOf(const RCPtr<LogMessage>& message) { return std::string(message->text, message->length); }

// Sets processLogLevel for a scope, for the pool's own lines, which test it.
class ScopedProcessLevel {
public:
    explicit ScopedProcessLevel(int32_t level) : saved(processLogLevel) { processLogLevel = level; }
    ~ScopedProcessLevel() { processLogLevel = saved; }

private:
    int32_t saved;
};

TEST(LogMessageText, KeepsAtMost1022BytesAndAlwaysEndsInALineFeed) {
    struct Row {
        const char* what;
        std::string in;
        int32_t length;  // -1: up to the terminator
        std::string out;
    };
    const std::string a1021(1021, 'a');
    const Row rows[] = {
        {"empty", "", -1, "\n"},
        {"a line", "abc\n", -1, "abc\n"},
        {"no line feed", "abc", -1, "abc\n"},
        {"length shorter than the text", "abcdef", 3, "abc\n"},
        {"1021 bytes", a1021, -1, a1021 + "\n"},
        {"1022 bytes ending in a line feed", a1021 + "\n", -1, a1021 + "\n"},
        {"1022 bytes", a1021 + "b", -1, a1021 + "b\n"},
        {"1023 bytes lose their tail", a1021 + "bc", -1, a1021 + "b\n"},
        {"3000 bytes", std::string(3000, 'z'), -1, std::string(1022, 'z') + "\n"},
    };
    RCPtr<LogMessageCache> cache = FreshCache();
    for (const Row& row : rows) {
        RCPtr<LogMessage> message(cache->NewMessage());
        message->Set(LOG_WARN, row.in.c_str(), row.length);
        EXPECT_EQ(TextOf(message), row.out) << row.what;
        EXPECT_EQ(message->text[message->length], '\0') << row.what;
        EXPECT_EQ(message->level, LOG_WARN) << row.what;
    }
}

// A pending line of exactly this many bytes, line feed included.
void AddPendingOfLength(LogMessageCache* cache, int32_t bytes) {
    RCPtr<LogMessageCache> probe = FreshCache();
    probe->AddPendingLine("Pool::Test()", LOG_ALWAYS, "%s", "");
    int32_t header = probe->PendingLength() - 1;
    std::string text(static_cast<size_t>(bytes - header - 1), 'p');
    cache->AddPendingLine("Pool::Test()", LOG_ALWAYS, "%s", text.c_str());
    ASSERT_EQ(cache->PendingLength(), bytes);
}

TEST(LogMessagePendingLines, GoInFrontOnlyWhenTheMessageLeavesRoom) {
    struct Row {
        const char* what;
        int32_t pending;
        int32_t message;
        int32_t frontBytes;  // of the pending text in front, line feed included; 0: it waits
    };
    const Row rows[] = {
        {"room of 21 for 100: waits", 100, 1000, 0},
        {"room of 621 for 600: all of it", 600, 400, 600},
        {"room of 121 for 600: waits", 600, 900, 0},
        {"room exactly the pending length", 100, 921, 100},
        {"room one short of it: waits", 100, 922, 0},
        {"room above 511 but short: cut to the room, line feed added", 1000, 300, 722},
    };
    for (const Row& row : rows) {
        RCPtr<LogMessageCache> cache = FreshCache();
        AddPendingOfLength(cache.Get(), row.pending);
        std::string own(static_cast<size_t>(row.message - 1), 'm');
        own += "\n";
        RCPtr<LogMessage> message = Take(cache.Get(), own);
        std::string text = TextOf(message);
        if (row.frontBytes == 0) {
            EXPECT_EQ(text, own) << row.what;
            EXPECT_EQ(cache->PendingLength(), row.pending) << row.what << ": the lines wait for the next message";
            RCPtr<LogMessage> shortOne = Take(cache.Get(), "short\n");
            EXPECT_EQ(TextOf(shortOne).size(), static_cast<size_t>(row.pending) + 6) << row.what;
            EXPECT_EQ(TextOf(shortOne).substr(static_cast<size_t>(row.pending)), "short\n") << row.what;
        } else {
            ASSERT_GE(text.size(), static_cast<size_t>(row.frontBytes)) << row.what;
            std::string front = text.substr(0, static_cast<size_t>(row.frontBytes));
            EXPECT_TRUE(std::regex_match(front, std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} <[0-9A-F]{4,}> )"
                                                           R"(\[[0-9A-F]{4,}\] A Pool::Test\(\): p+\n)")))
                << row.what << ": " << front.substr(0, 80);
            EXPECT_EQ(text.substr(static_cast<size_t>(row.frontBytes)), own.substr(0, 1022 - row.frontBytes) +
                                                                           (row.frontBytes + row.message > 1022 ? "\n" : ""))
                << row.what;
            EXPECT_LE(text.size(), 1023u);
            EXPECT_EQ(cache->PendingLength(), 0) << row.what;
        }
    }
}

TEST(LogMessagePendingLines, FullBufferTakesNoMoreAndLowLevelsAreNotKept) {
    RCPtr<LogMessageCache> cache = FreshCache();
    cache->AddPendingLine("Pool::Test()", LOG_INFO, "above the process level\n");
    EXPECT_EQ(cache->PendingLength(), 0) << "processLogLevel 0 keeps only level 0";
    AddPendingOfLength(cache.Get(), 1000);
    cache->AddPendingLine("Pool::Test()", LOG_ALWAYS, "%s", std::string(100, 'x').c_str());
    EXPECT_EQ(cache->PendingLength(), 1023) << "filled up to the last byte";
    cache->AddPendingLine("Pool::Test()", LOG_ALWAYS, "more\n");
    EXPECT_EQ(cache->PendingLength(), 1023) << "a full buffer drops the line";
}

TEST(LogMessagePool, FirstBlockReportsItsSizeOnlyAtVerbose) {
    const std::regex sizeLine(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} <[0-9A-F]{4,}> \[[0-9A-F]{4,}\] )"
                              R"(V LogMessageCache::NewMessage\(\): Log message cache size is 100\nown\n)");
    {
        ScopedProcessLevel level(LOG_TRACE);
        RCPtr<LogMessageCache> cache = FreshCache();
        EXPECT_EQ(TextOf(Take(cache.Get(), "own\n")), "own\n");
    }
    {
        ScopedProcessLevel level(LOG_VERBOSE);
        RCPtr<LogMessageCache> cache = FreshCache();
        std::string text = TextOf(Take(cache.Get(), "own\n"));
        EXPECT_TRUE(std::regex_match(text, sizeLine)) << text;
        EXPECT_EQ(TextOf(Take(cache.Get(), "next\n")), "next\n") << "the line is told once";
    }
}

TEST(LogMessagePool, TheHundredAndFirstHeldMessageGrowsTheSecondBlockAndTheTimer) {
    ScopedProcessLevel level(LOG_TRACE);
    RCPtr<LogMessageCache> cache = FreshCache();
    std::vector<RCPtr<LogMessage>> held;
    for (int i = 0; i < 100; ++i) held.push_back(Take(cache.Get(), "held\n"));
    EXPECT_EQ(cache->BlockCount(), 1);
    EXPECT_EQ(cache->FreeCount(), 0);
    EXPECT_FALSE(cache->HasReleaseTimer());
    RCPtr<LogMessage> extra = Take(cache.Get(), "extra\n");
    EXPECT_EQ(cache->BlockCount(), 2);
    EXPECT_EQ(cache->FreeCount(), 99);
    EXPECT_TRUE(cache->HasReleaseTimer());
    std::string text = TextOf(extra);
    EXPECT_TRUE(std::regex_match(text, std::regex(R"(.* T LogMessageCache::NewMessage\(\): )"
                                                  R"(Log message cache size is 200\nextra\n)")))
        << text;
    EXPECT_NE(extra->block.Get(), held[0]->block.Get());
}

TEST(LogMessagePool, AMessageGoesBackOnlyWhenItsLastHolderLetsGoAndIsUsedAgain) {
    RCPtr<LogMessageCache> cache = FreshCache();
    RCPtr<LogMessage> first = Take(cache.Get(), "shared\n");
    const LogMessage* address = first.Get();
    RCPtr<LogMessage> second = first;  // a second writer's queue
    EXPECT_EQ(cache->FreeCount(), 99);
    first = nullptr;
    EXPECT_EQ(cache->FreeCount(), 99) << "still held by the second";
    EXPECT_NE(address->block.Get(), nullptr);
    second = nullptr;
    EXPECT_EQ(cache->FreeCount(), 100);
    EXPECT_EQ(address->block.Get(), nullptr) << "a free message doesn't keep its block";
    // The oldest free message is used next: the one given back goes to the tail.
    std::vector<const LogMessage*> order;
    std::vector<RCPtr<LogMessage>> all;
    for (int i = 0; i < 100; ++i) {
        all.push_back(Take(cache.Get(), "again\n"));
        order.push_back(all.back().Get());
    }
    EXPECT_EQ(order.back(), address);
    EXPECT_EQ(cache->BlockCount(), 1) << "100 messages fit the block that was there";
}

void Age(LogMessageBlock* block, double seconds) {
    SyElapsedTimer& idle = block->idleTimer;
    int64_t now = idle.GetTicks();
    idle.Elapsed(TimerOp::Start, now - static_cast<int64_t>(seconds * static_cast<double>(idle.GetFrequency())));
}

TEST(LogMessagePool, AnIdleSurplusBlockGoesAfterTenMinutesAndTheLastOneStays) {
    ScopedLogCapture log(LOG_TRACE);
    RCPtr<LogMessageCache> cache = FreshCache();
    std::vector<RCPtr<LogMessage>> held;
    for (int i = 0; i < 150; ++i) held.push_back(Take(cache.Get(), "burst\n"));
    RCPtr<LogMessageBlock> firstBlock = held.front()->block;
    RCPtr<LogMessageBlock> secondBlock = held.back()->block;
    ASSERT_NE(firstBlock.Get(), secondBlock.Get());
    held.clear();
    ASSERT_EQ(cache->BlockCount(), 2);

    Age(firstBlock.Get(), 599);
    Age(secondBlock.Get(), 599);
    cache->OnBlockReleaseTimer();
    EXPECT_EQ(cache->BlockCount(), 2) << "not idle for ten minutes yet";

    Age(firstBlock.Get(), 601);
    Age(secondBlock.Get(), 601);
    cache->OnBlockReleaseTimer();
    EXPECT_EQ(cache->BlockCount(), 1) << "one block per timer event";
    cache->OnBlockReleaseTimer();
    EXPECT_EQ(cache->BlockCount(), 1) << "the last block is never given back";
    EXPECT_EQ(cache->FreeCount(), 100);

    auto lines = log->Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].function, "LogMessageCache::OnBlockReleaseTimer()");
    EXPECT_EQ(lines[0].level, LOG_TRACE);
    EXPECT_EQ(lines[0].text, "Log message cache size is 100\n");
}

}  // namespace
