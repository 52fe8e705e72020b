#include "foundation/sy_poll_thread.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/log_capture.h"
#include "support/session_fakes.h"
#include "sysutil/process_utils.h"

namespace {

// Every wait of these tests ends as soon as the scheduler did its part; the guard is only ever
// reached when it didn't, and turns a hang into a failure.
constexpr uint32_t kGuardMs = 10000;

// The order in which the items of one poll thread ran, and a signal once it holds a given count.
class RunJournal {
public:
    void Add(const std::string& name) {
        std::lock_guard<std::mutex> hold(mutex);
        names.push_back(name);
        if (names.size() >= target) reached.Set();
    }
    // Resets the signal; it comes again once the journal holds count names.
    void SignalAt(size_t count) {
        std::lock_guard<std::mutex> hold(mutex);
        target = count;
        if (names.size() >= target) {
            reached.Set();
        } else {
            reached.Reset();
        }
    }
    bool WaitReached() { return reached.Wait(kGuardMs) == 0; }
    std::vector<std::string> Names() {
        std::lock_guard<std::mutex> hold(mutex);
        return names;
    }

private:
    std::mutex mutex;
    std::vector<std::string> names;
    size_t target = SIZE_MAX;
    SyEvent reached{true, false};
};

// An item that records each run and then does what the test gave it to do.
class ProbeItem : public SyPollItem {
public:
    using Body = std::function<bool(ProbeItem& self, bool timedOut)>;

    explicit ProbeItem(const std::string& itemName, RunJournal* runJournal = nullptr, Body runBody = nullptr)
        : SyPollItem(itemName), journal(runJournal), body(std::move(runBody)) {}

    bool Run(bool timedOut) override {
        runThread = GetCurrentThreadId();
        (timedOut ? timeouts : signals)++;
        if (journal) journal->Add(name);
        const bool keep = body ? body(*this, timedOut) : true;
        ++runs;
        ran.Set();
        return keep;
    }

    bool WaitRan() { return ran.Wait(kGuardMs) == 0; }

