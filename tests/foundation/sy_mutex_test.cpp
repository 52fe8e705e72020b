#include "foundation/sy_mutex.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <string>
#include <thread>

#include "support/log_capture.h"

namespace {

std::string HolderText(uint32_t thread) {
    char text[32];
    snprintf(text, sizeof(text), "thread 0x%04x", thread);
    return text;
}

TEST(SyMutexLocking, RecursiveAcquireCountsDepthAndKeepsHolder) {
    SyMutex mutex;
    uint32_t self = GetCurrentThreadId();
    for (int i = 1; i <= 3; ++i) {
        ASSERT_TRUE(mutex.Acquire());
        EXPECT_EQ(mutex.GetDepth(), i);
        EXPECT_EQ(mutex.GetHolder(), self);
    }
    for (int i = 2; i >= 0; --i) {
        ASSERT_TRUE(mutex.Release());
        EXPECT_EQ(mutex.GetDepth(), i);
    }
    EXPECT_EQ(mutex.GetHolder(), self) << "the holder stays for the log after release";
    EXPECT_FALSE(mutex.Release()) << "releasing a mutex this thread does not own fails";
    EXPECT_EQ(mutex.GetDepth(), 0);
}

TEST(SyMutexLocking, ZeroTimeoutOnAForeignLockFailsSilently) {
    ScopedLogCapture log;
    SyMutex mutex;
    HANDLE taken = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    HANDLE done = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    std::thread owner([&] {
        mutex.Acquire();
        SetEvent(taken);
        WaitForSingleObject(done, INFINITE);
        mutex.Release();
    });
    WaitForSingleObject(taken, INFINITE);
    EXPECT_FALSE(mutex.Acquire(0));
    EXPECT_FALSE(mutex.Acquire(20));
    SetEvent(done);
    owner.join();
    EXPECT_TRUE(log->Lines().empty());
    EXPECT_TRUE(mutex.Acquire(0));
    mutex.Release();
    CloseHandle(taken);
    CloseHandle(done);
}

TEST(SyMutexLocking, LockLeftByAnEndedThreadIsRecovered) {
    ScopedLogCapture log;
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
    auto lines = log->Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, LOG_WARN);
    EXPECT_EQ(lines[0].function, "SyMutex::Acquire()");
    EXPECT_EQ(lines[0].text.find("Acquired abandoned lock 0x"), 0u) << lines[0].text;
    EXPECT_NE(lines[0].text.find("previously held by " + HolderText(ended)), std::string::npos) << lines[0].text;
    mutex.Release();
    EXPECT_EQ(mutex.GetDepth(), 0);
}

TEST(SyMutexLocking, LongWaitWarnsOnceAndGoesOnWaiting) {
    ScopedLogCapture log;
    const uint32_t saved = SyMutex::GetDeadlockWarningMs();
    SyMutex::SetDeadlockWarningMs(30);
    SyMutex mutex;
    HANDLE taken = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    uint32_t ownerId = 0;
    std::thread owner([&] {
        mutex.Acquire();
        ownerId = GetCurrentThreadId();
        SetEvent(taken);
        Sleep(1000);  // many warning intervals, with room for a slow start
        mutex.Release();
    });
    WaitForSingleObject(taken, INFINITE);
    EXPECT_TRUE(mutex.Acquire());
    owner.join();
    SyMutex::SetDeadlockWarningMs(saved);
    mutex.Release();
    EXPECT_EQ(log->Count("Possible deadlock trying to acquire lock 0x"), 1u);
    EXPECT_EQ(log->Count("held by " + HolderText(ownerId)), 1u);
    CloseHandle(taken);
}

TEST(SyMutexLocking, FailedCreationGivesAnUnusableLock) {
    std::string name = "fido2-test-clash-" + std::to_string(GetCurrentProcessId());
    HANDLE event = CreateEventA(nullptr, TRUE, FALSE, name.c_str());
    ASSERT_NE(event, nullptr);
    SyMutex clash(false, name.c_str());  // the name belongs to an event
    EXPECT_FALSE(clash.Acquire(0));
    EXPECT_FALSE(clash.Acquire());
    EXPECT_FALSE(clash.Release());
    CloseHandle(event);
}

TEST(SyMutexLocking, GuardStepsOutOfTheLockAndBackIn) {
    SyMutex mutex;
    {
        SyMutexGuard guard(&mutex);
        EXPECT_TRUE(guard.IsHeld());
        EXPECT_EQ(mutex.GetDepth(), 1);
        guard.Unlock();
        EXPECT_EQ(mutex.GetDepth(), 0);
        bool othersCanTake = false;
        std::thread other([&] {
            othersCanTake = mutex.Acquire(0);
            if (othersCanTake) mutex.Release();
        });
        other.join();
        EXPECT_TRUE(othersCanTake);
        guard.Lock();
        EXPECT_EQ(mutex.GetDepth(), 1);
    }
    EXPECT_EQ(mutex.GetDepth(), 0);
}

TEST(SyMutexLocking, AcquireAtConstructionHoldsTheLock) {
    SyMutex mutex(true, "");
    EXPECT_EQ(mutex.GetDepth(), 1);
    bool othersCanTake = true;
    std::thread other([&] { othersCanTake = mutex.Acquire(0); });
    other.join();
    EXPECT_FALSE(othersCanTake);
    mutex.Release();
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

TEST(SyMutexLocking, UnwindGivesUpEveryLevelAndTakesThemBack) {
    SyMutex mutex;
    for (int depth = 0; depth <= 3; ++depth) {
        SCOPED_TRACE(depth);
        for (int i = 0; i < depth; ++i) ASSERT_TRUE(mutex.Acquire());
        {
            SyMutexUnwind unwind(&mutex);
            EXPECT_EQ(unwind.Depth(), depth);
            EXPECT_EQ(mutex.GetDepth(), 0);
            EXPECT_TRUE(OtherThreadCanTake(mutex));
        }
        EXPECT_EQ(mutex.GetDepth(), depth);
        EXPECT_EQ(OtherThreadCanTake(mutex), depth == 0);
        for (int i = 0; i < depth; ++i) mutex.Release();
    }

    // A lock that another thread holds is left alone.
    SyEvent taken(true, false);
    SyEvent done(true, false);
    std::thread holder([&] {
        mutex.Acquire();
        mutex.Acquire();
        taken.Set();
        done.Wait(kInfinite);
        mutex.Release();
        mutex.Release();
    });
    ASSERT_EQ(taken.Wait(5000), 0);
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

}  // namespace
