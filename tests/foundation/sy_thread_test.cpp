#include "foundation/sy_thread.h"

#include <gtest/gtest.h>

#include <atomic>

#include "support/log_capture.h"
#include "support/log_wait.h"

namespace {

struct Counter {
    std::atomic<int> calls{0};
    int stopAfter = 3;
    std::atomic<bool> sawNullOwner{false};
};

bool CountTo(void* user, SyThread* thread) {
    auto* c = static_cast<Counter*>(user);
    if (!thread) c->sawNullOwner = true;
    return ++c->calls < c->stopAfter;
}

TEST(SyThreadRuns, CallbackRunsBackToBackUntilItSaysStop) {
    Counter counter;
    counter.stopAfter = 50;
    SyThread thread("counter");
    ASSERT_TRUE(thread.Start(CountTo, &counter, 0, false));
    EXPECT_FALSE(thread.Start(CountTo, &counter, 0, false)) << "a thread exists";
    ASSERT_TRUE(thread.WaitForStop(5000));
    EXPECT_EQ(counter.calls, 50);
    counter.calls = 0;
    counter.stopAfter = 2;
    ASSERT_TRUE(thread.Start(CountTo, &counter, 0, false)) << "a joined thread starts again";
    ASSERT_TRUE(thread.WaitForStop(5000));
    EXPECT_EQ(counter.calls, 2) << "the stale stop event didn't end the new run";

    // Stop ends the wait between calls.
    counter.calls = 0;
    counter.stopAfter = 1000000;
    ASSERT_TRUE(thread.Start(CountTo, &counter, kInfinite, false));
    EXPECT_TRUE(thread.Stop(5000));
    EXPECT_EQ(counter.calls, 1);
}

struct SelfCheck {
    bool waitResult = true, stopResult = true, terminateResult = true;
};

bool CheckSelf(void* user, SyThread* thread) {
    auto* s = static_cast<SelfCheck*>(user);
    s->waitResult = thread->WaitForStop(1000);
    s->stopResult = thread->Stop(1000);
    s->terminateResult = thread->Terminate(1);
    return true;
}

TEST(SyThreadRuns, AThreadCantWaitForOrKillItself) {
    SelfCheck check;
    SyThread thread("self");
    ASSERT_TRUE(thread.Start(CheckSelf, &check, kInfinite, false));
    ASSERT_TRUE(thread.WaitForStop(5000)) << "Stop from inside set the stop event";
    EXPECT_FALSE(check.waitResult);
    EXPECT_FALSE(check.stopResult);
    EXPECT_FALSE(check.terminateResult);
}

TEST(SyThreadRuns, DestroyedWhileWaitingMakesOneLastCallWithoutOwner) {
    ScopedLogCapture log(LOG_INFO);
    // A deletion during a call ends the thread after that call; only one in the wait between
    // calls brings the last call. The rare deletion that still lands in the first call is retried.
    for (int attempt = 0; attempt < 5; ++attempt) {
        Counter counter;
        counter.stopAfter = 1000000;
        auto* thread = new SyThread("orphan");
        ASSERT_TRUE(thread->Start(CountTo, &counter, 200, false));
        ASSERT_TRUE(WaitUntil([&] { return counter.calls > 0; }, 10000));
        delete thread;
        ASSERT_TRUE(WaitForLog(*log, "Thread orphan was deleted", 10000, attempt + 1));
        if (counter.calls == 1) continue;
        EXPECT_EQ(counter.calls, 2);
        EXPECT_TRUE(counter.sawNullOwner);
        return;
    }
    FAIL() << "every deletion landed in the first call";
}

}  // namespace
