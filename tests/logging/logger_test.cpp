// The logger and its writers: the start with its first lines, one message for all writers, the
// guard of a log call, batch mode and the last line, and a steady state without heap allocation.
#include "logging/logger.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <new>
#include <regex>
#include <string>
#include <vector>

#include "logging/recording_writer.h"
#include "logging/writer_files.h"
#include "support/log_capture.h"

// Every C++ allocation of this program comes here (the nothrow and array forms too); those of
// the thread that counts are counted.
static std::atomic<DWORD> countingThread{0};
static std::atomic<long> allocations{0};

void* operator new(size_t size) {
    if (GetCurrentThreadId() == countingThread.load()) ++allocations;
    if (void* block = malloc(size ? size : 1)) return block;
    throw std::bad_alloc();
}

namespace {

RCPtr<RecordingWriter> Attach(const RCPtr<Logger>& logger, int32_t type, int opensToFail = 0) {
    RCPtr<RecordingWriter> writer(new RecordingWriter(type));
    writer->opensLeftToFail = opensToFail;
    EXPECT_TRUE(logger->AttachWriter(writer));
    return writer;
}

TEST(LoggerStart, NeedsOneWriterInServiceThenFormatsEachMessageOnceForAll) {
    RCPtr<Logger> logger = LooseLogger();
    logger->useLocalTime = false;
    RCPtr<RecordingWriter> broken = Attach(logger, 0, 100);
    RCPtr<RecordingWriter> file = Attach(logger, 1, 1);
    EXPECT_FALSE(logger->Start());
    EXPECT_FALSE(logger->started);
    EXPECT_FALSE(file->IsInitialized());
    RCPtr<LogCapture> proxy(new LogCapture);
    ASSERT_TRUE(logger->AttachWriter(proxy));
    RCPtr<RecordingWriter> console = Attach(logger, 4);
    EXPECT_FALSE(logger->AttachWriter(RCPtr<LogWriter>(new RecordingWriter(4)))) << "the type is taken";
    EXPECT_TRUE(logger->Start()) << "the broken writer stays out; the others came up";
    EXPECT_TRUE(logger->started);
    EXPECT_TRUE(logger->Start()) << "a second start is harmless";
    EXPECT_FALSE(logger->AddWriter(3)) << "refused once started";
    EXPECT_EQ(file->opens, 2);
    EXPECT_TRUE(broken->Texts().empty());
    auto texts = file->Texts();
    ASSERT_EQ(texts.size(), 4u) << "the library is this program";
    const std::string head = R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z <[0-9A-F]{4,}> \[[0-9A-F]{4,}\] )";
    const std::string zone = R"(A Time Zone: .*, Local time is \d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}\n)";
    EXPECT_TRUE(std::regex_match(texts[2], std::regex(head + zone))) << texts[2];

    file->Clear();
    console->Clear();
    proxy->ClearLines();
    logger->Write("Test::Once()", LOG_WARN, "value %d\n", 42);
    logger->level = LOG_WARN;
    logger->Write("Test::Once()", LOG_INFO, "below the threshold\n");
    ASSERT_EQ(file->Identities().size(), 1u);
    EXPECT_EQ(file->Identities(), console->Identities()) << "one message for every writer";
    EXPECT_TRUE(std::regex_match(file->Texts()[0], std::regex(head + R"(W Test::Once\(\): value 42\n)")))
        << file->Texts()[0];
    // The proxy writer sees another writer's line: no function, level 0, the line from its date.
    auto lines = proxy->Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].function + std::to_string(lines[0].level) + lines[0].text, "0" + file->Texts()[0]);
    logger->Shutdown();
}

TEST(LogWriterBatchMode, EngagesAtExactlyTheThresholdAndFlushesWithTheCalls) {
    RCPtr<RecordingWriter> writer(new RecordingWriter(1, true));
    writer->logger = LooseLogger();  // its pool and its clock
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

// Logs from inside Write, as a sink's own error lines would.
class ReentrantWriter : public RecordingWriter {
public:
    ReentrantWriter() : RecordingWriter(1) {}
    bool Write(const RCPtr<LogMessage>& message) override {
        RecordingWriter::Write(message);
        Log("Test::Inner()", LOG_ALWAYS, "from inside\n");
        if (logger) logger->Write("Test::Inner()", LOG_ALWAYS, "from inside, by the logger\n");
        return true;
    }
};

TEST(LoggerDispatch, ALogCallFromInsideAWriterIsDropped) {
    RCPtr<Logger> logger = LoggerManager::GetInstance().CreateLogger("Reentrant", "Reentrant", true);
    RCPtr<ReentrantWriter> writer(new ReentrantWriter);
    ASSERT_TRUE(logger->AttachWriter(writer) && logger->Start());
    writer->Clear();
    Log("Test::Outer()", LOG_INFO, "outer\n");
    Log("Test::Outer()", LOG_INFO, "second\n");
    LoggerManager::GetInstance().SetPrimaryLogger(nullptr);
    auto texts = writer->Texts();
    ASSERT_EQ(texts.size(), 2u) << "nothing from inside, and the depth guard is released after each call";
    EXPECT_NE(texts[0].find("outer\n"), std::string::npos);
    EXPECT_NE(texts[1].find("second\n"), std::string::npos);
    logger->Shutdown();
}

// After a warm-up, calls enough to take every message of the pool several times round and to
// fill and drain both queues of a buffered writer again and again.
TEST(LoggerDispatch, SteadyStateLogCallsAllocateNothing) {
    for (bool buffered : {false, true}) {
        RCPtr<Logger> logger =
            LoggerManager::GetInstance().CreateLogger(buffered ? "NoAllocQueued" : "NoAlloc", "NoAlloc", true);
        RCPtr<ProxyWriter> dropping(new ProxyWriter);  // with no function it drops what it gets
        ASSERT_TRUE(logger->AttachWriter(dropping) && logger->Start());
        if (buffered) {
            dropping->SetBuffered(true);
            // The poll item's work is done here, every 250 calls, so the queues peak alike.
            dropping->GetPollItem()->Disable(true);
        }
        auto burst = [&](int calls) {
            for (int i = 0; i < calls; ++i) {
                SY_LOG(LOG_INFO, "Test::Steady()", "call %d of %s with %u\n", i, "a burst", 0xBEEFu);
                if (buffered && i % 250 == 249) dropping->GetPollItem()->Run(true);
            }
        };
        burst(1000);
        allocations = 0;
        countingThread = GetCurrentThreadId();
        burst(3000);
        long during = allocations;
        RCPtr<Logger> proof(new (std::nothrow) Logger("", "", nullptr));  // the counter sees a nothrow new
        countingThread = 0;
        EXPECT_GT(allocations.load(), during);
        EXPECT_EQ(during, 0) << (buffered ? "queued and drained" : "written on the calling thread");
        LoggerManager::GetInstance().SetPrimaryLogger(nullptr);
        logger->Shutdown();
    }
}

}  // namespace
