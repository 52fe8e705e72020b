#include "sim/authenticator/crypto_thread.h"

namespace simauth {

namespace {

bool Ended(HANDLE thread) { return WaitForSingleObject(thread, 0) == WAIT_OBJECT_0; }

}  // namespace

std::unique_ptr<CryptoThread::JobBase> CryptoThread::Hand(std::unique_ptr<JobBase> owned) {
    JobBase* const job = owned.get();
    DuplicateHandle(GetCurrentProcess(), GetCurrentThread(), GetCurrentProcess(), job->caller.Out(), SYNCHRONIZE,
                    FALSE, 0);
    bool here = false;
    {
        std::lock_guard<std::mutex> lock(mutex);
        // Already on the crypto thread, or no way to get there: the work is done here.
        here = GetCurrentThreadId() == threadId || !job->done.Valid() || !job->caller.Valid() ||
               (!thread.Valid() && !StartThread());
        if (!here) jobs.push_back(std::move(owned));
    }
    if (here) {
        owned->Work();
        return owned;
    }
    SetEvent(wake.Get());
    // No lock held while waiting: a caller killed here blocks nobody, and the thread reaps its job.
    WaitForSingleObject(job->done.Get(), INFINITE);
    std::lock_guard<std::mutex> lock(mutex);
    for (auto it = jobs.begin(); it != jobs.end(); ++it) {
        if (it->get() == job) {
            owned = std::move(*it);
            jobs.erase(it);
            break;
        }
    }
    return owned;
}

bool CryptoThread::StartThread() {
    DWORD id = 0;
    *thread.Out() = CreateThread(nullptr, 0, Main, this, 0, &id);
    threadId = thread.Valid() ? id : 0;
    return thread.Valid();
}

// Holds a reference on the module, so that code of this DLL never runs after its unload.
DWORD WINAPI CryptoThread::Main(void* self) {
    HMODULE module = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, reinterpret_cast<LPCWSTR>(&CryptoThread::Main),
                       &module);
    static_cast<CryptoThread*>(self)->Serve();
    if (module) FreeLibraryAndExitThread(module, 0);
    return 0;
}

void CryptoThread::Serve() {
    for (;;) {
        JobBase* job = nullptr;
        {
            std::lock_guard<std::mutex> lock(mutex);
            ReapKilled();
            job = NextJob();
            if (!job && stopRequested) return;
            if (job) job->running = true;
        }
        if (!job) {
            WaitForSingleObject(wake.Get(), INFINITE);
            continue;
        }
        job->Work();
        std::lock_guard<std::mutex> lock(mutex);
        job->running = false;
        job->finished = true;
        SetEvent(job->done.Get());
    }
}

CryptoThread::JobBase* CryptoThread::NextJob() {
    if (held && !stopRequested) return nullptr;
    for (auto& job : jobs) {
        if (!job->running && !job->finished) return job.get();
    }
    return nullptr;
}

void CryptoThread::ReapKilled() {
    for (auto it = jobs.begin(); it != jobs.end();) {
        if ((*it)->running || !Ended((*it)->caller.Get())) {
            ++it;
            continue;
        }
        ++killed;
        it = jobs.erase(it);
    }
}

void CryptoThread::Stop() {
    std::lock_guard<std::mutex> one(stopping);
    HANDLE ending = nullptr;
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (!thread.Valid()) return;
        stopRequested = true;
        ending = thread.Get();
    }
    SetEvent(wake.Get());
    WaitForSingleObject(ending, INFINITE);
    std::lock_guard<std::mutex> lock(mutex);
    stopRequested = false;
    held = false;
    CloseHandle(thread.Release());
    threadId = 0;
    // A job queued after the thread's last look at the queue gets a thread of its own.
    ReapKilled();
    if (NextJob()) StartThread();
}

void CryptoThread::Hold(bool hold) {
    {
        std::lock_guard<std::mutex> lock(mutex);
        held = hold;
    }
    SetEvent(wake.Get());
}

LONG CryptoThread::Killed() {
    std::lock_guard<std::mutex> lock(mutex);
    ReapKilled();
    return killed;
}

LONG CryptoThread::Pending() {
    std::lock_guard<std::mutex> lock(mutex);
    ReapKilled();
    return static_cast<LONG>(jobs.size());
}

DWORD CryptoThread::ThreadId() {
    std::lock_guard<std::mutex> lock(mutex);
    return threadId;
}

void CryptoThread::ClearKilled() {
    std::lock_guard<std::mutex> lock(mutex);
    ReapKilled();
    killed = 0;
}

}  // namespace simauth