    std::atomic<int> runs{0};
    std::atomic<int> timeouts{0};
    std::atomic<int> signals{0};
    std::atomic<DWORD> runThread{0};
    SyEvent ran{false, false};

private:
    RunJournal* journal;
    Body body;
};

// A primary log target that records lines like LogCapture and also signals once a line with a
// given fragment arrives: a test can wait for the scheduler to reach a point it logs.
class SignallingLog : public LogCapture {
public:
    void Deliver(const char* function, int32_t level, const char* text) override {
        LogCapture::Deliver(function, level, text);
        std::lock_guard<std::mutex> hold(mutex);
        if (!fragment.empty() && text && std::string(text).find(fragment) != std::string::npos) seen.Set();
    }
    void Arm(const std::string& text) {
        std::lock_guard<std::mutex> hold(mutex);
        fragment = text;
        seen.Reset();
    }
    bool WaitSeen() { return seen.Wait(kGuardMs) == 0; }

private:
    std::mutex mutex;
    std::string fragment;
    SyEvent seen{true, false};
};

class ScopedSignallingLog {
public:
    explicit ScopedSignallingLog(int32_t threshold) : log(new SignallingLog), scope(threshold, log) {}
    SignallingLog* operator->() const { return log.Get(); }

private:
    RCPtr<SignallingLog> log;
    ScopedLogCapture scope;
};

RCPtr<SyPollThread> StartedPoll(const std::string& name) {
    RCPtr<SyPollThread> poll = MakeRC<SyPollThread>(name);
    poll->StartScheduler();
    return poll;
}

TEST(SyPollService, ItemsRunForTheirEventOrTheirTimeout) {
    RCPtr<SyPollThread> poll = StartedPoll("service");
    ASSERT_TRUE(poll->IsSchedulerRunning());

    SyEvent wake(false, false);
    RCPtr<ProbeItem> byEvent = MakeRC<ProbeItem>("by-event");
    ASSERT_TRUE(poll->AddItem(byEvent.Get(), &wake, -1));
    EXPECT_TRUE(poll->HasItem(byEvent.Get()));
    wake.Set();
    ASSERT_TRUE(byEvent->WaitRan());
    EXPECT_EQ(byEvent->signals, 1);
    EXPECT_EQ(byEvent->timeouts, 0);
    EXPECT_NE(byEvent->runThread, GetCurrentThreadId()) << "runs on the scheduler thread";

    // With shared ownership, the item keeps its event alive.
    RCPtr<SyEvent> owned = MakeRC<SyEvent>(false, false);
    SyEvent* ownedEvent = owned.Get();
    byEvent->SetRCEvent(owned);
    owned = nullptr;
    ownedEvent->Set();
    ASSERT_TRUE(byEvent->WaitRan());
    EXPECT_EQ(byEvent->signals, 2);

    RCPtr<ProbeItem> byTimeout = MakeRC<ProbeItem>("by-timeout");
    ASSERT_TRUE(poll->AddItem(byTimeout.Get(), 5));
    ASSERT_TRUE(byTimeout->WaitRan());
    EXPECT_EQ(byTimeout->timeouts, 1);
    EXPECT_EQ(byTimeout->signals, 0);
    EXPECT_TRUE(poll->HasItem(byTimeout.Get())) << "true from Run keeps it";
    EXPECT_TRUE(byTimeout->WaitRan()) << "and its time-out brings it round again";

    // An item added without a time-out is due at once; false from Run takes it off the list and
    // leaves its done event set.
    RCPtr<ProbeItem> once = MakeRC<ProbeItem>("once", nullptr, [](ProbeItem&, bool) { return false; });
    ASSERT_TRUE(poll->AddItem(once.Get()));
    ASSERT_TRUE(once->WaitRan());
    ASSERT_EQ(once->doneEvent->Wait(kGuardMs), 0);
    EXPECT_EQ(poll->ItemCount(), 2u);
    EXPECT_FALSE(poll->HasItem(once.Get()));
    EXPECT_EQ(once->pollHandle, 0u);
    EXPECT_EQ(once->timeouts, 1);
    EXPECT_FALSE(poll->RemoveItem(once.Get(), false)) << "already gone";

    EXPECT_TRUE(poll->RemoveItem(byEvent.Get(), true));
    EXPECT_TRUE(poll->RemoveItem(byTimeout.Get(), true));
    EXPECT_EQ(poll->ItemCount(), 0u);
    poll->StopScheduler();
    EXPECT_FALSE(poll->IsSchedulerRunning());
}

TEST(SyPollService, ItemsListedInOrderOfServiceWithTheirState) {
    ScopedLogCapture log(LOG_DEBUG);
    RCPtr<SyPollThread> poll = MakeRC<SyPollThread>("listing");  // never started: nothing moves
    SyEvent wake(false, false);
    RCPtr<ProbeItem> alpha = MakeRC<ProbeItem>("alpha");
    RCPtr<ProbeItem> beta = MakeRC<ProbeItem>("beta");
    RCPtr<ProbeItem> gamma = MakeRC<ProbeItem>("gamma");
    for (ProbeItem* item : {alpha.Get(), beta.Get(), gamma.Get()}) item->timer.Elapsed(TimerOp::StartPaused);
    ASSERT_TRUE(poll->AddItem(alpha.Get(), -1));
    ASSERT_TRUE(poll->AddItem(beta.Get(), &wake, 1500));
    ASSERT_TRUE(poll->AddItem(gamma.Get()));
    beta->Disable(false);
    beta->Disable(false);
    ASSERT_TRUE(poll->AddItem(alpha.Get())) << "a second add moves the item to the end";

    log->ClearLines();
    poll->LogAllItems(LOG_INFO);
    poll->LogAllItems(LOG_TRACE);  // above the process's level: nothing
    std::vector<CapturedLine> lines = log->Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].function, "SyPollThread::LogAllItems()");
    EXPECT_EQ(lines[0].level, LOG_INFO);
    EXPECT_EQ(lines[0].text,
              "listing - 3 items\n"
              "   beta - timeout(1.500s)  elapsed(0ms)  paused(TRUE)  event(TRUE)  disabled(2)\n"
              "   gamma - timeout(0ms)  elapsed(0ms)  paused(TRUE)  event(FALSE)  disabled(0)\n"
              "   alpha - timeout(INFINITE)  elapsed(0ms)  paused(TRUE)  event(FALSE)  disabled(0)\n"
              "\n");

    ASSERT_TRUE(poll->RemoveItem(beta.Get(), false));
    ASSERT_TRUE(poll->RemoveItem(gamma.Get(), false));
    log->ClearLines();
    poll->LogAllItems(LOG_DEBUG);
    ASSERT_EQ(log->Lines().size(), 1u);
    EXPECT_EQ(log->Lines()[0].text,
              "listing - 1 item\n"
              "   alpha - timeout(INFINITE)  elapsed(0ms)  paused(TRUE)  event(FALSE)  disabled(0)\n"
              "\n");
}

