#include "foundation/sy_poll_thread.h"

#include "foundation/user_data_map.h"
#include "logging/function_trace.h"
#include "logging/log.h"
#include "sysutil/process_utils.h"
#include "sysutil/string_utils.h"

namespace {

using PollThreadMap = UserDataMap<WkPtr<SyPollThread>>;

// Built on first use and never destroyed: a scheduler thread that outlives the static objects
// at process exit still finds it, and finds nothing in it.
PollThreadMap& PollThreads() {
    static PollThreadMap* map = new PollThreadMap(false);
    return *map;
}

// Items and waiters hold a strong reference while they work on a poll thread; its scheduler
// holds one for the whole call of Scheduler.
RCPtr<SyPollThread> FindPollThread(uint64_t key) { return key ? PollThreads().Find(key).Lock() : nullptr; }

constexpr int32_t kTimeoutInfinite = -1;
// Added to disabledCount while a caller waits for a run to end, so that the waited-for items
// can't be chosen again meanwhile, without disturbing the count of Enable and Disable.
constexpr int32_t kWaitDisable = 1000000;

const char* kNoPollThreadName = "---";

void* HandleText(uint64_t key) { return reinterpret_cast<void*>(static_cast<uintptr_t>(key)); }

std::string SecondsText(double seconds) { return StringUtils::FormatDuration(seconds, 3); }

std::string TimeoutText(int32_t milliseconds) {
    return milliseconds == kTimeoutInfinite ? std::string("INFINITE") : SecondsText(milliseconds / 1000.0);
}

// What an item's operation needs of the poll thread that holds the item: the poll thread
// (kept alive for the operation), its lock held for the operation, and the name and level of
// its log lines. An item without a poll thread takes no lock and logs at a fixed level.
class ItemScope {
public:
    ItemScope(SyPollItem* item, int32_t levelWithoutPollThread)
        : poll(item->GetPollThread()),
          guard(poll ? poll->GetLock() : nullptr),
          level(poll ? poll->logLevel : levelWithoutPollThread) {}

    const char* Name() const { return poll ? poll->GetName().c_str() : kNoPollThreadName; }

    RCPtr<SyPollThread> poll;
    SyMutexGuard guard;
    int32_t level;
};

}  // namespace

// ---------------------------------------------------------------------------------------------
// SyPollItem

SyPollItem::SyPollItem(const std::string& itemName)
    : name(itemName), doneEvent(new SyEvent(true, false)), timeoutText(TimeoutText(0)) {}

SyPollItem::~SyPollItem() = default;

bool SyPollItem::Run(bool) { return false; }

RCPtr<SyPollThread> SyPollItem::GetPollThread() {
    uint64_t key = pollHandle;
    RCPtr<SyPollThread> poll = FindPollThread(key);
    if (!poll && key != 0) {
        SY_LOG(LOG_WARN, "SyPollItem::GetPollThread()", "%s: SyPollThread 0x%p has been deleted", name.c_str(),
               HandleText(key));
        // Only the handle found gone is forgotten, not one that an AddItem stored meanwhile.
        pollHandle.compare_exchange_strong(key, 0);
    }
    return poll;
}

bool SyPollItem::Enable() {
    ItemScope scope(this, LOG_DEBUG);
    if (--disabledCount == 0) {
        if (scope.poll) scope.poll->dirtyEvent.Set();
        SY_LOG(scope.level, "SyPollItem::Enable()", "%s: Item %s enabled", scope.Name(), name.c_str());
    }
    return disabledCount < 1;
}

void SyPollItem::Disable(bool wait) {
    ItemScope scope(this, LOG_DEBUG);
    if (wait && scope.poll) scope.poll->WaitForItemToComplete(this);
    if (++disabledCount == 1) {
        if (scope.poll) scope.poll->dirtyEvent.Set();
        SY_LOG(scope.level, "SyPollItem::Disable()", "%s: Item %s disabled", scope.Name(), name.c_str());
    }
}

bool SyPollItem::Remove(bool wait) {
    RCPtr<SyPollThread> poll = GetPollThread();
    return poll && poll->RemoveItem(this, wait);
}

