// The logger front end: writers and readers, the start with its first lines, one message for
// all writers, the guards of a log call, and a steady state without heap allocation.
#include "logging/logger.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "logging/heap_counter.h"
#include "logging/recording_writer.h"
#include "support/log_capture.h"

namespace {

RCPtr<Logger> LooseLogger() {
    return RCPtr<Logger>(new Logger("loose", "loose", RCPtr<LogMessageManager>(new LogMessageManager)));
}

RCPtr<RecordingWriter> Attach(const RCPtr<Logger>& logger, int32_t type, bool buffered = false) {
    RCPtr<RecordingWriter> writer(new RecordingWriter(type, buffered));
    EXPECT_TRUE(logger->AttachWriter(writer));
    return writer;
}

TEST(LoggerWriters, OneOfEachTypeInTheTableAndOnlyBeforeTheStart) {
    RCPtr<Logger> logger = LooseLogger();
    struct Row {
        const char* what;
        int32_t type;
        bool created;
    };
    const Row rows[] = {
        {"proxy writer", 2, true},
        {"a second of the same type", 2, false},
        {"type below the table", -1, false},
        {"type above the table", 6, false},
        {"debug writer", 0, true},
        {"file writer", 1, true},
        {"socket writer", 3, true},
    };
    for (const Row& row : rows) {
        RCPtr<LogWriter> writer = logger->AddWriter(row.type);
        EXPECT_EQ(static_cast<bool>(writer), row.created) << row.what;
        if (writer) {
            EXPECT_EQ(writer->logger.Get(), logger.Get()) << row.what;
            EXPECT_EQ(logger->GetWriter(row.type).Get(), writer.Get()) << row.what;
        }
    }
    EXPECT_FALSE(logger->AttachWriter(RCPtr<LogWriter>(new RecordingWriter(2)))) << "the type is taken";
    Attach(logger, 4);
    // Only the recording writer is to come up: the others have no place to write to.
    for (int32_t type : {0, 1, 3}) logger->writers.erase(type);
    ASSERT_TRUE(logger->Start());
    EXPECT_FALSE(logger->AddWriter(3)) << "refused once started";
    EXPECT_FALSE(logger->AttachWriter(RCPtr<LogWriter>(new RecordingWriter(5)))) << "refused once started";
    EXPECT_FALSE(logger->creatingWriters);
    logger->Shutdown();
}

TEST(LoggerReaders, RootInFrontForTheTwoHivesOnly) {
    RCPtr<Logger> logger = LooseLogger();
    EXPECT_FALSE(logger->AddRegistryReader("", HKEY_LOCAL_MACHINE));
    EXPECT_FALSE(logger->AddRegistryReader("Software\\X", HKEY_CLASSES_ROOT));
    EXPECT_FALSE(logger->AddRegistryReader("Software\\X", HKEY_USERS));
    EXPECT_TRUE(logger->AddRegistryReader("Software\\Orvane, Inc.\\Orvane TBXService\\Plugins\\fido2", HKEY_LOCAL_MACHINE));
    EXPECT_TRUE(logger->AddRegistryReader("Software\\Second", HKEY_CURRENT_USER));
    ASSERT_EQ(logger->readers.size(), 2u);
    EXPECT_EQ(logger->readers.front()->GetName(), std::string("RegistryReader"));
    EXPECT_EQ(logger->readers.front()->GetLocation("logLevel"),
              "HKLM\\Software\\Orvane, Inc.\\Orvane TBXService\\Plugins\\fido2\\logLevel");
    EXPECT_EQ(logger->readers.back()->GetLocation("logLevel"), "HKCU\\Software\\Second\\logLevel");
}

TEST(LoggerStart, NoWriterInServiceLeavesTheLoggerStoppedAndStartCanComeAgain) {
    RCPtr<Logger> logger = LooseLogger();
    RCPtr<RecordingWriter> writer = Attach(logger, 1);
    writer->opensLeftToFail = 1;
    EXPECT_FALSE(logger->Start());
    EXPECT_FALSE(logger->started);
    EXPECT_FALSE(writer->IsInitialized());
    logger->Write("Test::Early()", LOG_ALWAYS, "not started\n");
    EXPECT_TRUE(writer->Texts().empty());
    EXPECT_TRUE(logger->Start());
    EXPECT_TRUE(logger->started);
    EXPECT_EQ(writer->opens, 2);
    EXPECT_TRUE(logger->Start()) << "a started logger says so";
    EXPECT_EQ(writer->opens, 2);
    logger->Shutdown();
}

TEST(LoggerStart, OneWriterFailingLeavesTheOthersInService) {
    RCPtr<Logger> logger = LooseLogger();
    RCPtr<RecordingWriter> broken = Attach(logger, 0);
    RCPtr<RecordingWriter> working = Attach(logger, 4);
    broken->opensLeftToFail = 100;
    ASSERT_TRUE(logger->Start());
    working->Clear();
    logger->Write("Test::Two()", LOG_INFO, "to the one that came up\n");
    EXPECT_TRUE(broken->Texts().empty());
    ASSERT_EQ(working->Texts().size(), 1u);
    logger->Shutdown();
}

TEST(LoggerStart, FirstLinesTellModuleSystemTimeZoneAndLevel) {
    const std::string key = "Software\\Orvane, Inc.\\Orvane TBXService\\Plugins\\fido2";
    struct Row {
        bool useLocalTime;
        const char* otherClock;  // the clock that the lines don't use
    };
    const Row rows[] = {
        {true, R"(UTC time is \d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z)"},
        {false, R"(Local time is \d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3})"},
    };
    for (const Row& row : rows) {
        RCPtr<Logger> logger = LooseLogger();
        logger->useLocalTime = row.useLocalTime;
        ASSERT_TRUE(logger->AddRegistryReader(key, HKEY_LOCAL_MACHINE));
        RCPtr<RecordingWriter> writer = Attach(logger, 1);
        ASSERT_TRUE(logger->Start());
        auto texts = writer->Texts();
        // In a test program the library's path is the program's path: four lines, not five.
        ASSERT_EQ(texts.size(), 4u);
        const std::string head = row.useLocalTime ? R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} <[0-9A-F]{4,}> \[[0-9A-F]{4,}\] A )"
                                                  : R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z <[0-9A-F]{4,}> \[[0-9A-F]{4,}\] A )";
        char path[MAX_PATH];
        GetModuleFileNameA(nullptr, path, MAX_PATH);
        std::string quoted = std::regex_replace(std::string(path), std::regex(R"([\\.()\[\]+^$|{}*?])"), R"(\$&)");
        EXPECT_TRUE(std::regex_match(texts[0], std::regex(head + quoted +
                                                          R"(: (version=.+|No version information.*), buildtype=release/x64\n)")))
            << texts[0];
        EXPECT_TRUE(std::regex_match(texts[1], std::regex(head + R"(OS Version: \S.*, 64-bit, sessionId=\d+\n)")))
            << texts[1];
        EXPECT_TRUE(std::regex_match(texts[2], std::regex(head + R"(Time Zone: .*, )" + row.otherClock + "\n")))
            << texts[2];
        EXPECT_TRUE(std::regex_match(texts[3], std::regex(head + R"(Log Level: INFO \(read from HKLM\\Software\\Orvane, Inc\.\\Orvane TBXService\\Plugins\\fido2\\logLevel\)\n)")))
            << texts[3];
        logger->Shutdown();
    }
}