TEST(SyPollMisuse, BadCallsGetAClearAnswerAndALogLine) {
    ScopedLogCapture log(LOG_VERBOSE);
    RCPtr<SyPollThread> first = MakeRC<SyPollThread>("first");
    RCPtr<SyPollThread> second = MakeRC<SyPollThread>("second");
    RCPtr<ProbeItem> item = MakeRC<ProbeItem>("item");

    EXPECT_FALSE(first->AddItem(nullptr));
    EXPECT_FALSE(first->AddItem(nullptr, 5));
    EXPECT_FALSE(first->RemoveItem(nullptr, true));
    EXPECT_FALSE(first->HasItem(nullptr));
    EXPECT_EQ(log->Count("first: item == NULL"), 3u);

    // Without a poll thread the item's own operations still work, unlocked, logged with "---".
    EXPECT_FALSE(item->Remove(true));
    EXPECT_FALSE(item->WaitForRunDone(kGuardMs, nullptr)) << "no poll thread: no wait";
    EXPECT_FALSE(item->GetPollThread());
    item->SetTimeoutMS(250, true);
    EXPECT_EQ(item->timeoutMs, 250);
    EXPECT_EQ(log->Count("---: Item item timeout set to 250ms (timer reset)"), 1u);
    item->Disable(true);
    EXPECT_EQ(log->Count("---: Item item disabled"), 1u);
    EXPECT_TRUE(item->Enable());
    EXPECT_EQ(log->Count("---: Item item enabled"), 1u);
    item->SetEvent(nullptr);
    EXPECT_EQ(log->Count("event set to NULL"), 0u) << "no change, no line";
    SyEvent own(false, false);
    item->SetEvent(&own);
    item->SetEvent(&own);
    EXPECT_EQ(log->Count("---: Item item event set to 0x"), 1u);
    item->SetEvent(nullptr);
    EXPECT_EQ(log->Count("---: Item item event set to NULL"), 1u);

    // One poll thread at a time; removal only by the owner, and only once.
    ASSERT_TRUE(first->AddItem(item.Get(), -1));
    EXPECT_FALSE(second->AddItem(item.Get()));
    EXPECT_EQ(log->Count("second: Item item already belongs to"), 1u);
    EXPECT_FALSE(second->RemoveItem(item.Get(), true));
    EXPECT_EQ(log->Count("second: Item item belongs to"), 1u);
    EXPECT_FALSE(second->HasItem(item.Get()));
    EXPECT_TRUE(first->HasItem(item.Get()));
    EXPECT_EQ(item->GetPollThread().Get(), first.Get());
    EXPECT_FALSE(item->WaitForRunDone(kGuardMs, nullptr)) << "a scheduler that never ran: no wait";
    EXPECT_TRUE(first->RemoveItem(item.Get(), true)) << "not running: the wait doesn't block";
    EXPECT_FALSE(first->RemoveItem(item.Get(), true));
    EXPECT_EQ(item->pollHandle, 0u);
    EXPECT_EQ(first->ItemCount(), 0u);

    // A handle that names a poll thread that has gone still blocks other poll threads, until
    // GetPollThread finds the poll thread gone and forgets it.
    const uint64_t goneHandle = first->GetHandle();
    first = nullptr;
    item->pollHandle = goneHandle;
    EXPECT_FALSE(second->AddItem(item.Get()));
    EXPECT_FALSE(item->GetPollThread());
    EXPECT_EQ(log->Count("item: SyPollThread 0x"), 1u);
    EXPECT_EQ(log->Count("has been deleted"), 1u);
    EXPECT_EQ(item->pollHandle, 0u);
    EXPECT_TRUE(second->AddItem(item.Get()));

    // A scheduler that has stopped: waits end at once with false, removal still works.
    second->StartScheduler();
    second->StopScheduler();
    EXPECT_FALSE(item->WaitForRunDone(kGuardMs, nullptr));
    SyEvent extra(true, true);
    EXPECT_FALSE(item->WaitForRunDone(kGuardMs, &extra));
    EXPECT_TRUE(item->Remove(true));
}