void SyPollItem::SetEvent(SyEvent* newEvent) {
    ItemScope scope(this, LOG_VERBOSE);
    if (newEvent == event && !rcEvent) return;
    event = newEvent;
    rcEvent = nullptr;
    EventChanged(scope.poll.Get(), scope.level, scope.Name(), "SyPollItem::SetEvent()");
}

void SyPollItem::SetRCEvent(const RCPtr<SyEvent>& newEvent) {
    ItemScope scope(this, LOG_VERBOSE);
    if (newEvent.Get() == event && newEvent.Get() == rcEvent.Get()) return;
    event = newEvent.Get();
    rcEvent = newEvent;
    EventChanged(scope.poll.Get(), scope.level, scope.Name(), "SyPollItem::SetRCEvent()");
}

void SyPollItem::EventChanged(SyPollThread* poll, int32_t level, const char* pollName, const char* label) {
    if (poll) poll->dirtyEvent.Set();
    if (!event) {
        SY_LOG(level, label, "%s: Item %s event set to NULL", pollName, name.c_str());
    } else {
        SY_LOG(level, label, "%s: Item %s event set to 0x%lx", pollName, name.c_str(),
               static_cast<unsigned long>(event->GetHandleValue()));
    }
}

void SyPollItem::SetTimeoutMS(int32_t milliseconds, bool resetTimer) {
    ItemScope scope(this, LOG_VERBOSE);
    if (milliseconds == timeoutMs && !resetTimer) return;
    std::string note;
    if (resetTimer) {
        timer.Elapsed(TimerOp::Reset);
        note = "timer reset";
    } else if (processLogLevel >= scope.level) {
        note = StringUtils::FormatString("timer at %s", SecondsText(timer.ElapsedSeconds()).c_str());
    }
    timeoutText = TimeoutText(milliseconds);
    timeoutMs = milliseconds;
    if (scope.poll) scope.poll->dirtyEvent.Set();
    SY_LOG(scope.level, "SyPollItem::SetTimeoutMS()", "%s: Item %s timeout set to %s (%s)", scope.Name(),
           name.c_str(), timeoutText.c_str(), note.c_str());
}

bool SyPollItem::WaitForRunDone(uint32_t waitMs, SyEvent* extraEvent) {
    RCPtr<SyPollThread> poll = GetPollThread();
    if (!poll || poll->schedulerThread.HasStopped() || poll->schedulerThread.IsCurrentThread()) return false;
    // The scheduler thread's handle ends the wait if the thread dies before the run ends.
    RCPtr<SyEvent> done = doneEvent;
    SyEvent* waitSet[3] = {done.Get(), &poll->schedulerThread.GetHandleEvent(), extraEvent};
    return SyEvent::WaitMultiple(waitSet, extraEvent ? 3 : 2, false, waitMs, false, false) == 0;
}

// ---------------------------------------------------------------------------------------------
// SyPollThread

SyPollThread::SyPollThread(const std::string& threadName)
    : name(threadName), schedulerThread("SyPoll-" + threadName), lock(false, ""), dirtyEvent(false, false, "") {
    handle = PollThreads().Add(WkPtr<SyPollThread>(this));
    SY_LOG(LOG_DEBUG, "SyPollThread::SyPollThread()", "%s: 0x%p", name.c_str(), HandleText(handle));
}

SyPollThread::~SyPollThread() {
    FunctionTrace trace(LOG_DEBUG, "SyPollThread::~SyPollThread()", nullptr, "%s: 0x%p", name.c_str(),
                        HandleText(handle));
    RemoveAllItems(false);
    // Doesn't wait: this may be the scheduler thread itself, dropping the last reference.
    schedulerThread.Stop(0);
    PollThreads().Remove(handle);
    handle = 0;
}

size_t SyPollThread::ItemCount() {
    SyMutexGuard guard(GetLock());
    return items.size();
}

void SyPollThread::SetLock(SyMutex* mutex) {
    SyMutexGuard guard(GetLock());
    externalLock = mutex;
}

