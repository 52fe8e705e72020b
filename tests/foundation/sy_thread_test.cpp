#include "foundation/sy_thread.h"

#include <gtest/gtest.h>

#include <atomic>

namespace {

struct Counter {
    std::atomic<int> calls{0};
    int stopAfter = 3;
};

bool CountTo(void* user, SyThread* thread) {
    auto* c = static_cast<Counter*>(user);
    // A thread can't kill itself: the attempt fails and the calls go on.
    if (thread->Terminate(1)) return false;
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

}  // namespace