TEST(SyPollFairness, NeitherABusyEventNorAZeroTimeoutStarvesAnyone) {
    // A busy event can't starve a timer: the overdue timer gets reserved entries ahead of the
    // event that is always signalled.
    {
        RCPtr<SyPollThread> poll = MakeRC<SyPollThread>("busy");
        SyEvent alwaysSet(true, true);
        RCPtr<ProbeItem> busy = MakeRC<ProbeItem>("busy");
        RCPtr<ProbeItem> timer = MakeRC<ProbeItem>("timer");
        ASSERT_TRUE(poll->AddItem(busy.Get(), &alwaysSet, -1));
        ASSERT_TRUE(poll->AddItem(timer.Get(), 2));
        poll->StartScheduler();
        for (int i = 0; i < 5; ++i) ASSERT_TRUE(timer->WaitRan()) << "timer run " << i;
        EXPECT_GT(busy->signals, 0);
        EXPECT_EQ(timer->signals, 0);
        poll->StopScheduler();
        EXPECT_GE(timer->timeouts, 5);
    }
    // A zero time-out is overdue on every pass, yet it takes its turn: the ready items run
    // round-robin, in list order, and the zero time-out item doesn't jump ahead of the events
    // of the items before it.
    {
        RCPtr<SyPollThread> poll = MakeRC<SyPollThread>("rotation");
        RunJournal journal;
        SyEvent first(true, true);
        SyEvent second(true, true);
        RCPtr<ProbeItem> e1 = MakeRC<ProbeItem>("e1", &journal);
        RCPtr<ProbeItem> e2 = MakeRC<ProbeItem>("e2", &journal);
        RCPtr<ProbeItem> zero = MakeRC<ProbeItem>("zero", &journal);
        ASSERT_TRUE(poll->AddItem(e1.Get(), &first, -1));
        ASSERT_TRUE(poll->AddItem(zero.Get(), 0));
        ASSERT_TRUE(poll->AddItem(e2.Get(), &second, -1));
        ASSERT_TRUE(poll->AddItem(zero.Get(), 0)) << "now behind both events";
        journal.SignalAt(12);
        poll->StartScheduler();
        ASSERT_TRUE(journal.WaitReached());
        poll->StopScheduler();
        std::vector<std::string> names = journal.Names();
        names.resize(12);
        const std::vector<std::string> expected = {"e1", "e2", "zero", "e1", "e2", "zero",
                                                   "e1", "e2", "zero", "e1", "e2", "zero"};
        EXPECT_EQ(names, expected);
        EXPECT_EQ(zero->signals, 0);
    }
}

TEST(SyPollEnableDisable, DisabledOrPausedItemsNeverRunAndCountsNest) {
    RCPtr<SyPollThread> poll = MakeRC<SyPollThread>("switch");
    RunJournal journal;
    SyEvent alwaysSet(true, true);
    // A paused item's event still takes part in the wait, so it is signalled once only: the
    // wait takes the signal, and the item doesn't run.
    SyEvent pausedWake(false, true);
    // Each would run on every other pass if the scheduler looked at it.
    RCPtr<ProbeItem> item = MakeRC<ProbeItem>("switched", &journal);
    RCPtr<ProbeItem> paused = MakeRC<ProbeItem>("paused", &journal);
    RCPtr<ProbeItem> pacer = MakeRC<ProbeItem>("pacer", &journal);
    ASSERT_TRUE(poll->AddItem(item.Get(), &alwaysSet, 0));
    ASSERT_TRUE(poll->AddItem(paused.Get(), &pausedWake, 0));
    ASSERT_TRUE(poll->AddItem(pacer.Get(), 0));
    paused->timer.Elapsed(TimerOp::Pause);
    item->Disable(false);
    item->Disable(false);

    size_t seen = 0;
    auto pacerRunsFor = [&](int passes) {
        seen += static_cast<size_t>(passes);
        journal.SignalAt(seen);
        return journal.WaitReached();
    };
    poll->StartScheduler();
    ASSERT_TRUE(pacerRunsFor(10));
    EXPECT_FALSE(item->Enable()) << "disabled twice: one Enable isn't enough";
    ASSERT_TRUE(pacerRunsFor(10));
    EXPECT_EQ(item->runs, 0);
    EXPECT_TRUE(item->Enable());
    ASSERT_TRUE(item->WaitRan());

    // Disable with wait: once it returns, no run of the item is in progress or to come.
    item->Disable(true);
    const int runsWhenDisabled = item->runs;
    seen = journal.Names().size();
    ASSERT_TRUE(pacerRunsFor(10));
    EXPECT_EQ(item->runs, runsWhenDisabled);

    // An Enable too many takes the count below zero, and the next Disable doesn't disable.
    EXPECT_TRUE(item->Enable());
    EXPECT_TRUE(item->Enable());
    EXPECT_EQ(item->disabledCount, -1);
    item->Disable(false);
    ASSERT_TRUE(item->WaitRan());
    ASSERT_TRUE(item->WaitRan());

    poll->StopScheduler();
    EXPECT_EQ(pausedWake.Wait(0), kWaitTimeout) << "the scheduler took the paused item's signal";
    EXPECT_EQ(paused->runs, 0) << "a paused timer keeps the item from running, event or not";
    for (const std::string& name : journal.Names()) EXPECT_NE(name, "paused");
}