void SyPollThread::InsertItem(SyPollItem* item, bool resetTimer) {
    if (item->pollHandle == 0) {
        item->pollHandle = handle;
    } else {
        UnlinkItem(item);
    }
    item->listNode = items.insert(items.end(), RCPtr<SyPollItem>(item));
    item->listed = true;
    if (resetTimer) item->timer.Elapsed(TimerOp::Reset);
    if (item->completionWaiters == 0) item->doneEvent->Reset();
    dirtyEvent.Set();
}

bool SyPollThread::UnlinkItem(SyPollItem* item) {
    SyPollItemList::iterator node = items.end();
    if (item->listed && item->listNode->Get() == item) {
        node = item->listNode;
    } else {
        for (auto it = items.begin(); it != items.end(); ++it) {
            if (it->Get() == item) {
                node = it;
                break;
            }
        }
    }
    if (node == items.end()) return false;
    // The list's reference may be the item's last; keep it until the item's fields are done.
    RCPtr<SyPollItem> keep = *node;
    items.erase(node);
    item->listed = false;
    return true;
}

bool SyPollThread::AddItem(SyPollItem* item) {
    SyMutexGuard guard(GetLock());
    if (!item) {
        SY_LOG(LOG_DEBUG, "SyPollThread::AddItem()", "%s: item == NULL", name.c_str());
        return false;
    }
    uint64_t owner = item->pollHandle;
    if (owner != 0 && owner != handle) {
        SY_LOG(LOG_DEBUG, "SyPollThread::AddItem()", "%s: Item %s already belongs to 0x%p", name.c_str(),
               item->name.c_str(), HandleText(owner));
        return false;
    }
    if (autoStart && items.empty()) StartSchedulerLocked();
    InsertItem(item, true);
    SY_LOG(logLevel, "SyPollThread::AddItem()", "%s: Item %s added", name.c_str(), item->name.c_str());
    return true;
}

bool SyPollThread::AddItem(SyPollItem* item, int32_t timeoutMs) {
    SyMutexGuard guard(GetLock());
    if (!AddItem(item)) return false;
    item->SetTimeoutMS(timeoutMs, true);
    return true;
}

bool SyPollThread::AddItem(SyPollItem* item, SyEvent* itemEvent, int32_t timeoutMs) {
    SyMutexGuard guard(GetLock());
    if (!AddItem(item)) return false;
    item->SetEvent(itemEvent);
    item->SetTimeoutMS(timeoutMs, true);
    return true;
}

bool SyPollThread::HasItem(SyPollItem* item) {
    SyMutexGuard guard(GetLock());
    return item && item->pollHandle == handle;
}

bool SyPollThread::RemoveItem(SyPollItem* item, bool wait) {
    SyMutexGuard guard(GetLock());
    if (!item) {
        SY_LOG(LOG_DEBUG, "SyPollThread::RemoveItem()", "%s: item == NULL", name.c_str());
        return false;
    }
    if (item->pollHandle == 0) return false;
    if (item->pollHandle != handle) {
        SY_LOG(LOG_DEBUG, "SyPollThread::RemoveItem()", "%s: Item %s belongs to 0x%p", name.c_str(),
               item->name.c_str(), HandleText(item->pollHandle));
        return false;
    }
    // Keeps the item alive for this call when the list holds its last reference.
    RCPtr<SyPollItem> keep(item);
    if (wait) WaitForItemToComplete(item);
    bool found = UnlinkItem(item);
    item->pollHandle = 0;
    if (!found) {
        SY_LOG(LOG_DEBUG, "SyPollThread::RemoveItem()", "%s: Item %s not found", name.c_str(), item->name.c_str());
        return false;
    }
    SY_LOG(logLevel, "SyPollThread::RemoveItem()", "%s: Item %s removed", name.c_str(), item->name.c_str());
    dirtyEvent.Set();
    return true;
}

