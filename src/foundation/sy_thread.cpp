#include "foundation/sy_thread.h"

#include <windows.h>
#include <objbase.h>
#include <pthread.h>

#include "logging/log.h"
#include "sysutil/file_utils.h"
#include "sysutil/process_utils.h"
#include "sysutil/string_utils.h"

uint32_t CurrentThreadId() {
    static thread_local uint32_t id = 0;
    if (id == 0) id = GetCurrentThreadId();
    return id;
}

namespace {

// The thread's entry: a strong reference on the data for the whole life of the thread is what
// lets it run on after its SyThread has gone.
void ThreadEntry(RCPtr<SyThreadData> data) {
    data->threadId = CurrentThreadId();
    data->startedEvent.Set();
    data->Run();
}

HANDLE NativeHandle(std::thread* thread) {
    return thread ? pthread_gethandle(thread->native_handle()) : nullptr;
}

}  // namespace

SyThreadData::SyThreadData(const std::string& threadName, SyThread* ownerThread) : name(threadName), owner(ownerThread) {}

SyThreadData::~SyThreadData() {
    // Only a thread that was detached or joined can get here; a joinable one would abort.
    delete thread;
}

bool SyThreadData::IsThisThread() const { return threadId != 0 && nativeId == GetCurrentThreadId(); }

void SyThreadData::Run() {
    std::string fullName = StringUtils::FormatString(
        "%s!%s", FileUtils::GetLeafName(ProcessUtils::GetModulePath(true)).c_str(), name.c_str());
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    ProcessUtils::SetThreadName(ProcessUtils::kCurrentThread, fullName.c_str());
    SY_LOG(LOG_INFO, "SyThreadData::Run()", "Thread %s started", name.c_str());

    SyMutexGuard guard(&lock);
    const char* result = "exited";
    for (;;) {
        SyThreadCallback call = callback;
        void* argument = userData;
        SyThread* self = owner;
        guard.Unlock();
        bool again = call(argument, self);
        guard.Lock();
        if (deleted) {
            stopEvent.Set();
            result = "was deleted";
            break;
        }
        if (!again) {
            stopEvent.Set();
            result = "exited by callback";
            break;
        }
        SyEvent* waitSet[2] = {&stopEvent, &startedEvent};
        const uint32_t wait = waitMs;
        const bool messages = waitForMessages;
        guard.Unlock();
        int32_t woke = SyEvent::WaitMultiple(waitSet, 2, false, wait, messages, false);
        guard.Lock();
        if (woke == 0 || woke == kWaitError) break;
    }
    threadId = 0;
    exitedEvent.Set();
    guard.Unlock();
    SY_LOG(LOG_INFO, "SyThreadData::Run()", "Thread %s %s", name.c_str(), result);
    CoUninitialize();
}

void SyThreadData::Join() {
    if (!thread) return;
    if (!thread->joinable()) {
        SY_LOG(LOG_WARN, "SyThreadData::Join()", "Thread %s(0x%04X) is not joinable", name.c_str(), nativeId);
    } else {
        thread->join();
    }
    delete thread;
    thread = nullptr;
}

void SyThreadData::Detach() {
    if (!thread) return;
    if (!thread->joinable()) {
        SY_LOG(LOG_WARN, "SyThreadData::Detach()", "Thread %s(0x%04X) is not joinable", name.c_str(), nativeId);
    } else {
        thread->detach();
    }
    delete thread;
    thread = nullptr;
}

void SyThreadData::MarkDeleted() {
    SyMutexGuard guard(&lock);
    if (thread) {
        SY_LOG(LOG_DEBUG, "SyThread::MarkDeleted()", "Setting deleted flag for thread %s(0x%04X)", name.c_str(),
               nativeId);
        deleted = true;
        Detach();
    }
    owner = nullptr;
}

SyThread::SyThread(const std::string& name) : data(new SyThreadData(name, this)) {}

