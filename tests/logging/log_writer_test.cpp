// The writer core: the line header, the queues and their hand-over, dropped counts, batch
// mode and the last line.
#include "logging/log_writer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "logging/logger.h"
#include "logging/recording_writer.h"

namespace {

// A logger that isn't registered anywhere, as the owner of writers under test: it gives them
// their pool and their time form.
RCPtr<Logger> LooseLogger() {
    return RCPtr<Logger>(new Logger("loose", "loose", RCPtr<LogMessageManager>(new LogMessageManager)));
}

RCPtr<LogMessage> Message(const RCPtr<Logger>& logger, const std::string& text, int32_t level = LOG_INFO) {
    RCPtr<LogMessage> message;
    logger->messageManager->NewMessage(message, level, text.c_str(), -1);
    return message;
}

bool EnqueueLocked(LogWriter* writer, const RCPtr<LogMessage>& message) {
    SyMutexGuard guard(&LogMutex());
    return writer->Enqueue(message);
}

std::string Hex4(uint32_t value) {
    char text[16];
    snprintf(text, sizeof(text), "%04X", value);
    return text;
}

std::string Header(LogWriter* writer, const char* function, int32_t level) {
    char buffer[kLogMessageBytes];
    int length = writer->FormatHeader(buffer, sizeof(buffer), function, level);
    EXPECT_EQ(length, static_cast<int>(strlen(buffer)));
    return buffer;
}

TEST(LogWriterHeader, TimeIdsLetterAndFunctionInTheLoggersClock) {
    RCPtr<Logger> logger = LooseLogger();
    RCPtr<RecordingWriter> writer(new RecordingWriter(1));
    writer->logger = logger;
    const std::string ids = " <" + Hex4(GetCurrentThreadId()) + "> \\[" + Hex4(GetCurrentProcessId()) + "\\] ";
    const std::string date = R"(\d{4}-(0[1-9]|1[0-2])-[0-3]\d)";
    const std::string clock = R"([0-2]\d:[0-5]\d:[0-5]\d\.\d{3})";

    std::string local = Header(writer.Get(), "Fido2Logger::Start()", LOG_INFO);
    EXPECT_TRUE(std::regex_match(local, std::regex(date + " " + clock + ids + R"(I Fido2Logger::Start\(\): )")))
        << local;
    logger->useLocalTime = false;
    std::string utc = Header(writer.Get(), "Test::Utc()", LOG_VERBOSE);
    EXPECT_TRUE(std::regex_match(utc, std::regex(date + "T" + clock + "Z" + ids + R"(V Test::Utc\(\): )"))) << utc;
    writer->logger = nullptr;
    std::string alone = Header(writer.Get(), "Test::NoLogger()", LOG_ALWAYS);
    EXPECT_TRUE(std::regex_match(alone, std::regex(date + " " + clock + ids + R"(A Test::NoLogger\(\): )")))
        << "without a logger the clock is local: " << alone;
}

TEST(LogWriterHeader, SeparatorAfterAChangeOfThreadAndContinuationsUnderTheText) {
    RCPtr<RecordingWriter> writer(new RecordingWriter(1));
    const std::string separator = "---------------------------------------\n";
    std::string first = Header(writer.Get(), "Test::A()", LOG_INFO);
    EXPECT_NE(first.compare(0, 4, "----"), 0) << "the very first line has none";
    EXPECT_EQ(Header(writer.Get(), "", LOG_INFO), std::string(first.size(), ' '));
    EXPECT_EQ(Header(writer.Get(), nullptr, LOG_INFO), std::string(first.size(), ' '));

    std::string other;
    std::thread([&] { other = Header(writer.Get(), "Test::Other()", LOG_WARN); }).join();
    ASSERT_EQ(other.compare(0, separator.size(), separator), 0) << other;
    std::string visible = other.substr(separator.size());
    EXPECT_EQ(Header(writer.Get(), "", LOG_INFO), std::string(visible.size(), ' '))
        << "a continuation lines up with the header line, not with the separator";
    std::string back = Header(writer.Get(), "Test::Back()", LOG_INFO);
    EXPECT_EQ(back.compare(0, separator.size(), separator), 0) << "back on the first thread is a change too";
    std::string again = Header(writer.Get(), "Test::Again()", LOG_INFO);
    EXPECT_NE(again.compare(0, 4, "----"), 0) << again;
}

TEST(LogWriterQueues, UnbufferedWritesAtOnceBufferedWaitsForThePollItem) {
    RCPtr<Logger> logger = LooseLogger();
    RCPtr<RecordingWriter> direct(new RecordingWriter(0));
    RCPtr<RecordingWriter> queued(new RecordingWriter(1, true));
    direct->logger = logger;
    queued->logger = logger;
    EXPECT_TRUE(EnqueueLocked(direct.Get(), Message(logger, "now\n")));
    EXPECT_EQ(direct->Texts(), std::vector<std::string>{"now\n"});
    EXPECT_EQ(direct->WriterThreads(), std::vector<uint32_t>{static_cast<uint32_t>(GetCurrentThreadId())});

    EXPECT_TRUE(EnqueueLocked(queued.Get(), Message(logger, "one\n")));
    EXPECT_TRUE(EnqueueLocked(queued.Get(), Message(logger, "two\n")));
    EXPECT_TRUE(queued->Texts().empty());
    int32_t before = queued->ActiveQueue();
    queued->GetPollItem()->Run(true);
    EXPECT_EQ(queued->Texts(), (std::vector<std::string>{"one\n", "two\n"}));
    EXPECT_NE(queued->ActiveQueue(), before) << "the run swaps the queues";
    EXPECT_TRUE(EnqueueLocked(queued.Get(), Message(logger, "three\n")));
    EXPECT_EQ(queued->QueueLength(queued->ActiveQueue()), 1u);
    queued->GetPollItem()->Run(true);
    EXPECT_EQ(queued->Texts().back(), "three\n");
}

TEST(LogWriterQueues, RefusedMessagesAreCountedAndToldAfterTheNextFlush) {
    RCPtr<Logger> logger = LooseLogger();
    RCPtr<RecordingWriter> writer(new RecordingWriter(1, true));
    writer->logger = logger;
    EXPECT_TRUE(EnqueueLocked(writer.Get(), Message(logger, "before\n")));
    writer->SetEnabled(false);
    EXPECT_EQ(writer->Texts(), std::vector<std::string>{"before\n"}) << "turning off writes what was queued";
    for (int i = 0; i < 3; ++i) EXPECT_FALSE(EnqueueLocked(writer.Get(), Message(logger, "refused\n")));
    EXPECT_EQ(writer->Dropped(writer->ActiveQueue()), 3);
    writer->GetPollItem()->Run(true);
    EXPECT_EQ(writer->Texts().size(), 1u) << "a disabled writer's item writes nothing";

    writer->SetEnabled(true);
    EXPECT_EQ(writer->Texts().size(), 1u) << "the count is told only with a flush that has messages";
    EXPECT_TRUE(EnqueueLocked(writer.Get(), Message(logger, "after\n")));
    writer->GetPollItem()->Run(true);
    EXPECT_EQ(writer->Texts(), (std::vector<std::string>{"before\n", "after\n",
                                                         "\n******* Dropped 3 messages *******\n\n"}));
    EXPECT_EQ(writer->Dropped(0) + writer->Dropped(1), 0);
}

TEST(LogWriterBatchMode, EngagesAtExactlyTheThresholdAndFlushesWithTheCalls) {
    RCPtr<Logger> logger = LooseLogger();
    RCPtr<RecordingWriter> writer(new RecordingWriter(1, true));
    writer->logger = logger;
    const std::string banner = "\n***** BATCH MODE ENABLED *****\n\n";
    ASSERT_EQ(writer->batchThreshold, 15000u);
    int next = 0;
    auto enqueue = [&](int count) {
        for (int i = 0; i < count; ++i) EnqueueLocked(writer.Get(), Message(logger, "m" + std::to_string(next++)));
    };
    enqueue(14999);
    EXPECT_FALSE(writer->IsBatchMode());
    EXPECT_TRUE(writer->Texts().empty());
    enqueue(1);
    EXPECT_TRUE(writer->IsBatchMode());
    EXPECT_EQ(writer->Texts(), std::vector<std::string>{banner}) << "written ahead of the queued messages";
    EXPECT_EQ(writer->QueueLength(writer->ActiveQueue()), 15000u);

    enqueue(99);
    EXPECT_EQ(writer->Texts().size(), 1u);
    enqueue(1);  // the queue stands at 15100, a multiple of 100
    auto texts = writer->Texts();
    ASSERT_EQ(texts.size(), 201u);
    EXPECT_EQ(texts[1], "m0\n");
    EXPECT_EQ(texts[200], "m199\n");
    EXPECT_EQ(writer->QueueLength(writer->ActiveQueue()), 14900u);

    writer->batchIntervalMs = 0;  // the interval has passed at the next call
    enqueue(1);
    EXPECT_EQ(writer->Texts().size(), 301u);
    EXPECT_EQ(writer->Texts().back(), "m299\n");

    writer->Shutdown();
    texts = writer->Texts();
    ASSERT_EQ(texts.size(), 1u + 15101u + 1u) << "everything queued, then the last line";
    EXPECT_EQ(texts[texts.size() - 2], "m15100\n");
    EXPECT_TRUE(std::regex_match(texts.back(), std::regex(R"(.* A Logger Shutdown: \*\*\* LOG FILE COMPLETE \*\*\*\n)")))
        << texts.back();
    size_t banners = 0;
    for (const auto& text : texts) banners += text == banner ? 1 : 0;
    EXPECT_EQ(banners, 1u);
    EXPECT_EQ(writer->closes, 1);
    EXPECT_FALSE(EnqueueLocked(writer.Get(), Message(logger, "late\n"))) << "a stopped writer takes nothing";
    EXPECT_EQ(writer->badLengths, 0);
}

TEST(LogWriterBatchMode, FourThreadsEveryMessageWrittenOrCounted) {
    RCPtr<Logger> logger = LoggerManager::GetInstance().CreateLogger("FourThreads", "FourThreads", false);
    ASSERT_TRUE(logger);
    RCPtr<RecordingWriter> writer(new RecordingWriter(1, true));
    writer->batchThreshold = 500;  // the poll thread runs once a second: the callers overtake it
    ASSERT_TRUE(logger->AttachWriter(writer));
    ASSERT_TRUE(logger->Start());
    writer->Clear();

    const int kThreads = 4;
    const int kEach = 5000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kEach; ++i) {
                // Thread 0 turns the writer off and on again while the others go on.
                if (t == 0 && i == 500) writer->SetEnabled(false);
                if (t == 0 && i == 1500) writer->SetEnabled(true);
                logger->Write("Test::Storm()", LOG_INFO, "t%d m%d\n", t, i);
            }
        });
    }
    for (auto& thread : threads) thread.join();
    logger->Shutdown();

    // After a change of thread the line starts with the separator line.
    const std::regex line(R"((-{39}\n)?[^\n]* I Test::Storm\(\): t(\d) m(\d+)\n)");
    const std::regex droppedLine(R"(\n\*{7} Dropped (\d+) messages \*{7}\n\n)");
    long written = 0;
    long dropped = 0;
    std::vector<int> lastSeen(kThreads, -1);
    bool inOrder = true;
    for (const auto& text : writer->Texts()) {
        std::smatch match;
        if (std::regex_match(text, match, line)) {
            ++written;
            int t = std::stoi(match[2]);
            int i = std::stoi(match[3]);
            if (i <= lastSeen[t]) inOrder = false;
            lastSeen[t] = i;
        } else if (std::regex_match(text, match, droppedLine)) {
            dropped += std::stol(match[1]);
        }
    }
    EXPECT_EQ(written + dropped, static_cast<long>(kThreads) * kEach) << written << " written, " << dropped << " dropped";
    EXPECT_GT(dropped, 0) << "thread 0 turned the writer off for a while";
    EXPECT_TRUE(inOrder) << "each thread's lines in the order of its calls";
    EXPECT_TRUE(writer->IsBatchMode());
    EXPECT_EQ(writer->badLengths, 0);
}

}  // namespace