void SyPollThread::RemoveAllItems(bool wait) {
    SyMutexGuard guard(GetLock());
    if (items.empty()) return;
    if (wait) WaitForItemToComplete(nullptr);
    while (!items.empty()) {
        RCPtr<SyPollItem> item = items.front();
        bool found = item && UnlinkItem(item.Get());
        if (!found) items.pop_front();  // the loop ends whatever the node holds
        if (item) item->pollHandle = 0;
        const char* itemName = item ? item->name.c_str() : "(null)";
        if (found) {
            SY_LOG(logLevel, "SyPollThread::RemoveAllItems()", "%s: Item %s %s", name.c_str(), itemName, "removed");
        } else {
            SY_LOG(LOG_WARN, "SyPollThread::RemoveAllItems()", "%s: Item %s %s", name.c_str(), itemName, "not found");
        }
    }
    dirtyEvent.Set();
}

void SyPollThread::WaitForItemToComplete(SyPollItem* item) {
    SyMutexGuard guard(GetLock());
    if (!currentItem || (item && item != currentItem) || schedulerThread.IsCurrentThread()) return;
    const char* what = item ? item->name.c_str() : "all items";
    FunctionTrace trace(LOG_DEBUG, "SyPollThread::WaitForItemToComplete()", nullptr, "%s: Waiting for %s to complete",
                        name.c_str(), what);
    std::vector<RCPtr<SyPollItem>> held;
    if (item) {
        held.emplace_back(item);
    } else {
        held.assign(items.begin(), items.end());
    }
    for (auto& h : held) h->disabledCount += kWaitDisable;
    RCPtr<SyPollItem> running(currentItem);
    ++running->completionWaiters;
    bool completed;
    {
        // The run can only end once the scheduler gets the lock, so every level goes, also those
        // of a caller that holds the lock several levels deep.
        SyMutexUnwind unwind(GetLock());
        completed = running->WaitForRunDone(kInfinite, nullptr);
    }
    // Back on the list in the meantime, the item kept doneEvent set for this waiter; the last
    // waiter gives it the state the return to the list would have given it.
    if (--running->completionWaiters == 0 && running.Get() != currentItem && running->pollHandle == handle) {
        running->doneEvent->Reset();
    }
    for (auto& h : held) h->disabledCount -= kWaitDisable;
    // The scheduler may have built its wait while these items were held back; without a rebuild
    // their events would stay out of it until some other change came along.
    if (!held.empty()) dirtyEvent.Set();
    trace.SetExitText(LOG_DEBUG, "%s: %s %s", name.c_str(), what, completed ? "completed" : "did not complete");
}

void SyPollThread::LogAllItems(int32_t level) {
    if (level > processLogLevel) return;
    SyMutexGuard guard(GetLock());
    std::string text = StringUtils::FormatString("%s - %d item%s\n", name.c_str(), static_cast<int>(items.size()),
                                                 items.size() == 1 ? "" : "s");
    for (const auto& item : items) {
        text += StringUtils::FormatString("   %s - timeout(%s)  elapsed(%s)  paused(%s)  event(%s)  disabled(%d)\n",
                                          item->name.c_str(), item->timeoutText.c_str(),
                                          SecondsText(item->timer.ElapsedSeconds()).c_str(),
                                          item->timer.IsPaused() ? "TRUE" : "FALSE", item->event ? "TRUE" : "FALSE",
                                          item->disabledCount);
    }
    Log("SyPollThread::LogAllItems()", level, "%s\n", text.c_str());
}

void SyPollThread::SetImpersonateSession(int32_t session) {
    SyMutexGuard guard(GetLock());
    impersonateSession = session;
    dirtyEvent.Set();
}

bool SyPollThread::StartSchedulerLocked() {
    if (schedulerThread.IsRunning()) return true;
    FunctionTrace trace(LOG_INFO, "SyPollThread::StartScheduler()", nullptr, "%s", name.c_str());
    if (!schedulerThread.Start(SchedulerThreadCB, HandleText(handle), 0, false)) {
        trace.SetExitText(LOG_WARN, "%s: Failed to start scheduler thread", name.c_str());
        return false;
    }
    return true;
}

