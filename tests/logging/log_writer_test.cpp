// The writer core: the line header, the queues and their hand-over, dropped counts, batch
// mode and the last line.
#include "logging/log_writer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "logging/logger.h"
#include "logging/recording_writer.h"
#include "logging/writer_files.h"

namespace {

// A writer under test on a logger of its own, which gives it its pool and its clock.
RCPtr<RecordingWriter> LooseWriter(bool buffered) {
    RCPtr<RecordingWriter> writer(new RecordingWriter(1, buffered));
    writer->logger = LooseLogger();
    return writer;
}

std::string Header(LogWriter* writer, const char* function, int32_t level) {
    char buffer[kLogMessageBytes];
    int length = writer->FormatHeader(buffer, sizeof(buffer), function, level);
    EXPECT_EQ(length, static_cast<int>(strlen(buffer)));
    return buffer;
}

TEST(LogWriterHeader, TimeIdsLetterFunctionAndASeparatorAfterAChangeOfThread) {
    RCPtr<RecordingWriter> writer = LooseWriter(false);
    char ids[64];
    snprintf(ids, sizeof(ids), " <%04X> \\[%04X\\] ", static_cast<unsigned>(GetCurrentThreadId()),
             static_cast<unsigned>(GetCurrentProcessId()));
    const std::string date = R"(\d{4}-(0[1-9]|1[0-2])-[0-3]\d)", clock = R"([0-2]\d:[0-5]\d:[0-5]\d\.\d{3})";
    const std::string separator(39, '-');

    std::string local = Header(writer.Get(), "Fido2Logger::Start()", LOG_INFO);
    EXPECT_TRUE(std::regex_match(local, std::regex(date + " " + clock + ids + R"(I Fido2Logger::Start\(\): )"))) << local;
    EXPECT_EQ(Header(writer.Get(), "", LOG_INFO), std::string(local.size(), ' ')) << "a continuation";
    writer->logger->useLocalTime = false;
    std::string utc = Header(writer.Get(), "Test::Utc()", LOG_VERBOSE);
    EXPECT_TRUE(std::regex_match(utc, std::regex(date + "T" + clock + "Z" + ids + R"(V Test::Utc\(\): )"))) << utc;
    writer->logger = nullptr;
    std::string alone = Header(writer.Get(), "Test::NoLogger()", LOG_ALWAYS);
    EXPECT_TRUE(std::regex_match(alone, std::regex(date + " " + clock + ids + R"(A Test::NoLogger\(\): )"))) << alone;

    std::string other;
    std::thread([&] { other = Header(writer.Get(), "Test::Other()", LOG_WARN); }).join();
    ASSERT_EQ(other.compare(0, 40, separator + "\n"), 0) << other;
    EXPECT_EQ(Header(writer.Get(), nullptr, LOG_INFO), std::string(other.size() - 40, ' '))
        << "a continuation lines up with the header line, not with the separator";
    EXPECT_EQ(Header(writer.Get(), "Test::Back()", LOG_INFO).compare(0, 39, separator), 0) << "back is a change too";
    EXPECT_NE(Header(writer.Get(), "Test::Again()", LOG_INFO).compare(0, 39, separator), 0);
}

TEST(LogWriterQueues, UnbufferedWritesAtOnceBufferedAtThePollItemRefusedAreCountedAndTold) {
    RCPtr<RecordingWriter> direct = LooseWriter(false);
    EXPECT_TRUE(EnqueueText(direct.Get(), "now\n"));
    EXPECT_EQ(direct->Texts(), std::vector<std::string>{"now\n"});
    EXPECT_EQ(direct->WriterThreads(), std::vector<uint32_t>{static_cast<uint32_t>(GetCurrentThreadId())});

    RCPtr<RecordingWriter> queued = LooseWriter(true);
    EXPECT_TRUE(EnqueueText(queued.Get(), "one\n") && EnqueueText(queued.Get(), "two\n"));
    EXPECT_TRUE(queued->Texts().empty());
    int32_t before = queued->ActiveQueue();
    queued->GetPollItem()->Run(true);
    EXPECT_EQ(queued->Texts(), (std::vector<std::string>{"one\n", "two\n"}));
    EXPECT_NE(queued->ActiveQueue(), before) << "the run swaps the queues";

    EXPECT_TRUE(EnqueueText(queued.Get(), "before\n"));
    queued->SetEnabled(false);
    EXPECT_EQ(queued->Texts().back(), "before\n") << "turning off writes what was queued";
    for (int i = 0; i < 3; ++i) EXPECT_FALSE(EnqueueText(queued.Get(), "refused\n"));
    EXPECT_EQ(queued->Dropped(queued->ActiveQueue()), 3);
    queued->GetPollItem()->Run(true);
    queued->SetEnabled(true);
    EXPECT_EQ(queued->Texts().size(), 3u) << "the count is told only with a flush that has messages";
    EXPECT_TRUE(EnqueueText(queued.Get(), "after\n"));
    queued->GetPollItem()->Run(true);
    EXPECT_EQ(queued->Texts(), (std::vector<std::string>{"one\n", "two\n", "before\n", "after\n",
                                                         "\n******* Dropped 3 messages *******\n\n"}));
}

TEST(LogWriterBatchMode, EngagesAtExactlyTheThresholdAndFlushesWithTheCalls) {
    RCPtr<RecordingWriter> writer = LooseWriter(true);
    const std::string banner = "\n***** BATCH MODE ENABLED *****\n\n";
    int next = 0;
    auto enqueue = [&](int count) {
        for (int i = 0; i < count; ++i) EnqueueText(writer.Get(), "m" + std::to_string(next++));
    };
    enqueue(14999);
    EXPECT_FALSE(writer->IsBatchMode());
    enqueue(1);
    EXPECT_TRUE(writer->IsBatchMode());
    EXPECT_EQ(writer->Texts(), std::vector<std::string>{banner}) << "written ahead of the queued messages";
    enqueue(99);
    EXPECT_EQ(writer->Texts().size(), 1u);
    enqueue(1);  // the queue stands at 15100, a multiple of 100: up to 200 go
    auto texts = writer->Texts();
    ASSERT_EQ(texts.size(), 201u);
    EXPECT_EQ(texts[1] + texts[200], "m0\nm199\n");
    EXPECT_EQ(writer->QueueLength(writer->ActiveQueue()), 14900u);
    writer->batchIntervalMs = 0;  // the interval has passed at the next call: up to 100 go
    enqueue(1);
    EXPECT_EQ(writer->Texts().size(), 301u);
    EXPECT_EQ(writer->Texts().back(), "m299\n");

    writer->Shutdown();
    texts = writer->Texts();
    ASSERT_EQ(texts.size(), 1u + 15101u + 1u) << "everything queued, then the last line";
    EXPECT_EQ(texts[texts.size() - 2], "m15100\n");
    EXPECT_TRUE(std::regex_match(texts.back(), std::regex(R"(.* A Logger Shutdown: \*\*\* LOG FILE COMPLETE \*\*\*\n)")));
    EXPECT_EQ(std::count(texts.begin(), texts.end(), banner), 1);
    EXPECT_EQ(writer->closes, 1);
    EXPECT_FALSE(EnqueueText(writer.Get(), "late\n")) << "a stopped writer takes nothing";
}

}  // namespace
