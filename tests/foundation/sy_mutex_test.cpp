#include "foundation/sy_mutex.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <string>
#include <thread>
#include <vector>

#include "foundation/sy_event.h"
#include "foundation/sy_timer.h"
#include "support/log_capture.h"

namespace {

constexpr uint32_t kGuardMs = 10000;

std::string HolderText(uint32_t thread) {
    char text[32];
    snprintf(text, sizeof(text), "thread 0x%04x", thread);
    return text;
}

// The lines of the lock itself: other threads of the process (the log's own poll thread among
// them) may log while a capture is open.
std::vector<CapturedLine> MutexLines(const ScopedLogCapture& log) {
    std::vector<CapturedLine> own;
    for (const CapturedLine& line : log->Lines()) {
        if (line.function == "SyMutex::Acquire()") own.push_back(line);
    }
    return own;
}

bool OtherThreadCanTake(SyMutex& mutex) {
    bool taken = false;
    std::thread other([&] {
        taken = mutex.Acquire(0);
        if (taken) mutex.Release();
    });
    other.join();
    return taken;
}

TEST(SyMutexDepth, RecursiveHoldsGuardsAndUnwindAtEveryDepth) {
    SyMutex mutex;
    const uint32_t self = GetCurrentThreadId();
    for (int depth = 0; depth <= 3; ++depth) {
        SCOPED_TRACE(depth);
        for (int i = 0; i < depth; ++i) ASSERT_TRUE(mutex.Acquire());
        EXPECT_EQ(mutex.GetDepth(), depth);
        {
            SyMutexUnwind unwind(&mutex);
            EXPECT_EQ(unwind.Depth(), depth);
            EXPECT_EQ(mutex.GetDepth(), 0);
            EXPECT_TRUE(OtherThreadCanTake(mutex));
        }
        EXPECT_EQ(mutex.GetDepth(), depth);
        EXPECT_EQ(OtherThreadCanTake(mutex), depth == 0);
        if (depth > 0) {
            EXPECT_EQ(mutex.GetHolder(), self);
        }
        for (int i = 0; i < depth; ++i) ASSERT_TRUE(mutex.Release());
    }
    EXPECT_EQ(mutex.GetHolder(), self) << "the holder stays for the log after release";
    EXPECT_FALSE(mutex.Release()) << "releasing a mutex this thread does not own fails";
    EXPECT_EQ(mutex.GetDepth(), 0);

    // A lock that another thread holds is left alone by an unwind.
    SyEvent held(true, false), done(true, false);
    std::thread holder([&] {
        mutex.Acquire();
        mutex.Acquire();
        held.Set();
        done.Wait(kInfinite);
        mutex.Release();
        mutex.Release();
    });
    ASSERT_EQ(held.Wait(kGuardMs), 0);
    {
        SyMutexUnwind unwind(&mutex);
        EXPECT_EQ(unwind.Depth(), 0);
        EXPECT_EQ(mutex.GetDepth(), 2);
    }
    EXPECT_EQ(mutex.GetDepth(), 2);
    done.Set();
    holder.join();
    EXPECT_TRUE(OtherThreadCanTake(mutex));
}

TEST(SyMutexFailures, AbandonedLocksAndLongWaitsAreLoggedOnce) {
    ScopedLogCapture log(LOG_VERBOSE);
    SyMutex mutex;
    uint32_t ended = 0;
    std::thread quitter([&] {
        mutex.Acquire();
        mutex.Acquire();  // depth 2 when the thread ends
        ended = GetCurrentThreadId();
    });
    quitter.join();
    ASSERT_TRUE(mutex.Acquire());
    EXPECT_EQ(mutex.GetDepth(), 1) << "depth restarts from the abandoned state";
    EXPECT_EQ(mutex.GetHolder(), GetCurrentThreadId());
    mutex.Release();
    std::vector<CapturedLine> lines = MutexLines(log);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, LOG_WARN);
    EXPECT_EQ(lines[0].text.find("Acquired abandoned lock 0x"), 0u) << lines[0].text;
    EXPECT_NE(lines[0].text.find("previously held by " + HolderText(ended)), std::string::npos) << lines[0].text;

    // A long wait warns once, and goes on waiting: the owner lets go only after the warning and
    // several more warning intervals.
    log->ClearLines();
    const uint32_t saved = SyMutex::GetDeadlockWarningMs();
    SyMutex::SetDeadlockWarningMs(30);
    SyEvent held(true, false), never(true, false);
    uint32_t ownerId = 0;
    std::thread owner([&] {
        mutex.Acquire();
        ownerId = GetCurrentThreadId();
        held.Set();
        SyElapsedTimer patience;
        while (log->Count("Possible deadlock") == 0 && patience.ElapsedMs() < kGuardMs) never.Wait(5);
        never.Wait(150);
        mutex.Release();
    });
    ASSERT_EQ(held.Wait(kGuardMs), 0);
    EXPECT_TRUE(mutex.Acquire());
    owner.join();
    SyMutex::SetDeadlockWarningMs(saved);
    mutex.Release();
    EXPECT_EQ(log->Count("Possible deadlock trying to acquire lock 0x"), 1u);
    EXPECT_EQ(log->Count("held by " + HolderText(ownerId)), 1u);
}

}  // namespace
