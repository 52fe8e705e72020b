#include "foundation/sy_poll_thread.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "support/log_capture.h"

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

}  // namespace