void SyPollThread::StartScheduler() {
    SyMutexGuard guard(GetLock());
    StartSchedulerLocked();
}

void SyPollThread::StopScheduler() {
    SyMutexGuard guard(GetLock());
    if (!schedulerThread.IsRunning()) return;
    FunctionTrace trace(LOG_INFO, "SyPollThread::StopScheduler()", nullptr, "%s", name.c_str());
    // The scheduler takes the poll lock on its way out; a caller holding it would wait forever.
    SyMutexUnwind unwind(GetLock());
    schedulerThread.Stop(kInfinite);
}

bool SyPollThread::SchedulerThreadCB(void* userData, SyThread* thread) {
    const uint64_t key = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(userData));
    RCPtr<SyPollThread> self = FindPollThread(key);
    if (!self) {
        SY_LOG(LOG_DEBUG, "SyPollThread::SchedulerThreadCB()", "SyPollThread 0x%p not found", userData);
        return false;
    }
    // If self is the last reference, the poll thread is destroyed here, on its own thread.
    return self->Scheduler(thread);
}

void SyPollThread::FollowImpersonation(SyImpersonateSession& impersonation) {
    if (impersonateSession == impersonation.GetSession()) return;
    if (impersonation.IsImpersonating()) {
        const int32_t previous = impersonation.GetSession();
        if (!impersonation.Stop()) {
            SY_LOG(LOG_ERROR, "SyPollThread::Scheduler()", "%s: Failed to stop impersonating session %d", name.c_str(),
                   previous);
        } else {
            SY_LOG(logLevel, "SyPollThread::Scheduler()", "%s: Stopped impersonating session %d", name.c_str(),
                   previous);
        }
    }
    impersonation.Clear();
    if (impersonateSession == -1) return;
    if (!impersonation.Init(static_cast<uint32_t>(impersonateSession)) || !impersonation.Start()) {
        SY_LOG(LOG_ERROR, "SyPollThread::Scheduler()", "%s: Failed to impersonate session %d", name.c_str(),
               impersonateSession);
        // Not tried again on every pass.
        impersonateSession = impersonation.GetSession();
        return;
    }
    SY_LOG(logLevel, "SyPollThread::Scheduler()", "%s: Started impersonating session %d", name.c_str(),
           impersonateSession);
}

