// One scheduler thread serving many small jobs. Each SyPollItem wants to run when its event
// fires, when its time-out passes, or whichever comes first; one wait covers all of them. One
// item runs per pass and then goes to the end of the list, and an overdue timed item gets two
// entries of its own in the wait, so neither a busy event nor a zero time-out starves anyone.
//
// Items and the scheduler thread know the poll thread by its registry handle only, so neither
// keeps it alive; when the scheduler finds that it holds the last reference, it ends and the
// poll thread is destroyed on its own thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <list>
#include <string>
#include <vector>

#include "foundation/rc_object.h"
#include "foundation/sy_event.h"
#include "foundation/sy_mutex.h"
#include "foundation/sy_thread.h"
#include "foundation/sy_timer.h"

class SyImpersonateSession;
class SyPollThread;
class SyPollItem;

using SyPollItemList = std::list<RCPtr<SyPollItem>>;

// A job of a poll thread. A subclass overrides Run and nothing else.
//
// The fields below the name belong to the poll lock while the item is on a poll thread: read or
// change them only through the operations, or while holding SyPollThread::GetLock().
class SyPollItem : public RCObject {
public:
    explicit SyPollItem(const std::string& name);
    ~SyPollItem() override;

    // The item's work, on the scheduler thread with no lock held. timedOut: the time-out passed
    // rather than the event firing. true keeps the item on the list, false removes it. Must not
    // throw.
    virtual bool Run(bool timedOut);

    // The poll thread that holds the item, null if none (or if it has gone: the handle is then
    // forgotten).
    RCPtr<SyPollThread> GetPollThread();
    // Counted: true if the item is enabled after this call.
    bool Enable();
    // wait: first wait for a run of this item in progress to end; from inside Run, no wait.
    void Disable(bool wait);
    bool Remove(bool wait);
    // Null: no event. The caller keeps the event alive while the item uses it.
    void SetEvent(SyEvent* newEvent);
    // The same, with shared ownership of the event.
    void SetRCEvent(const RCPtr<SyEvent>& newEvent);
    // -1 (kInfinite as signed): no time-out. resetTimer false keeps the time since the last run,
    // so a shorter time-out can be due at once.
    void SetTimeoutMS(int32_t milliseconds, bool resetTimer);
    // Waits for the end of the next (or present) run; false if the time-out passed, the scheduler
    // thread ended, the extra event fired, there is no poll thread, or the caller is the
    // scheduler thread.
    bool WaitForRunDone(uint32_t timeoutMs, SyEvent* extraEvent);

    const std::string& GetName() const { return name; }

    const std::string name;
    SyEvent* event = nullptr;
    RCPtr<SyEvent> rcEvent;
    RCPtr<SyEvent> doneEvent;  // manual reset; set after each run, reset when the item enters a list
    SyElapsedTimer timer;      // time since the item last entered a list (its last run)
    int32_t timeoutMs = 0;     // 0: due at once
    int32_t disabledCount = 0; // enabled while 0 or less
    std::string timeoutText;
    // The owner's registry handle, 0 if none. Read without the lock to find the lock.
    std::atomic<uint64_t> pollHandle{0};
    SyPollItemList::iterator listNode;

private:
    // After a change of the event: the scheduler rebuilds its wait; the log line.
    void EventChanged(SyPollThread* poll, int32_t level, const char* pollName, const char* label);

    // WaitForItemToComplete callers waiting on this item's run; while there are any, going back
    // on the list after the run leaves doneEvent set, so a waiter that has let go of the lock but
    // not yet begun its wait still sees the completion.
    int32_t completionWaiters = 0;
    bool listed = false;  // listNode is valid

    friend class SyPollThread;
};

class SyPollThread : public RCObject {
public:
    explicit SyPollThread(const std::string& name);
    ~SyPollThread() override;

    // Adds the item to the end of the list (moves it there if it is already ours) and restarts its
    // timer. false for null or for an item of another poll thread.
    bool AddItem(SyPollItem* item);
    bool AddItem(SyPollItem* item, int32_t timeoutMs);
    bool AddItem(SyPollItem* item, SyEvent* itemEvent, int32_t timeoutMs);
    bool HasItem(SyPollItem* item);
    // wait: first wait for a run of the item in progress to end (never blocks inside the item's
    // own Run).
    bool RemoveItem(SyPollItem* item, bool wait);
    void RemoveAllItems(bool wait);
    // Called with the poll lock held, at any depth: gives the lock up entirely while the run of
    // the item (null: whatever item runs) ends, and takes it back to the same depth.
    void WaitForItemToComplete(SyPollItem* item);
    void LogAllItems(int32_t level);
    // Makes another mutex the poll lock (not owned, and it must outlive this object). Once,
    // right after construction.
    void SetLock(SyMutex* mutex);
    void StartScheduler();
    void StopScheduler();

    SyMutex* GetLock() { return externalLock ? externalLock : &lock; }
    uint64_t GetHandle() const { return handle; }
    const std::string& GetName() const { return name; }
    size_t ItemCount();
    bool IsSchedulerRunning() { return schedulerThread.IsRunning(); }
    bool IsSchedulerThread() { return schedulerThread.IsCurrentThread(); }
    SyThread& GetSchedulerThread() { return schedulerThread; }

    // Makes the scheduler thread work as the user of a session (-1: as itself) from its next
    // pass on, which this brings at once.
    void SetImpersonateSession(int32_t session);

    // Settings the scheduler honours; nothing in the system changes them from these defaults.
    bool autoStart = false;           // AddItem starts the scheduler for the first item
    bool alertable = false;           // the scheduler's wait is alertable
    int32_t logLevel = 7;             // level of the chatty lines of this thread (7: never)
    int32_t impersonateSession = -1;  // session whose user the scheduler works as; -1 none; poll lock

private:
    static bool SchedulerThreadCB(void* userData, SyThread* thread);
    bool Scheduler(SyThread* thread);
    // Makes the scheduler thread work as the user of impersonateSession, if that changed.
    void FollowImpersonation(SyImpersonateSession& impersonation);
    // Puts the item at the end of the list; the caller holds the poll lock.
    void InsertItem(SyPollItem* item, bool resetTimer);
    // Takes the item off the list; false if it wasn't on it. The caller holds the poll lock.
    bool UnlinkItem(SyPollItem* item);
    bool StartSchedulerLocked();

    const std::string name;
    SyThread schedulerThread;
    SyMutex lock;
    SyEvent dirtyEvent;
    SyMutex* externalLock = nullptr;
    SyPollItem* currentItem = nullptr;
    SyPollItemList items;
    uint64_t handle = 0;

    friend class SyPollItem;
};
