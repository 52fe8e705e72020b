#include "foundation/sy_timer.h"

#include <gtest/gtest.h>

namespace {

// A timer on a clock the test moves by hand, at the given ticks a second.
class ManualTimer : public SyTimer {
public:
    explicit ManualTimer(int64_t ticksPerSecond = 1000) : frequency(ticksPerSecond) { Elapsed(TimerOp::Start); }
    int64_t GetTicks() override { return clock; }
    int64_t GetFrequency() override { return frequency; }
    int64_t clock = 5000;
    int64_t frequency;
};

TEST(SyTimerOps, EachOperationReportsTheTimeBeforeIt) {
    struct Step {
        int64_t advance;
        TimerOp op;
        int64_t expected;
        bool pausedAfter;
        const char* what;
    } steps[] = {
        {250, TimerOp::Query, 250, false, "running"},
        {0, TimerOp::Reset, 250, false, "one call reads and restarts"},
        {0, TimerOp::Query, 0, false, "restarted"},
        {100, TimerOp::Pause, 100, true, "pause"},
        {1000, TimerOp::Query, 100, true, "a paused timer holds its value"},
        {0, TimerOp::Pause, 100, true, "pausing twice changes nothing"},
        {1000, TimerOp::Resume, 100, false, "the pause doesn't count"},
        {30, TimerOp::Query, 130, false, "running again"},
        {0, TimerOp::Resume, 130, false, "resuming a running timer changes nothing"},
        {0, TimerOp::Pause, 130, true, "paused again"},
        {50, TimerOp::Reset, 130, true, "a reset while paused stays paused"},
        {500, TimerOp::Query, 0, true, "at zero"},
        {0, TimerOp::Resume, 0, false, "resumed from zero"},
        {7, TimerOp::Query, 7, false, "counts from the resume"},
        {40, TimerOp::Start, 47, false, "start restarts"},
        {100, TimerOp::StartPaused, 100, true, "start paused"},
        {100, TimerOp::Query, 0, true, "waits for a resume"},
        {0, TimerOp::Resume, 0, false, "resumed"},
        {20, TimerOp::Query, 20, false, "counts from the resume"},
    };
    ManualTimer t;
    for (const Step& step : steps) {
        t.clock += step.advance;
        EXPECT_EQ(t.Elapsed(step.op), step.expected) << step.what;
        EXPECT_EQ(t.IsPaused(), step.pausedAfter) << step.what;
    }
    t.clock += 40;
    EXPECT_EQ(t.Elapsed(TimerOp::Query, t.clock + 60), 120) << "a given now is used instead of the clock";
}

TEST(SyTimerOps, MillisecondsRoundToNearestAndSecondsDivide) {
    ManualTimer t(10000);
    t.clock += 14;  // 1.4 ms
    EXPECT_EQ(t.ElapsedMs(), 1);
    t.clock += 1;  // 1.5 ms
    EXPECT_EQ(t.ElapsedMs(), 2);
    t.clock += 19985;  // 2.0 s
    EXPECT_DOUBLE_EQ(t.ElapsedSeconds(), 2.0);
}

}  // namespace