bool SyPollThread::Scheduler(SyThread*) {
    static const char* const kLabel = "SyPollThread::Scheduler()";
    FunctionTrace trace(LOG_INFO, kLabel, nullptr, "%s: 0x%p", name.c_str(), HandleText(handle));
    SyMutexGuard guard(GetLock());
    // Index 0 ends the thread, index 1 rebuilds the wait; the items follow from index 2.
    std::vector<SyEvent*> waitEvents{&schedulerThread.GetStopEvent(), &dirtyEvent};
    std::vector<RCPtr<SyPollItem>> waitItems(2);
    // Stands in the two entries reserved for an overdue item: always signalled, never reset.
    SyEvent signalled(true, true);
    SyImpersonateSession impersonation;
    SyElapsedTimer clock;

    for (;;) {
        if (IsCounted() && RefCount() <= 1) {
            trace.SetExitText(LOG_INFO, "%s: I'm the last reference", name.c_str());
            return true;
        }
        FollowImpersonation(impersonation);

        RCPtr<SyPollItem> next;
        int64_t best = -1;
        int64_t reserved = -1;
        const int64_t now = clock.GetTicks();
        waitEvents.resize(items.size() + 4);
        waitItems.resize(items.size() + 4);
        size_t fill = 2;
        for (const RCPtr<SyPollItem>& item : items) {
            if (item->disabledCount > 0) continue;
            if (!item->timer.IsPaused() && item->timeoutMs != kTimeoutInfinite) {
                int64_t remaining = item->timeoutMs - item->timer.ElapsedMs(TimerOp::Query, now);
                if (remaining == -1) remaining = 0;  // -1 would read as INFINITE
                if (!next || remaining < best) {
                    next = item;
                    best = remaining;
                    // Two entries held free ahead of the items behind this one, so none of them
                    // can delay the most overdue item.
                    if (remaining < 1 && reserved == -1) {
                        reserved = static_cast<int64_t>(fill);
                        fill += 2;
                    }
                }
            }
            if (item->event) {
                waitEvents[fill] = item->event;
                waitItems[fill] = item;
                ++fill;
            }
        }
        if (reserved != -1) {
            waitEvents[reserved] = next->event ? next->event : &signalled;
            waitItems[reserved] = next;
            waitEvents[reserved + 1] = &signalled;
            waitItems[reserved + 1] = next;
            SY_LOG(logLevel, kLabel, "%s: Prioritized timed item %s @ %d", name.c_str(), next->name.c_str(),
                   static_cast<int>(reserved));
        }
        waitEvents.resize(fill);
        waitItems.resize(fill);
        // Under the lock and after the scan: a change from here on sets the event again.
        dirtyEvent.Reset();

        uint32_t waitMs = kInfinite;
        if (best != -1) {
            int64_t left = 0;
            if (best > 0) {
                // The time spent scanning counts.
                left = next->timeoutMs - next->timer.ElapsedMs();
                if (left < 0) left = 0;
            }
            waitMs = static_cast<uint32_t>(left);
        }
        if (processLogLevel >= logLevel) {
            std::string waitText = waitMs == kInfinite ? std::string("INFINITE") : SecondsText(waitMs / 1000.0);
            if (!next) {
                Log(kLabel, logLevel, "%s: Waiting for %s", name.c_str(), waitText.c_str());
            } else {
                Log(kLabel, logLevel, "%s: Waiting for %s (%s)", name.c_str(), next->name.c_str(), waitText.c_str());
            }
            LogAllItems(logLevel);
        }

        guard.Unlock();
        const int32_t result = SyEvent::WaitMultiple(waitEvents, false, waitMs, false, alertable);
        guard.Lock();

        RCPtr<SyPollItem> toRun;
        bool timedOut = false;
        if (result == kWaitError) {
            trace.SetExitText(LOG_ERROR, "%s: Error while waiting", name.c_str());
            return false;
        } else if (result == 0) {
            trace.SetExitText(LOG_INFO, "%s: Exit event signaled", name.c_str());
            return false;
        } else if (result == 1) {
            SY_LOG(logLevel, kLabel, "%s: Dirty event signaled", name.c_str());
        } else if (result == kWaitAlerted) {
            SY_LOG(logLevel, kLabel, "%s: alertable signaled", name.c_str());
        } else if (result == kWaitTimeout ||
                   (result >= 0 && static_cast<size_t>(result) < waitEvents.size() && waitEvents[result] == &signalled)) {
            toRun = next;
            timedOut = true;
        } else if (result >= 0 && static_cast<size_t>(result) < waitItems.size()) {
            toRun = waitItems[result];
        }

        // The checks come after the wait: what changed during it counts.
        if (toRun && toRun->disabledCount <= 0 && !toRun->timer.IsPaused() && toRun->pollHandle == handle) {
            SY_LOG(logLevel, kLabel, "%s: Item %s %s(%d); last run %s ago", name.c_str(), toRun->name.c_str(),
                   timedOut ? "timed out" : "signaled", static_cast<int>(result),
                   SecondsText(toRun->timer.ElapsedSeconds()).c_str());
            currentItem = toRun.Get();
            guard.Unlock();
            SyElapsedTimer runTimer;
            const bool keep = toRun->Run(timedOut);
            const double took = runTimer.ElapsedSeconds();
            guard.Lock();
            currentItem = nullptr;
            toRun->doneEvent->Set();
            SY_LOG(logLevel, kLabel, "%s: Item %s took %s", name.c_str(), toRun->name.c_str(), SecondsText(took).c_str());
            // Taken off during its run, the item is no longer ours and its result doesn't count.
            if (toRun->pollHandle == handle) {
                if (keep) {
                    InsertItem(toRun.Get(), true);
                } else {
                    RemoveItem(toRun.Get(), false);
                }
            }
        }
    }
}