TEST(LoggerDispatch, FormattedOnceByTheFirstWriterInServiceAndSharedByAll) {
    RCPtr<Logger> logger = LooseLogger();
    RCPtr<RecordingWriter> down = Attach(logger, 0);
    down->opensLeftToFail = 100;
    RCPtr<RecordingWriter> file = Attach(logger, 1);
    RCPtr<LogWriter> proxyBase = logger->AttachWriter(RCPtr<LogWriter>(new LogCapture));
    auto* proxy = static_cast<LogCapture*>(proxyBase.Get());
    RCPtr<RecordingWriter> console = Attach(logger, 4);
    ASSERT_TRUE(logger->Start());
    file->Clear();
    console->Clear();
    proxy->ClearLines();

    logger->Write("Test::Once()", LOG_WARN, "value %d\n", 42);
    ASSERT_EQ(file->Identities().size(), 1u);
    EXPECT_EQ(file->Identities(), console->Identities()) << "one message for every writer";
    EXPECT_TRUE(std::regex_match(file->Texts()[0], std::regex(R"(.* W Test::Once\(\): value 42\n)"))) << file->Texts()[0];
    // The proxy writer sees another writer's line: no function, level 0, the line from its date.
    auto lines = proxy->Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].function, "");
    EXPECT_EQ(lines[0].level, LOG_ALWAYS);
    EXPECT_EQ(lines[0].text, file->Texts()[0]);

    logger->level = LOG_WARN;
    logger->Write("Test::Once()", LOG_INFO, "below the threshold\n");
    EXPECT_EQ(file->Texts().size(), 1u);
    logger->Shutdown();
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
    RCPtr<Logger> logger = LoggerManager::GetInstance().CreateLogger("Reentrant", "Reentrant", false);
    ASSERT_TRUE(logger);
    RCPtr<ReentrantWriter> writer(new ReentrantWriter);
    ASSERT_TRUE(logger->AttachWriter(writer));
    ASSERT_TRUE(logger->Start());
    writer->Clear();
    LoggerManager::GetInstance().SetPrimaryLogger(logger);
    Log("Test::Outer()", LOG_INFO, "outer\n");
    Log("Test::Outer()", LOG_INFO, "second\n");
    LoggerManager::GetInstance().SetPrimaryLogger(nullptr);
    auto texts = writer->Texts();
    ASSERT_EQ(texts.size(), 2u) << "the depth guard is released after each call";
    EXPECT_NE(texts[0].find("outer\n"), std::string::npos);
    EXPECT_NE(texts[1].find("second\n"), std::string::npos);
    EXPECT_EQ(logCallDepth.load(), 0);
}

