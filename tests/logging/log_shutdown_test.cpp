// The whole log system before its start and after its end, in a process of its own: a
// shutdown of everything can't be undone.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "logging/every_log_call.h"
#include "logging/logger.h"
#include "logging/recording_writer.h"

namespace {

TEST(LogSystemLifecycle, SilentBeforeTheStartAndAfterShutdownAllWhichGoesInOrder) {
    LoggerManager& manager = LoggerManager::GetInstance();
    ASSERT_EQ(manager.GetPrimaryLogger().Get(), nullptr);
    LogAtEveryLevelEveryWay();  // nothing to reach, nothing to fault

    // A primary logger that is made but not started takes nothing either.
    RCPtr<Logger> first = manager.CreateLogger("First", "first", true);
    ASSERT_TRUE(first);
    first->level = LOG_NEVER;
    RCPtr<RecordingWriter> firstWriter(new RecordingWriter(1, true));
    ASSERT_TRUE(first->AttachWriter(firstWriter));
    EXPECT_EQ(processLogLevel, 0);
    LogAtEveryLevelEveryWay();
    EXPECT_TRUE(firstWriter->Texts().empty());

    EXPECT_FALSE(manager.CreateLogger("", "nameless", false));
    EXPECT_FALSE(manager.CreateLogger("First", "again", false)) << "the name is taken";
    RCPtr<Logger> second = manager.CreateLogger("Second", "second", false);
    RCPtr<RecordingWriter> secondWriter(new RecordingWriter(4));
    ASSERT_TRUE(second->AttachWriter(secondWriter));
    ASSERT_TRUE(first->Start());
    ASSERT_TRUE(second->Start());
    EXPECT_EQ(processLogLevel, LOG_NEVER) << "the primary's threshold once it runs";
    EXPECT_EQ(manager.GetLogger("Second").Get(), second.Get());

    Log("Test::Queued()", LOG_INFO, "still queued at the end\n");
    ASSERT_TRUE(manager.GetPollThread()->IsSchedulerRunning());
    manager.ShutdownAll();

    EXPECT_TRUE(manager.IsShuttingDown());
    EXPECT_EQ(manager.GetPrimaryLogger().Get(), nullptr);
    EXPECT_EQ(manager.GetLogger("First").Get(), nullptr);
    EXPECT_EQ(manager.GetLogger("Second").Get(), nullptr);
    EXPECT_EQ(processLogLevel, 0);
    EXPECT_FALSE(manager.GetMessageManager());
    for (const auto& writer : {firstWriter, secondWriter}) {
        auto texts = writer->Texts();
        ASSERT_FALSE(texts.empty());
        EXPECT_NE(texts.back().find(" A Logger Shutdown: *** LOG FILE COMPLETE ***\n"), std::string::npos)
            << texts.back();
        EXPECT_FALSE(writer->IsInitialized());
        EXPECT_EQ(writer->closes, 1);
    }
    auto firstTexts = firstWriter->Texts();
    size_t queued = 0;
    while (queued < firstTexts.size() && firstTexts[queued].find("still queued at the end\n") == std::string::npos) {
        ++queued;
    }
    EXPECT_LT(queued + 1, firstTexts.size()) << "the queue is written before the last line";

    size_t firstCount = firstWriter->Texts().size();
    size_t secondCount = secondWriter->Texts().size();
    LogAtEveryLevelEveryWay();
    first->Write("Test::Held()", LOG_ALWAYS, "through a logger that someone still holds\n");
    EXPECT_EQ(firstWriter->Texts().size(), firstCount);
    EXPECT_EQ(secondWriter->Texts().size(), secondCount);
}

}  // namespace