TEST(SyPollEnableDisable, WhatChangesAfterTheWaitChoseAnItemStillCounts) {
    // The scheduler's wait has returned for the item, and the scheduler waits for the poll lock
    // that the test holds, when the item is disabled, removed or paused: it must not run.
    struct Row {
        const char* change;
        std::function<void(SyPollThread&, ProbeItem&)> apply;
    } rows[] = {
        {"disabled", [](SyPollThread&, ProbeItem& item) { item.Disable(false); }},
        {"removed", [](SyPollThread& poll, ProbeItem& item) { poll.RemoveItem(&item, false); }},
        {"paused", [](SyPollThread&, ProbeItem& item) { item.timer.Elapsed(TimerOp::Pause); }},
    };
    ScopedSignallingLog log(LOG_DEBUG);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.change);
        SyMutex ownerLock;
        RCPtr<SyPollThread> poll = MakeRC<SyPollThread>("chosen");
        poll->SetLock(&ownerLock);
        poll->logLevel = LOG_DEBUG;
        SyEvent wake(false, false);
        RCPtr<ProbeItem> item = MakeRC<ProbeItem>("chosen");
        RCPtr<ProbeItem> pacer = MakeRC<ProbeItem>("pacer");
        ASSERT_TRUE(poll->AddItem(item.Get(), &wake, -1));
        log->Arm("chosen: Waiting for INFINITE");
        poll->StartScheduler();
        // Logged just before the scheduler lets go of the lock for its wait.
        ASSERT_TRUE(log->WaitSeen());
        {
            SyMutexGuard hold(&ownerLock);
            wake.Set();
            // The event is auto-reset: once it reads clear, the scheduler's wait has taken it.
            // A read that finds it set has taken it itself, and gives it back.
            SyElapsedTimer patience;
            bool taken = false;
            while (!(taken = wake.Wait(0) != 0) && patience.ElapsedMs() < kGuardMs) wake.Set();
            ASSERT_TRUE(taken);
            row.apply(*poll, *item);
        }
        // The pacer runs on a later pass than the one that chose the item.
        ASSERT_TRUE(poll->AddItem(pacer.Get(), 0));
        ASSERT_TRUE(pacer->WaitRan());
        EXPECT_EQ(item->runs, 0);
        poll->StopScheduler();
    }
}

TEST(SyPollRemoval, RemovalDuringARunNeverBlocksTheRunsOwnThread) {
    RCPtr<SyPollThread> poll = MakeRC<SyPollThread>("removal");
    RunJournal journal;
    RCPtr<ProbeItem> pacer = MakeRC<ProbeItem>("pacer", &journal);

    // Remove with wait from inside the item's own Run returns at once; the run's true then
    // doesn't put the item back.
    std::atomic<int> removeResult{-1};
    RCPtr<ProbeItem> self = MakeRC<ProbeItem>("self", &journal, [&](ProbeItem& me, bool) {
        removeResult = me.Remove(true) ? 1 : 0;
        return true;
    });
    ASSERT_TRUE(poll->AddItem(self.Get(), 0));
    poll->StartScheduler();
    ASSERT_EQ(self->doneEvent->Wait(kGuardMs), 0);
    EXPECT_EQ(removeResult, 1);
    EXPECT_FALSE(poll->HasItem(self.Get()));
    ASSERT_TRUE(poll->AddItem(pacer.Get(), 0));
    journal.SignalAt(journal.Names().size() + 10);
    ASSERT_TRUE(journal.WaitReached());
    EXPECT_EQ(self->runs, 1);
    EXPECT_EQ(self->doneEvent->Wait(0), 0) << "left set by its last run";

    // Removal without wait from another thread while the item runs: the call returns while the
    // run is still blocked, and the run's result no longer counts.
    SyEvent entered(false, false);
    SyEvent release(false, false);
    RCPtr<ProbeItem> blocked = MakeRC<ProbeItem>("blocked", nullptr, [&](ProbeItem&, bool) {
        entered.Set();
        release.Wait(kGuardMs);
        return true;
    });
    ASSERT_TRUE(poll->AddItem(blocked.Get(), 0));
    ASSERT_EQ(entered.Wait(kGuardMs), 0);
    SyEvent alreadySet(true, true);
    EXPECT_FALSE(blocked->WaitForRunDone(kInfinite, &alreadySet)) << "the extra event ends the wait";
    EXPECT_TRUE(poll->RemoveItem(blocked.Get(), false));
    EXPECT_EQ(blocked->runs, 0) << "the run is still in progress";
    release.Set();
    ASSERT_EQ(blocked->doneEvent->Wait(kGuardMs), 0);
    EXPECT_FALSE(poll->HasItem(blocked.Get()));
    EXPECT_EQ(poll->ItemCount(), 1u) << "only the pacer";
    EXPECT_TRUE(pacer->WaitForRunDone(kGuardMs, nullptr));
    poll->StopScheduler();
}

