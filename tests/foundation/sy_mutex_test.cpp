#include "foundation/sy_mutex.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <thread>

#include "foundation/sy_timer.h"
#include "support/log_capture.h"
#include "sysutil/string_utils.h"

namespace {

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
    EXPECT_EQ(log->Count("Acquired abandoned lock 0x"), 1u);
    EXPECT_EQ(log->Count(StringUtils::FormatString("previously held by thread 0x%04x", ended)), 1u);

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
        while (log->Count("Possible deadlock") == 0 && patience.ElapsedMs() < 10000) never.Wait(5);
        never.Wait(150);
        mutex.Release();
    });
    ASSERT_EQ(held.Wait(10000), 0);
    EXPECT_TRUE(mutex.Acquire());
    owner.join();
    SyMutex::SetDeadlockWarningMs(saved);
    mutex.Release();
    EXPECT_EQ(log->Count("Possible deadlock trying to acquire lock 0x"), 1u);
    EXPECT_EQ(log->Count(StringUtils::FormatString("held by thread 0x%04x", ownerId)), 1u);
}

}  // namespace
