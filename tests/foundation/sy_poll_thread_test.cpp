#include "foundation/sy_poll_thread.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "support/log_capture.h"
#include "support/log_wait.h"

namespace {

// Every wait ends as soon as the scheduler did its part; the guard only turns a hang into a failure.
constexpr uint32_t kGuardMs = 10000;

// An item that records each run and then does what the test gave it to do.
class ProbeItem : public SyPollItem {
public:
    using Body = std::function<bool(ProbeItem& self)>;
    explicit ProbeItem(const std::string& itemName, Body runBody = nullptr)
        : SyPollItem(itemName), body(std::move(runBody)) {}

    bool Run(bool timedOut) override {
        (timedOut ? timeouts : signals)++;
        const bool keep = body ? body(*this) : true;
        ++runs;
        ran.Set();
        return keep;
    }
    bool WaitRan() { return ran.Wait(kGuardMs) == 0; }

    std::atomic<int> runs{0}, timeouts{0}, signals{0};
    SyEvent ran{false, false};

private:
    Body body;
};

TEST(SyPollService, ItemsRunForTheirEventOrTimeoutAndLeaveWhenRemoved) {
    RCPtr<SyPollThread> poll = MakeRC<SyPollThread>("service"), other = MakeRC<SyPollThread>("other");
    poll->StartScheduler();
    SyEvent wake(false, false);
    RCPtr<ProbeItem> byEvent = MakeRC<ProbeItem>("by-event");
    ASSERT_TRUE(poll->AddItem(byEvent.Get(), &wake, -1));
    wake.Set();
    ASSERT_TRUE(byEvent->WaitRan());
    EXPECT_EQ(byEvent->timeouts, 0);
    // One poll thread at a time: another can neither take the item nor remove it.
    EXPECT_FALSE(other->AddItem(byEvent.Get()));
    EXPECT_FALSE(other->RemoveItem(byEvent.Get(), true));

    // No time-out: due at once. False from Run takes it off the list and leaves done set; true
    // keeps it, and its time-out brings it round again (the pacer below).
    RCPtr<ProbeItem> once = MakeRC<ProbeItem>("once", [](ProbeItem&) { return false; });
    ASSERT_TRUE(poll->AddItem(once.Get()));
    ASSERT_EQ(once->doneEvent->Wait(kGuardMs), 0);
    EXPECT_FALSE(poll->HasItem(once.Get()));
    EXPECT_FALSE(poll->RemoveItem(once.Get(), false)) << "already gone";
    EXPECT_TRUE(poll->RemoveItem(byEvent.Get(), true));

    // Remove with wait from inside the item's own Run returns at once; the run's true then
    // doesn't put the item back.
    std::atomic<int> removeResult{-1};
    RCPtr<ProbeItem> self = MakeRC<ProbeItem>("self", [&](ProbeItem& me) {
        removeResult = me.Remove(true) ? 1 : 0;
        return true;
    });
    RCPtr<ProbeItem> pacer = MakeRC<ProbeItem>("pacer");
    ASSERT_TRUE(poll->AddItem(self.Get(), 0));
    ASSERT_EQ(self->doneEvent->Wait(kGuardMs), 0);
    EXPECT_EQ(removeResult, 1);
    ASSERT_TRUE(poll->AddItem(pacer.Get(), 0));
    ASSERT_TRUE(WaitUntil([&] { return pacer->runs >= 10; }, kGuardMs));
    EXPECT_EQ(self->runs, 1);

    // Removal without wait while the item runs returns with the run still blocked, and the
    // run's result no longer counts. The item gets its turn beside the pacer, due on every pass,
    // only because each run restarts the pacer's timer.
    SyEvent entered(false, false), release(false, false);
    RCPtr<ProbeItem> blocked = MakeRC<ProbeItem>("blocked", [&](ProbeItem&) {
        entered.Set();
        release.Wait(kGuardMs);
        return true;
    });
    ASSERT_TRUE(poll->AddItem(blocked.Get(), 0));
    ASSERT_EQ(entered.Wait(kGuardMs), 0);
    EXPECT_TRUE(poll->RemoveItem(blocked.Get(), false));
    EXPECT_EQ(blocked->runs, 0) << "the run is still in progress";
    release.Set();
    ASSERT_EQ(blocked->doneEvent->Wait(kGuardMs), 0);
    EXPECT_FALSE(poll->HasItem(blocked.Get()));
    EXPECT_EQ(poll->ItemCount(), 1u) << "only the pacer";
    poll->StopScheduler();
    EXPECT_FALSE(pacer->WaitForRunDone(kGuardMs, nullptr)) << "a stopped scheduler: no wait";
}

TEST(SyPollFairness, NeitherABusyEventNorAZeroTimeoutStarvesAnyone) {
    {
        // The overdue timer gets reserved entries ahead of the event that is always signalled.
        RCPtr<SyPollThread> poll = MakeRC<SyPollThread>("busy");
        SyEvent alwaysSet(true, true);
        RCPtr<ProbeItem> busy = MakeRC<ProbeItem>("busy"), timer = MakeRC<ProbeItem>("timer");
        ASSERT_TRUE(poll->AddItem(busy.Get(), &alwaysSet, -1));
        ASSERT_TRUE(poll->AddItem(timer.Get(), 2));
        poll->StartScheduler();
        for (int i = 0; i < 5; ++i) ASSERT_TRUE(timer->WaitRan()) << "timer run " << i;
        poll->StopScheduler();
        EXPECT_GT(busy->signals, 0);
    }
    // Ready items run round-robin in list order; the zero time-out item, overdue on every
    // pass, doesn't jump ahead of the events of the items before it.
    RCPtr<SyPollThread> poll = MakeRC<SyPollThread>("rotation");
    // Filled on the scheduler thread only, and read after it stopped.
    std::vector<std::string> names;
    SyEvent nine(true, false);
    auto note = [&](ProbeItem& self) {
        names.push_back(self.name);
        if (names.size() == 9) nine.Set();
        return true;
    };
    SyEvent first(true, true), second(true, true);
    RCPtr<ProbeItem> e1 = MakeRC<ProbeItem>("e1", note), e2 = MakeRC<ProbeItem>("e2", note),
                     zero = MakeRC<ProbeItem>("zero", note);
    ASSERT_TRUE(poll->AddItem(e1.Get(), &first, -1));
    ASSERT_TRUE(poll->AddItem(zero.Get(), 0));
    ASSERT_TRUE(poll->AddItem(e2.Get(), &second, -1));
    ASSERT_TRUE(poll->AddItem(zero.Get(), 0)) << "now behind both events";
    poll->StartScheduler();
    ASSERT_EQ(nine.Wait(kGuardMs), 0);
    poll->StopScheduler();
    names.resize(9);
    EXPECT_EQ(names, (std::vector<std::string>{"e1", "e2", "zero", "e1", "e2", "zero", "e1", "e2", "zero"}));
}

TEST(SyPollEnableDisable, WhatChangesAfterTheWaitChoseAnItemStillCounts) {
    // The scheduler's wait has returned for the item and the scheduler waits for the poll lock
    // that the test holds, when the item is disabled, removed or paused: it must not run.
    struct Row {
        const char* change;
        std::function<void(SyPollThread&, ProbeItem&)> apply;
    } rows[] = {
        {"disabled", [](SyPollThread&, ProbeItem& item) { item.Disable(false); }},
        {"removed", [](SyPollThread& poll, ProbeItem& item) { poll.RemoveItem(&item, false); }},
        {"paused", [](SyPollThread&, ProbeItem& item) { item.timer.Elapsed(TimerOp::Pause); }},
    };
    ScopedLogCapture log(LOG_DEBUG);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.change);
        SyMutex ownerLock;
        RCPtr<SyPollThread> poll = MakeRC<SyPollThread>("chosen");
        poll->SetLock(&ownerLock);
        poll->logLevel = LOG_DEBUG;
        SyEvent wake(false, false);
        RCPtr<ProbeItem> item = MakeRC<ProbeItem>("chosen"), pacer = MakeRC<ProbeItem>("pacer");
        ASSERT_TRUE(poll->AddItem(item.Get(), &wake, -1));
        const size_t waits = log->Count("chosen: Waiting for INFINITE");
        poll->StartScheduler();
        // Logged just before the scheduler lets go of the lock.
        ASSERT_TRUE(WaitForLog(*log, "chosen: Waiting for INFINITE", kGuardMs, waits + 1));
        {
            SyMutexGuard hold(&ownerLock);
            // The event is auto-reset: once it reads clear, the scheduler's wait has taken it.
            // A read that finds it set has taken it itself, and gives it back.
            wake.Set();
            ASSERT_TRUE(WaitUntil([&] { return wake.Wait(0) != 0 || !wake.Set(); }, kGuardMs));
            row.apply(*poll, *item);
        }
        // The pacer runs on a later pass than the one that chose the item.
        ASSERT_TRUE(poll->AddItem(pacer.Get(), 0));
        ASSERT_TRUE(pacer->WaitRan());
        EXPECT_EQ(item->runs, 0);
        poll->StopScheduler();
    }
}