// Runs an item that blocks until another thread holds the poll lock several levels deep and
// calls a waiting operation; the run then needs the poll lock to finish, which it only gets if
// the waiting operation gives up every level.
struct LockedWaitRig {
    SyMutex ownerLock;  // the owner's lock, made the poll lock
    RCPtr<SyPollThread> poll = MakeRC<SyPollThread>("locked");
    SyEvent entered{false, false};
    SyEvent go{false, false};
    std::atomic<int> finished{0};
    std::atomic<int> lockFailures{0};
    RCPtr<ProbeItem> item;

    struct Outcome {
        bool returned = false;
        int finishedAtReturn = -1;
        int depthAtReturn = -1;
        bool holderAtReturn = false;
    };

    // The caller, one thread for all rounds: takes the poll lock `depth` times, releases the
    // run, calls `operation`, notes what holds when it returns, lets go of the lock.
    std::function<void()> operation;
    int depth = 0;
    bool quit = false;
    Outcome outcome;
    SyEvent request{false, false};
    SyEvent answered{false, false};
    std::thread caller;

    LockedWaitRig() {
        poll->SetLock(&ownerLock);
        item = MakeRC<ProbeItem>("writer", nullptr, [this](ProbeItem&, bool) {
            entered.Set();
            go.Wait(kGuardMs);
            // Polled rather than waited for, so the run ends right after the caller lets go of
            // the lock: that puts the end of the run in the caller's gap before its wait often.
            SyElapsedTimer patience;
            bool got = false;
            while (!(got = ownerLock.Acquire(0)) && patience.ElapsedMs() < kGuardMs) {
            }
            if (got) {
                ownerLock.Release();
            } else {
                ++lockFailures;
            }
            ++finished;
            return true;
        });
        caller = std::thread([this] {
            while (request.Wait(kInfinite) == 0 && !quit) {
                for (int i = 0; i < depth; ++i) ownerLock.Acquire(kInfinite);
                go.Set();
                operation();
                outcome.finishedAtReturn = finished;
                outcome.depthAtReturn = ownerLock.GetDepth();
                outcome.holderAtReturn = ownerLock.GetHolder() == GetCurrentThreadId();
                for (int i = 0; i < depth; ++i) ownerLock.Release();
                answered.Set();
            }
        });
    }

    ~LockedWaitRig() {
        quit = true;
        request.Set();
        caller.join();
        poll->StopScheduler();
    }

    Outcome WaitingCallAtDepth(int lockDepth, std::function<void()> call) {
        outcome = Outcome();
        depth = lockDepth;
        operation = std::move(call);
        request.Set();
        bool returned = answered.Wait(kGuardMs) == 0;
        if (!returned) {
            // A waiter that hangs is freed by the end of the scheduler thread.
            poll->StopScheduler();
            answered.Wait(kGuardMs);
        }
        outcome.returned = returned;
        return outcome;
    }
};

TEST(SyPollWaits, WaitingCallsGiveUpTheLockAtAnyDepthAndReturnOnlyAfterTheRun) {
    LockedWaitRig rig;
    ASSERT_TRUE(rig.poll->AddItem(rig.item.Get(), 0));
    rig.poll->StartScheduler();
    // Many rounds: the run often ends in the gap between the waiter's release of the lock and
    // the start of its wait, which must still end the wait.
    const int rounds = 60;
    for (int round = 0; round < rounds; ++round) {
        SCOPED_TRACE(round);
        ASSERT_EQ(rig.entered.Wait(kGuardMs), 0);
        LockedWaitRig::Outcome outcome = rig.WaitingCallAtDepth(3, [&] { rig.item->Disable(true); });
        ASSERT_TRUE(outcome.returned);
        EXPECT_EQ(outcome.finishedAtReturn, round + 1) << "Disable returned before the run ended";
        EXPECT_EQ(outcome.depthAtReturn, 3);
        EXPECT_TRUE(outcome.holderAtReturn);
        EXPECT_EQ(rig.lockFailures, 0) << "the run couldn't get the lock: not every level was given up";
        EXPECT_EQ(rig.item->disabledCount, 1);
        EXPECT_EQ(rig.item->runs, round + 1) << "no run while disabled";
        EXPECT_EQ(rig.item->doneEvent->Wait(0), kWaitTimeout) << "back on the list, done is clear again";
        EXPECT_TRUE(rig.item->Enable());
    }

    // The same for the removal of every item: it waits for whatever runs.
    ASSERT_EQ(rig.entered.Wait(kGuardMs), 0);
    LockedWaitRig::Outcome outcome = rig.WaitingCallAtDepth(2, [&] { rig.poll->RemoveAllItems(true); });
    ASSERT_TRUE(outcome.returned);
    EXPECT_EQ(outcome.finishedAtReturn, rounds + 1);
    EXPECT_EQ(outcome.depthAtReturn, 2);
    EXPECT_EQ(rig.lockFailures, 0);
    EXPECT_EQ(rig.poll->ItemCount(), 0u);
    EXPECT_EQ(rig.item->disabledCount, 0) << "the wait's own disabling is undone";
    rig.poll->StopScheduler();
}

