#include "foundation/sy_timer.h"

#include <windows.h>

#include <atomic>

int64_t SyTimer::Elapsed(TimerOp op, int64_t now) {
    if (now == 0) now = GetTicks();
    int64_t elapsed = (pausedTicks != 0 ? pausedTicks : now) - startTicks;
    switch (op) {
        case TimerOp::Query:
            break;
        case TimerOp::Reset:
            startTicks = now;
            if (pausedTicks != 0) pausedTicks = now;
            break;
        case TimerOp::Resume:
            if (pausedTicks != 0) {
                startTicks = startTicks - pausedTicks + now;
                pausedTicks = 0;
            }
            break;
        case TimerOp::Pause:
            if (pausedTicks == 0) pausedTicks = now;
            break;
        case TimerOp::Start:
            startTicks = now;
            pausedTicks = 0;
            break;
        case TimerOp::StartPaused:
            startTicks = now;
            pausedTicks = now;
            break;
    }
    return elapsed;
}

double SyTimer::ElapsedSeconds(TimerOp op, int64_t now) {
    int64_t ticks = Elapsed(op, now);
    int64_t frequency = GetFrequency();
    return frequency ? static_cast<double>(ticks) / static_cast<double>(frequency) : 0.0;
}

int64_t SyTimer::ElapsedMs(TimerOp op, int64_t now) {
    int64_t ticks = Elapsed(op, now);
    int64_t frequency = GetFrequency();
    if (frequency == 0) return 0;
    return (ticks * 1000 + frequency / 2) / frequency;
}

int64_t SyElapsedTimer::GetTicks() {
    LARGE_INTEGER counter;
    return QueryPerformanceCounter(&counter) ? counter.QuadPart : 0;
}

int64_t SyElapsedTimer::GetFrequency() {
    // One value for the process; asked again while the system has given none.
    static std::atomic<int64_t> frequency{0};
    int64_t value = frequency.load(std::memory_order_relaxed);
    if (value == 0) {
        LARGE_INTEGER f;
        if (QueryPerformanceFrequency(&f)) value = f.QuadPart;
        frequency.store(value, std::memory_order_relaxed);
    }
    return value;
}