TEST(SyPollWaits, WaitingCallsGiveUpTheLockAtAnyDepthAndReturnOnlyAfterTheRun) {
    // The run blocks until another thread holds the poll lock several levels deep and calls a
    // waiting operation; the run then needs the lock to finish, which it only gets if the
    // waiting operation gives up every level.
    SyMutex ownerLock;
    RCPtr<SyPollThread> poll = MakeRC<SyPollThread>("locked");
    poll->SetLock(&ownerLock);
    SyEvent entered(false, false), go(false, false);
    std::atomic<int> finished{0}, lockFailures{0};
    RCPtr<ProbeItem> item = MakeRC<ProbeItem>("writer", [&](ProbeItem&) {
        entered.Set();
        go.Wait(kGuardMs);
        // Polled rather than waited for, so the run ends right after the caller lets go of the
        // lock: that often puts the end of the run in the caller's gap before its wait.
        SyElapsedTimer patience;
        bool got = false;
        while (!(got = ownerLock.Acquire(0)) && patience.ElapsedMs() < kGuardMs) {
        }
        if (got) ownerLock.Release();
        lockFailures += got ? 0 : 1;
        ++finished;
        return true;
    });
    // Returns the runs finished when the call returned, -1 if it never did; depthAtReturn: the
    // caller's depth then.
    int depthAtReturn = -1;
    auto callAtDepth = [&](int depth, const std::function<void()>& call) {
        int finishedAtReturn = -1;
        SyEvent answered(true, false);
        std::thread caller([&] {
            for (int i = 0; i < depth; ++i) ownerLock.Acquire(kInfinite);
            go.Set();
            call();
            finishedAtReturn = finished;
            depthAtReturn = ownerLock.GetDepth();
            for (int i = 0; i < depth; ++i) ownerLock.Release();
            answered.Set();
        });
        const bool returned = answered.Wait(kGuardMs) == 0;
        if (!returned) poll->StopScheduler();  // frees a waiter that hangs, so the test fails instead
        caller.join();
        return returned ? finishedAtReturn : -1;
    };
    ASSERT_TRUE(poll->AddItem(item.Get(), 0));
    poll->StartScheduler();
    const int rounds = 60;
    for (int round = 0; round < rounds; ++round) {
        SCOPED_TRACE(round);
        ASSERT_EQ(entered.Wait(kGuardMs), 0);
        ASSERT_EQ(callAtDepth(3, [&] { item->Disable(true); }), round + 1) << "returned before the run ended";
        EXPECT_EQ(depthAtReturn, 3);
        EXPECT_EQ(lockFailures, 0) << "the run couldn't get the lock: not every level was given up";
        EXPECT_EQ(item->runs, round + 1) << "no run while disabled";
        EXPECT_EQ(item->doneEvent->Wait(0), kWaitTimeout) << "back on the list, done is clear again";
        item->Disable(false);
        EXPECT_FALSE(item->Enable()) << "disabled twice: one Enable isn't enough";
        EXPECT_TRUE(item->Enable());
    }
    // The removal of every item waits the same way for whatever runs.
    ASSERT_EQ(entered.Wait(kGuardMs), 0);
    EXPECT_EQ(callAtDepth(2, [&] { poll->RemoveAllItems(true); }), rounds + 1);
    EXPECT_EQ(depthAtReturn, 2);
    EXPECT_EQ(lockFailures, 0);
    EXPECT_EQ(item->disabledCount, 0) << "the wait's own disabling is undone";
    poll->StopScheduler();
}