TEST(SyPollWaits, ChangesReachASchedulerInAnInfiniteWaitAtOnce) {
    ScopedSignallingLog log(LOG_DEBUG);
    RCPtr<SyPollThread> poll = MakeRC<SyPollThread>("idle");
    poll->logLevel = LOG_DEBUG;
    log->Arm("idle: Waiting for INFINITE");
    poll->StartScheduler();
    ASSERT_TRUE(log->WaitSeen()) << "no items: an infinite wait";

    // An item with neither time-out nor event keeps the wait infinite.
    RCPtr<ProbeItem> item = MakeRC<ProbeItem>("sleeper");
    log->Arm("idle - 1 item");
    ASSERT_TRUE(poll->AddItem(item.Get(), -1));
    ASSERT_TRUE(log->WaitSeen());
    EXPECT_EQ(log->Count("idle: Waiting for INFINITE"), 2u);

    item->SetTimeoutMS(0, true);
    ASSERT_TRUE(item->WaitRan()) << "the new time-out took effect in the infinite wait";
    EXPECT_GE(item->timeouts, 1);

    log->Arm("idle: Waiting for INFINITE");
    item->SetTimeoutMS(-1, true);
    ASSERT_TRUE(log->WaitSeen());
    item->ran.Reset();
    SyEvent wake(false, false);
    item->SetEvent(&wake);
    wake.Set();
    ASSERT_TRUE(item->WaitRan()) << "the new event took effect in the infinite wait";
    EXPECT_EQ(item->signals, 1);
    EXPECT_GE(log->Count("idle: Dirty event signaled"), 1u);
    poll->StopScheduler();
}

TEST(SyPollLimits, OneWaitTakesTheFixedEntriesPlusTheEventsUpToThePlatformLimit) {
    ScopedLogCapture log(LOG_ERROR);
    struct Row {
        bool overdueItem;  // takes the two reserved entries
        int eventsThatFit;
    } rows[] = {{false, MAXIMUM_WAIT_OBJECTS - 2}, {true, MAXIMUM_WAIT_OBJECTS - 4}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.overdueItem ? "with an overdue item" : "events only");
        log->ClearLines();
        RCPtr<SyPollThread> poll = MakeRC<SyPollThread>("limit");
        std::vector<std::unique_ptr<SyEvent>> events;
        std::vector<RCPtr<ProbeItem>> items;
        for (int i = 0; i <= row.eventsThatFit; ++i) {
            events.emplace_back(new SyEvent(false, false));
            items.push_back(MakeRC<ProbeItem>("event-" + std::to_string(i)));
        }
        RCPtr<ProbeItem> overdue = MakeRC<ProbeItem>("overdue");
        if (row.overdueItem) {
            ASSERT_TRUE(poll->AddItem(overdue.Get(), 0));
        }
        for (int i = 0; i < row.eventsThatFit; ++i) ASSERT_TRUE(poll->AddItem(items[i].Get(), events[i].get(), -1));
        poll->StartScheduler();
        // The last event of the wait is served: the wait holds them all.
        events[row.eventsThatFit - 1]->Set();
        ASSERT_TRUE(items[row.eventsThatFit - 1]->WaitRan());
        if (row.overdueItem) {
            ASSERT_TRUE(overdue->WaitRan());
        }
        EXPECT_TRUE(poll->IsSchedulerRunning());

        // One more is beyond the platform's limit: the wait fails and the scheduler ends.
        ASSERT_TRUE(poll->AddItem(items[row.eventsThatFit].Get(), events[row.eventsThatFit].get(), -1));
        ASSERT_TRUE(poll->GetSchedulerThread().WaitForStop(kGuardMs));
        EXPECT_EQ(log->Count("limit: Error while waiting"), 1u);
        EXPECT_FALSE(items[0]->WaitForRunDone(kGuardMs, nullptr)) << "no scheduler: no wait";
        poll->RemoveAllItems(true);
        EXPECT_EQ(poll->ItemCount(), 0u);
    }
}

// A poll thread that tells on which thread it was destroyed.
class WatchedPoll : public SyPollThread {
public:
    WatchedPoll(const std::string& name, SyEvent* destroyedEvent, std::atomic<DWORD>* destroyedOnThread)
        : SyPollThread(name), destroyed(destroyedEvent), destroyedOn(destroyedOnThread) {}
    ~WatchedPoll() override {
        *destroyedOn = GetCurrentThreadId();
        destroyed->Set();
    }

private:
    SyEvent* destroyed;
    std::atomic<DWORD>* destroyedOn;
};

