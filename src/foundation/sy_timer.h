// Pausable stopwatch. The clock is read through GetTicks so tests can drive a timer with
// a clock of their own; callers that check many timers pass one reading as `now`.
#pragma once

#include <cstdint>

enum class TimerOp : int32_t {
    Query = 0,
    Reset = 1,
    Resume = 2,
    Pause = 3,
    Start = 4,
    StartPaused = 5,
};

class SyTimer {
public:
    SyTimer() = default;
    virtual ~SyTimer() = default;
    virtual int64_t GetTicks() = 0;
    virtual int64_t GetFrequency() = 0;

    // Ticks elapsed before `op` took effect; now == 0 reads the clock.
    int64_t Elapsed(TimerOp op = TimerOp::Query, int64_t now = 0);
    double ElapsedSeconds(TimerOp op = TimerOp::Query, int64_t now = 0);
    // Rounded to the nearest millisecond.
    int64_t ElapsedMs(TimerOp op = TimerOp::Query, int64_t now = 0);

    bool IsPaused() const { return pausedTicks != 0; }

protected:
    int64_t startTicks = 0;
    int64_t pausedTicks = 0;  // 0 while running
};

// SyTimer on the performance counter. Derived classes start it in their constructor,
// since the base can't call the clock before the derived part exists.
class SyElapsedTimer : public SyTimer {
public:
    SyElapsedTimer() { Elapsed(TimerOp::Start); }
    int64_t GetTicks() override;
    int64_t GetFrequency() override;
};