TEST(SyPollWaits, AnItemWaitedForStillHearsItsEventAfterTheWait) {
    // The waiter holds the item back while the run ends, so the scheduler builds its next wait
    // without the item's event; the end of the wait must make it look again.
    RCPtr<SyPollThread> poll = MakeRC<SyPollThread>("waited");
    RCPtr<SyEvent> wake = MakeRC<SyEvent>(false, false, "");
    SyEvent entered(false, false), go(false, false);
    RCPtr<ProbeItem> item = MakeRC<ProbeItem>("watcher", [&](ProbeItem& self) {
        if (self.runs == 0) {
            entered.Set();
            go.Wait(kGuardMs);
        }
        return true;
    });
    item->SetRCEvent(wake);
    ASSERT_TRUE(poll->AddItem(item.Get(), -1));
    poll->StartScheduler();
    wake->Set();
    ASSERT_EQ(entered.Wait(kGuardMs), 0);
    std::thread waiter([&] {
        // Held until the wait has taken the item back, so the run can't end before that.
        SyMutexGuard guard(poll->GetLock());
        go.Set();
        poll->WaitForItemToComplete(item.Get());
    });
    waiter.join();
    ASSERT_TRUE(item->WaitRan());
    wake->Set();
    EXPECT_TRUE(item->WaitRan()) << "the item's event was left out of the scheduler's wait";
    poll->StopScheduler();
}