SyThread::~SyThread() {
    RCPtr<SyThreadData> d;
    d.Adopt(data.Detach());
    if (d) d->MarkDeleted();
}

bool SyThread::Start(SyThreadCallback callback, void* userData, uint32_t waitMs, bool waitForMessages) {
    RCPtr<SyThreadData> d = data;
    if (!d) return false;
    SyMutexGuard guard(&d->lock);
    if (!callback || d->thread) return false;
    if (!d->exitedEvent.Reset() || !d->stopEvent.Reset() || !d->startedEvent.Reset()) return false;
    if (d->handleEvent.IsValid()) d->handleEvent = SyEvent();
    d->callback = callback;
    d->userData = userData;
    d->waitMs = waitMs;
    d->waitForMessages = waitForMessages;
    d->deleted = false;
    d->thread = new std::thread(ThreadEntry, d);
    HANDLE duplicate = nullptr;
    HANDLE native = NativeHandle(d->thread);
    d->nativeId = GetThreadId(native);
    if (native && DuplicateHandle(GetCurrentProcess(), native, GetCurrentProcess(), &duplicate, 0, FALSE,
                                  DUPLICATE_SAME_ACCESS)) {
        d->handleEvent = SyEvent(duplicate, true);
    }
    d->startedEvent.Wait(kInfinite);
    return true;
}

bool SyThread::Stop(uint32_t timeoutMs) {
    RCPtr<SyThreadData> d = data;
    if (!d) return true;
    d->stopEvent.Set();
    return WaitForStop(timeoutMs);
}

bool SyThread::StopOrTerminate(uint32_t timeoutMs, uint32_t exitCode) {
    RCPtr<SyThreadData> d = data;
    if (!d) return true;
    d->stopEvent.Set();
    if (WaitForStop(timeoutMs)) return true;
    return Terminate(exitCode);
}

bool SyThread::WaitForStop(uint32_t timeoutMs) {
    RCPtr<SyThreadData> d = data;
    if (!d) return true;
    SyMutexGuard guard(&d->lock);
    if (!d->thread) return true;
    if (d->IsThisThread()) return false;
    SyEvent* waitSet[2] = {&d->exitedEvent, &d->handleEvent};
    guard.Unlock();
    int32_t result = SyEvent::WaitMultiple(waitSet, 2, false, timeoutMs, false, false);
    guard.Lock();
    if (!d->thread) return true;  // another waiter joined meanwhile
    if (result == kWaitTimeout) return false;
    if (result == 1) {
        // The handle is signalled but the thread never reached the end of Run: it was killed.
        SY_LOG(LOG_DEBUG, "SyThread::WaitForStop()", "Thread %s(0x%04X) exited unexpectedly", d->name.c_str(),
               d->nativeId);
        d->threadId = 0;
        d->stopEvent.Set();
        d->exitedEvent.Set();
    }
    d->Join();
    return true;
}

bool SyThread::Terminate(uint32_t exitCode) {
    RCPtr<SyThreadData> d = data;
    if (!d) return true;
    SyMutexGuard guard(&d->lock);
    if (!d->thread) return true;
    if (d->IsThisThread()) return false;
    if (!TerminateThread(NativeHandle(d->thread), exitCode)) {
        SY_LOG(LOG_ERROR, "SyThread::Terminate()", "Attempt to terminate thread %s(0x%04X) failed", d->name.c_str(),
               d->nativeId);
        return false;
    }
    SY_LOG(LOG_WARN, "SyThread::Terminate()", "Thread %s(0x%04X) terminated", d->name.c_str(), d->nativeId);
    return WaitForStop(10);
}

bool SyThread::IsCurrentThread() {
    RCPtr<SyThreadData> d = data;
    if (!d) return false;
    SyMutexGuard guard(&d->lock);
    return d->thread && d->IsThisThread();
}

SyEvent& SyThread::GetStopEvent() { return data->stopEvent; }
SyEvent& SyThread::GetHandleEvent() { return data->handleEvent; }
