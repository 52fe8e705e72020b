// One thread of the authenticator's own for all of its CNG work. Under Wine a thread that made
// and used an ECDSA key leaves a couple of hundred bytes behind when it ends, and the plug-in
// calls in from a new worker thread for every operation: on the callers' threads the keys would
// cost memory with every operation, on one long-lived thread they cost it once.
#pragma once

#include <windows.h>

#include <list>
#include <memory>
#include <mutex>
#include <utility>

#include "sysutil/scoped_handle.h"

namespace simauth {

class CryptoThread {
public:
    // Runs fn on the crypto thread, started on first use, and returns what it returned. fn must
    // own everything it reads (capture by value): a caller killed while it waits leaves its job
    // behind, and the job must not reach into that caller's stack.
    template <class Fn>
    auto Run(Fn fn) -> decltype(fn()) {
        std::unique_ptr<JobBase> done = Hand(std::make_unique<Job<Fn>>(std::move(fn)));
        return std::move(static_cast<Job<Fn>*>(done.get())->result);
    }

    // Runs the jobs still queued, ends the thread and waits for it.
    void Stop();
    // While held, jobs wait in the queue: a test's way to keep a caller waiting for its job.
    void Hold(bool hold);
    // Callers whose thread ended while their job was queued, running or not yet collected.
    LONG Killed();
    // Jobs handed in and not yet collected by a living caller; the thread's id, 0 when none.
    LONG Pending();
    DWORD ThreadId();
    void ClearKilled();

private:
    struct JobBase {
        virtual ~JobBase() = default;
        virtual void Work() = 0;
        ScopedHandle caller;
        ScopedHandle done{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
        bool running = false;
        bool finished = false;
    };
    template <class Fn>
    struct Job : JobBase {
        explicit Job(Fn f) : fn(std::move(f)) {}
        void Work() override { result = fn(); }
        Fn fn;
        decltype(std::declval<Fn&>()()) result{};
    };

    // Queues the job (owned by the queue from here on), waits for it and takes it back.
    std::unique_ptr<JobBase> Hand(std::unique_ptr<JobBase> owned);
    static DWORD WINAPI Main(void* self);
    void Serve();
    // Under mutex.
    void ReapKilled();
    JobBase* NextJob();
    bool StartThread();

    std::mutex mutex;
    std::mutex stopping;  // one Stop at a time
    std::list<std::unique_ptr<JobBase>> jobs;
    ScopedHandle wake{CreateEventW(nullptr, FALSE, FALSE, nullptr)};
    ScopedHandle thread;
    DWORD threadId = 0;
    bool stopRequested = false;
    bool held = false;
    LONG killed = 0;
};

}  // namespace simauth
