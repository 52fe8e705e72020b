#include "foundation/sy_timer.h"

#include <gtest/gtest.h>

namespace {

// A timer on a clock the test moves by hand, at 10000 ticks a second.
class ManualTimer : public SyTimer {
public:
    ManualTimer() { Elapsed(TimerOp::Start); }
    int64_t GetTicks() override { return clock; }
    int64_t GetFrequency() override { return 10000; }
    int64_t clock = 50000;
};

TEST(SyTimerOps, EachOperationReportsTheTimeBeforeIt) {
    struct Step {
        int64_t advance;
        TimerOp op;
        int64_t expectedMs;
        bool pausedAfter;
        const char* what;
    } steps[] = {
        {2500, TimerOp::Reset, 250, false, "one call reads and restarts"},
        {1000, TimerOp::Pause, 100, true, "pause"},
        {10000, TimerOp::Pause, 100, true, "a paused timer holds its value; pausing twice changes nothing"},
        {10000, TimerOp::Resume, 100, false, "the pause doesn't count"},
        {300, TimerOp::Resume, 130, false, "resuming a running timer changes nothing"},
        {0, TimerOp::Pause, 130, true, "paused again"},
        {500, TimerOp::Reset, 130, true, "a reset while paused stays paused"},
        {5000, TimerOp::Resume, 0, false, "at zero"},
        {470, TimerOp::StartPaused, 47, true, "start paused"},
        {1000, TimerOp::Start, 0, false, "start restarts, not paused"},
        {14, TimerOp::Query, 1, false, "1.4 ms round down"},
        {1, TimerOp::Query, 2, false, "1.5 ms round up"},
    };
    ManualTimer t;
    for (const Step& step : steps) {
        t.clock += step.advance;
        EXPECT_EQ(t.ElapsedMs(step.op), step.expectedMs) << step.what;
        EXPECT_EQ(t.IsPaused(), step.pausedAfter) << step.what;
    }
    EXPECT_DOUBLE_EQ(t.ElapsedSeconds(TimerOp::Query, t.clock + 19985), 2.0) << "a given now is used";
}

}  // namespace
