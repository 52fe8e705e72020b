// The poll scheduler's own cost, each figure beside its floor:
//   wake:  an item's event set -> the item's Run entered, with 1 and with 60 event items on the
//          poll thread (the signalled one stands last in the wait, behind all the others);
//   floor: the same event set -> a bare thread's wait over as many handles returns;
//   pass:  back-to-back runs of an item that is always due (time-out 0): one scheduler pass,
//          with the lock, the scan, a wait that returns at once and the return to the list;
//   floor: one lock and unlock of a kernel mutex, the unit in which Wine charges the
//          foundation's locks and events.
#include <windows.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <thread>
#include <vector>

#include "bench/bench_clock.h"
#include "bench/bench_figures.h"
#include "foundation/sy_poll_thread.h"

namespace {

using bench::Now;
using bench::TicksPerMicrosecond;

// Lets the scheduler finish its pass and settle in its wait before the next round starts.
void Settle() { Sleep(2); }

class StampItem : public SyPollItem {
public:
    explicit StampItem(const std::string& name) : SyPollItem(name) {}
    bool Run(bool) override {
        entered = Now();
        ran.Set();
        return true;
    }
    std::atomic<int64_t> entered{0};
    SyEvent ran{false, false};
};

std::vector<double> PollWakes(int itemCount, int rounds) {
    const double perUs = TicksPerMicrosecond();
    RCPtr<SyPollThread> poll = MakeRC<SyPollThread>("bench");
    std::vector<std::unique_ptr<SyEvent>> events;
    std::vector<RCPtr<StampItem>> items;
    for (int i = 0; i < itemCount; ++i) {
        events.emplace_back(new SyEvent(false, false));
        items.push_back(MakeRC<StampItem>("item-" + std::to_string(i)));
        poll->AddItem(items.back().Get(), events.back().get(), -1);
    }
    poll->StartScheduler();
    StampItem* last = items.back().Get();
    std::vector<double> samples;
    for (int r = 0; r < rounds; ++r) {
        Settle();
        const int64_t start = Now();
        events.back()->Set();
        last->ran.Wait(kInfinite);
        samples.push_back(static_cast<double>(last->entered - start) / perUs);
    }
    poll->StopScheduler();
    poll->RemoveAllItems(true);
    return samples;
}

std::vector<double> BareWakes(int handleCount, int rounds) {
    const double perUs = TicksPerMicrosecond();
    std::vector<HANDLE> handles;
    for (int i = 0; i < handleCount; ++i) handles.push_back(CreateEventA(nullptr, FALSE, FALSE, nullptr));
    HANDLE quit = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    HANDLE woke = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    handles.insert(handles.begin(), quit);
    std::atomic<int64_t> entered{0};
    std::thread waiter([&] {
        while (WaitForMultipleObjects(static_cast<DWORD>(handles.size()), handles.data(), FALSE, INFINITE) !=
               WAIT_OBJECT_0) {
            entered = Now();
            SetEvent(woke);
        }
    });
    std::vector<double> samples;
    for (int r = 0; r < rounds; ++r) {
        Settle();
        const int64_t start = Now();
        SetEvent(handles.back());
        WaitForSingleObject(woke, INFINITE);
        samples.push_back(static_cast<double>(entered - start) / perUs);
    }
    SetEvent(quit);
    waiter.join();
    for (HANDLE h : handles) CloseHandle(h);
    CloseHandle(woke);
    return samples;
}

// Microseconds per run of an item that is always due, over batches of runs.
std::vector<double> ZeroTimeoutPasses(int batches, int runsPerBatch) {
    const double perUs = TicksPerMicrosecond();
    std::atomic<int> runs{0};
    std::atomic<int> target{0};
    SyEvent reached(false, false);
    class CountItem : public SyPollItem {
    public:
        CountItem(std::atomic<int>* count, std::atomic<int>* goal, SyEvent* signal)
            : SyPollItem("zero"), runs(count), target(goal), reached(signal) {}
        bool Run(bool) override {
            if (++*runs == *target) reached->Set();
            return true;
        }
        std::atomic<int>* runs;
        std::atomic<int>* target;
        SyEvent* reached;
    };
    RCPtr<SyPollThread> poll = MakeRC<SyPollThread>("bench");
    RCPtr<CountItem> item = MakeRC<CountItem>(&runs, &target, &reached);
    std::vector<double> samples;
    poll->AddItem(item.Get(), -1);
    poll->StartScheduler();
    for (int b = 0; b < batches; ++b) {
        target = runs + runsPerBatch;
        const int64_t start = Now();
        item->SetTimeoutMS(0, true);
        reached.Wait(kInfinite);
        const int64_t end = Now();
        item->Disable(true);
        item->SetTimeoutMS(-1, true);
        item->Enable();
        samples.push_back(static_cast<double>(end - start) / perUs / runsPerBatch);
    }
    poll->StopScheduler();
    poll->RemoveAllItems(true);
    return samples;
}

std::vector<double> KernelMutexPairs(int rounds) {
    const double perUs = TicksPerMicrosecond();
    HANDLE mutex = CreateMutexA(nullptr, FALSE, nullptr);
    std::vector<double> samples;
    for (int r = 0; r < rounds; ++r) {
        const int64_t start = Now();
        WaitForSingleObject(mutex, INFINITE);
        ReleaseMutex(mutex);
        samples.push_back(static_cast<double>(Now() - start) / perUs);
    }
    CloseHandle(mutex);
    return samples;
}

}  // namespace

int main(int argc, char** argv) {
    bench::Options options = bench::ParseOptions("poll_bench", argc, argv, 200);
    if (!options.ok) return 2;
    const int many = MAXIMUM_WAIT_OBJECTS - 4;  // with the fixed entries and room for a reserved pair
    bench::Figures figures;
    figures.AddSeries("wake_1_item", "us", PollWakes(1, options.rounds));
    figures.AddSeries("bare_wake_1_handle", "us", BareWakes(1, options.rounds));
    figures.AddSeries("wake_60_items", "us", PollWakes(many, options.rounds));
    figures.AddSeries("bare_wake_60_handles", "us", BareWakes(many, options.rounds));
    figures.AddSeries("zero_timeout_pass", "us", ZeroTimeoutPasses(options.rounds / 10 + 1, 100));
    figures.AddSeries("kernel_mutex_pair", "us", KernelMutexPairs(options.rounds));
    figures.Print(options.json);
    return 0;
}