void CALLBACK NoOpApc(ULONG_PTR) {}

TEST(SyPollIdle, AnInfiniteWaitSeesEveryChangeAndTheLastReferenceEndsIt) {
    ScopedLogCapture log(LOG_DEBUG);
    RCPtr<SyPollThread> poll = MakeRC<SyPollThread>("idle");
    poll->autoStart = poll->alertable = true;
    poll->logLevel = LOG_DEBUG;
    RCPtr<ProbeItem> item = MakeRC<ProbeItem>("sleeper");
    // An item with neither time-out nor event: an infinite wait, started by the first item.
    const std::string waitLine = "idle: Waiting for INFINITE";
    ASSERT_TRUE(poll->AddItem(item.Get(), -1));
    ASSERT_TRUE(WaitForLog(*log, waitLine, kGuardMs));
    ASSERT_TRUE(QueueUserAPC(NoOpApc, poll->GetSchedulerThread().GetHandleEvent().GetHandle(), 0));
    ASSERT_TRUE(WaitForLog(*log, "idle: alertable signaled", kGuardMs)) << "an APC ends the alertable wait";

    // Changes of time-out and event take effect in the infinite wait.
    item->SetTimeoutMS(5, true);
    ASSERT_TRUE(item->WaitRan());
    const size_t waits = log->Count(waitLine);
    item->SetTimeoutMS(-1, true);
    ASSERT_TRUE(WaitForLog(*log, waitLine, kGuardMs, waits + 1));
    item->ran.Reset();
    SyEvent wake(false, false);
    item->SetEvent(&wake);
    wake.Set();
    ASSERT_TRUE(item->WaitRan()) << "the new event took effect in the infinite wait";
    EXPECT_EQ(item->signals, 1);

    // With the last reference gone, the next wake ends the scheduler, and the poll thread goes on
    // its own thread: its scheduler thread reports that its owner was deleted under it.
    poll = nullptr;
    wake.Set();
    ASSERT_TRUE(WaitForLog(*log, "Thread SyPoll-idle was deleted", kGuardMs));
    EXPECT_EQ(log->Count("idle: I'm the last reference"), 1u);
    EXPECT_EQ(item->pollHandle, 0u) << "the destructor took the item off";
}

}  // namespace