TEST(LoggerDispatch, SteadyStateLogCallsAllocateNothing) {
    struct Row {
        const char* what;
        bool buffered;
    };
    const Row rows[] = {{"written on the calling thread", false}, {"queued and drained", true}};
    for (const Row& row : rows) {
        RCPtr<Logger> logger = LoggerManager::GetInstance().CreateLogger(row.buffered ? "NoAllocQueued" : "NoAlloc",
                                                                          "NoAlloc", true);
        ASSERT_TRUE(logger);
        RCPtr<ProxyWriter> dropping(new ProxyWriter);  // with no function it drops what it gets
        ASSERT_TRUE(logger->AttachWriter(dropping));
        ASSERT_TRUE(logger->Start());
        if (row.buffered) {
            dropping->SetBuffered(true);
            // The poll item's work is done below on this thread, every 1000 calls, so that the
            // queue peaks at the same length in both bursts.
            dropping->GetPollItem()->Disable(true);
        }
        ASSERT_EQ(processLogLevel, LOG_INFO);

        auto burst = [&](int calls) {
            for (int i = 0; i < calls; ++i) {
                SY_LOG(LOG_INFO, "Test::Steady()", "call %d of %s with %u\n", i, "a burst", 0xBEEFu);
                if (row.buffered && i % 1000 == 999) dropping->GetPollItem()->Run(true);
            }
        };
        burst(10000);  // warm-up: the pool and the queues reach their size
        HeapCounter counter;
        ASSERT_TRUE(counter.Hooked());
        burst(100000);
        long during = counter.Count();
        std::string proof(200, 'x');  // the counter itself sees an allocation
        EXPECT_GT(counter.Count(), during);
        EXPECT_EQ(during, 0) << row.what;
        LoggerManager::GetInstance().SetPrimaryLogger(nullptr);
        logger->Shutdown();
    }
}

}  // namespace