TEST(SyPollLifetime, TheLastReferenceEndsTheSchedulerOnItsOwnThread) {
    ScopedSignallingLog log(LOG_INFO);
    SyEvent destroyed(true, false);
    std::atomic<DWORD> destroyedOn{0};
    RCPtr<SyPollThread> poll(new WatchedPoll("last", &destroyed, &destroyedOn));
    poll->logLevel = LOG_INFO;
    const uint64_t handle = poll->GetHandle();
    SyEvent wake(false, false);
    RCPtr<ProbeItem> item = MakeRC<ProbeItem>("item");
    ASSERT_TRUE(poll->AddItem(item.Get(), &wake, -1));
    log->Arm("last: Waiting for INFINITE");
    poll->StartScheduler();
    ASSERT_TRUE(log->WaitSeen());
    // Once the scheduler is back in its wait after the run, only an event can wake it.
    log->Arm("last: Waiting for INFINITE");
    wake.Set();
    ASSERT_TRUE(item->WaitRan());
    ASSERT_TRUE(log->WaitSeen());
    const DWORD schedulerThread = item->runThread;

    log->Arm("Thread SyPoll-last was deleted");
    poll = nullptr;
    EXPECT_EQ(destroyed.Wait(0), kWaitTimeout) << "the scheduler still holds a reference";
    wake.Set();  // the next end of the wait finds the last reference
    ASSERT_EQ(destroyed.Wait(kGuardMs), 0);
    EXPECT_EQ(destroyedOn, schedulerThread);
    ASSERT_TRUE(log->WaitSeen());
    EXPECT_EQ(log->Count("last: I'm the last reference"), 1u);
    EXPECT_FALSE(item->GetPollThread());
    EXPECT_EQ(item->pollHandle, 0u) << "the destructor took the item off";
    EXPECT_EQ(item->runs, 2) << "the run that ended the wait still happens";
    EXPECT_NE(handle, 0u);
}

void CALLBACK NoOpApc(ULONG_PTR) {}

TEST(SyPollSettings, AutoStartAlertableWaitAndImpersonationAreHonoured) {
    ScopedSignallingLog log(LOG_DEBUG);
    ScopedSessionFake sessions;
    RCPtr<SyPollThread> poll = MakeRC<SyPollThread>("settings");
    poll->autoStart = true;
    poll->alertable = true;
    poll->logLevel = LOG_DEBUG;
    SyEvent wake(false, false);
    std::atomic<int> impersonatedRuns{0};
    RCPtr<ProbeItem> item = MakeRC<ProbeItem>("who", nullptr, [&](ProbeItem&, bool) {
        HANDLE token = nullptr;
        if (OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, &token)) {
            CloseHandle(token);
            ++impersonatedRuns;
        }
        return true;
    });
    auto runOnce = [&] {
        wake.Set();
        return item->WaitRan();
    };

    EXPECT_FALSE(poll->IsSchedulerRunning());
    log->Arm("settings: Waiting for INFINITE");
    ASSERT_TRUE(poll->AddItem(item.Get(), &wake, -1));
    EXPECT_TRUE(poll->IsSchedulerRunning()) << "the first item started it";
    ASSERT_TRUE(log->WaitSeen());

    log->Arm("settings: alertable signaled");
    ASSERT_TRUE(QueueUserAPC(NoOpApc, poll->GetSchedulerThread().GetHandleEvent().GetHandle(), 0));
    ASSERT_TRUE(log->WaitSeen()) << "an APC ends the alertable wait";

    const int32_t own = static_cast<int32_t>(ProcessUtils::GetSessionID(false));
    poll->SetImpersonateSession(own);
    ASSERT_TRUE(runOnce());
    EXPECT_EQ(impersonatedRuns, 1) << "the item ran as the session's user";
    EXPECT_EQ(log->Count("settings: Started impersonating session " + std::to_string(own)), 1u);

    poll->SetImpersonateSession(-1);
    ASSERT_TRUE(runOnce());
    EXPECT_EQ(impersonatedRuns, 1);
    EXPECT_EQ(log->Count("settings: Stopped impersonating session " + std::to_string(own)), 1u);

    // A failure is logged once and not tried again; the items run on as the thread's own user.
    ScopedSessionFake::connectStateOk = false;
    poll->SetImpersonateSession(own + 7);
    ASSERT_TRUE(runOnce());
    ASSERT_TRUE(runOnce());
    EXPECT_EQ(impersonatedRuns, 1);
    EXPECT_EQ(log->Count("settings: Failed to impersonate session " + std::to_string(own + 7)), 1u);
    {
        SyMutexGuard hold(poll->GetLock());
        EXPECT_EQ(poll->impersonateSession, -1);
    }
    poll->StopScheduler();
}

}  // namespace
