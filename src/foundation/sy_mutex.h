// Recursive lock over a Windows mutex: warns about a probable deadlock, recovers a lock
// abandoned by an ended thread, and remembers its holder for the log.
#pragma once

#include <atomic>
#include <cstdint>

#include "foundation/rc_object.h"
#include "foundation/sy_event.h"

class SyMutexData : public RCObject {
public:
    explicit SyMutexData(HANDLE h) : handle(h), holder(0), depth(0) {}
    ~SyMutexData() override;

    HANDLE handle;
    // Written only by the holding thread; read by others for log lines, so only a hint there.
    std::atomic<uint32_t> holder;
    std::atomic<int32_t> depth;
};

class SyMutex : public RCObject {
public:
    explicit SyMutex(bool acquireNow = false, const char* name = "");

    bool Acquire(uint32_t timeoutMs = kInfinite);
    bool Release();

    // Current recursion depth and the last thread that took the lock at depth 1.
    int32_t GetDepth() const;
    uint32_t GetHolder() const;

    // How long an unbounded Acquire waits before it warns of a deadlock (30 s). Tests
    // shorten it so the warning path runs without a real 30-second wait.
    static void SetDeadlockWarningMs(uint32_t ms);
    static uint32_t GetDeadlockWarningMs();

private:
    RCPtr<SyMutexData> data;
};

// Holds a SyMutex for a scope; can step out of the lock and back in between.
class SyMutexGuard {
public:
    explicit SyMutexGuard(SyMutex* mutex) : mutex(mutex), held(false) { Lock(); }
    ~SyMutexGuard() { Unlock(); }

    void Lock() {
        if (!held && mutex) held = mutex->Acquire(kInfinite);
    }
    void Unlock() {
        if (held) {
            mutex->Release();
            held = false;
        }
    }
    bool IsHeld() const { return held; }

    SyMutexGuard(const SyMutexGuard&) = delete;
    SyMutexGuard& operator=(const SyMutexGuard&) = delete;

private:
    SyMutex* mutex;
    bool held;
};

// Steps out of every level of a SyMutex that the calling thread holds, and back in to the same
// depth at the end of the scope: for a wait that another thread can only finish with this lock,
// called by code that may hold it several levels deep. Does nothing if the thread doesn't hold it.
class SyMutexUnwind {
public:
    explicit SyMutexUnwind(SyMutex* mutex);
    ~SyMutexUnwind();
    int32_t Depth() const { return depth; }

    SyMutexUnwind(const SyMutexUnwind&) = delete;
    SyMutexUnwind& operator=(const SyMutexUnwind&) = delete;

private:
    SyMutex* mutex;
    int32_t depth;
};
