#include "foundation/sy_timer.h"

#include <gtest/gtest.h>
#include <windows.h>

namespace {

// A timer on a clock the test moves by hand; 1000 ticks a second.
class ManualTimer : public SyTimer {
public:
    ManualTimer() { Elapsed(TimerOp::Start); }
    int64_t GetTicks() override { return clock; }
    int64_t GetFrequency() override { return 1000; }
    int64_t clock = 5000;
};

TEST(SyTimerOps, ElapsedReportsTimeBeforeTheOperation) {
    ManualTimer t;
    t.clock += 250;
    EXPECT_EQ(t.Elapsed(), 250);
    EXPECT_EQ(t.Elapsed(TimerOp::Reset), 250) << "one call reads and restarts";
    EXPECT_EQ(t.Elapsed(), 0);
    t.clock += 40;
    EXPECT_EQ(t.Elapsed(TimerOp::Query, t.clock + 60), 100) << "a given now is used instead of the clock";
    EXPECT_EQ(t.Elapsed(TimerOp::Start), 40);
    EXPECT_EQ(t.Elapsed(), 0);
}

TEST(SyTimerOps, PausedTimerHoldsItsValueAndPauseDoesNotCount) {
    ManualTimer t;
    t.clock += 100;
    EXPECT_EQ(t.Elapsed(TimerOp::Pause), 100);
    EXPECT_TRUE(t.IsPaused());
    t.clock += 1000;
    EXPECT_EQ(t.Elapsed(), 100);
    EXPECT_EQ(t.Elapsed(TimerOp::Pause), 100) << "pausing twice changes nothing";
    t.clock += 1000;
    EXPECT_EQ(t.Elapsed(TimerOp::Resume), 100);
    EXPECT_FALSE(t.IsPaused());
    t.clock += 30;
    EXPECT_EQ(t.Elapsed(), 130);
    EXPECT_EQ(t.Elapsed(TimerOp::Resume), 130) << "resuming a running timer changes nothing";
}

TEST(SyTimerOps, ResetWhilePausedStaysPausedAtZero) {
    ManualTimer t;
    t.clock += 100;
    t.Elapsed(TimerOp::Pause);
    t.clock += 50;
    EXPECT_EQ(t.Elapsed(TimerOp::Reset), 100);
    EXPECT_TRUE(t.IsPaused());
    t.clock += 500;
    EXPECT_EQ(t.Elapsed(), 0);
    t.Elapsed(TimerOp::Resume);
    t.clock += 7;
    EXPECT_EQ(t.Elapsed(), 7);
}

TEST(SyTimerOps, StartPausedWaitsForResume) {
    ManualTimer t;
    t.clock += 100;
    EXPECT_EQ(t.Elapsed(TimerOp::StartPaused), 100);
    t.clock += 100;
    EXPECT_EQ(t.Elapsed(), 0);
    t.Elapsed(TimerOp::Resume);
    t.clock += 20;
    EXPECT_EQ(t.Elapsed(), 20);
}

TEST(SyTimerOps, MillisecondsRoundToNearestAndSecondsDivide) {
    class Fine : public SyTimer {
    public:
        Fine() { Elapsed(TimerOp::Start); }
        int64_t GetTicks() override { return clock; }
        int64_t GetFrequency() override { return 10000; }
        int64_t clock = 1;
    } t;
    t.clock += 14;  // 1.4 ms
    EXPECT_EQ(t.ElapsedMs(), 1);
    t.clock += 1;  // 1.5 ms
    EXPECT_EQ(t.ElapsedMs(), 2);
    t.clock += 19985;  // 2.0 s
    EXPECT_DOUBLE_EQ(t.ElapsedSeconds(), 2.0);
}

TEST(SyElapsedTimerClock, PerformanceCounterAdvances) {
    SyElapsedTimer t;
    EXPECT_GT(t.GetFrequency(), 0);
    const int64_t first = t.GetTicks();
    int64_t later = first;
    for (int i = 0; i < 100000000 && later == first; ++i) later = t.GetTicks();
    EXPECT_GT(later, first) << "the counter moves, and only forward";
}

}  // namespace
