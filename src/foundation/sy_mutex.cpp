#include "foundation/sy_mutex.h"

#include <windows.h>

#include "logging/log.h"

namespace {
std::atomic<uint32_t> deadlockWarningMs{30000};
}

SyMutexData::~SyMutexData() {
    if (handle) CloseHandle(handle);
    handle = nullptr;
}

SyMutex::SyMutex(bool acquireNow, const char* name)
    : data(new SyMutexData(CreateMutexA(nullptr, FALSE, (name && *name) ? name : nullptr))) {
    if (acquireNow) Acquire(kInfinite);
}

void SyMutex::SetDeadlockWarningMs(uint32_t ms) { deadlockWarningMs = ms; }
uint32_t SyMutex::GetDeadlockWarningMs() { return deadlockWarningMs; }

int32_t SyMutex::GetDepth() const {
    RCPtr<SyMutexData> d = data;
    return d ? d->depth.load() : 0;
}

uint32_t SyMutex::GetHolder() const {
    RCPtr<SyMutexData> d = data;
    return d ? d->holder.load() : 0;
}

bool SyMutex::Acquire(uint32_t timeoutMs) {
    RCPtr<SyMutexData> d = data;
    if (!d || !d->handle) return false;

    DWORD result;
    if (timeoutMs == kInfinite) {
        result = WaitForSingleObject(d->handle, deadlockWarningMs.load());
        if (result == WAIT_TIMEOUT) {
            SY_LOG(LOG_WARN, "SyMutex::Acquire()", "Possible deadlock trying to acquire lock 0x%p held by thread 0x%04x",
                   static_cast<void*>(this), d->holder.load());
            result = WaitForSingleObject(d->handle, INFINITE);
        }
    } else {
        result = WaitForSingleObject(d->handle, timeoutMs);
    }

    switch (result) {
        case WAIT_OBJECT_0:
            break;
        case WAIT_ABANDONED:
            SY_LOG(LOG_WARN, "SyMutex::Acquire()", "Acquired abandoned lock 0x%p previously held by thread 0x%04x",
                   static_cast<void*>(this), d->holder.load());
            d->depth = 0;
            break;
        case WAIT_TIMEOUT:
            return false;
        default:
            SY_LOG(LOG_WARN, "SyMutex::Acquire()", "Error %d trying to acquire lock 0x%p held by thread 0x%04x",
                   static_cast<int>(result), static_cast<void*>(this), d->holder.load());
            return false;
    }

    if (++d->depth == 1) d->holder = GetCurrentThreadId();
    return true;
}

bool SyMutex::Release() {
    RCPtr<SyMutexData> d = data;
    if (!d || !d->handle) return false;
    if (d->holder == GetCurrentThreadId() && d->depth > 0) --d->depth;
    return ReleaseMutex(d->handle) != FALSE;
}

SyMutexUnwind::SyMutexUnwind(SyMutex* m) : mutex(m), depth(0) {
    // The depth can only be trusted while this thread holds the lock, so take one more level
    // first; it succeeds at once if the thread held the lock already.
    if (!mutex || !mutex->Acquire(0)) return;
    depth = mutex->GetDepth() - 1;
    for (int32_t i = 0; i <= depth; ++i) mutex->Release();
}

SyMutexUnwind::~SyMutexUnwind() {
    for (int32_t i = 0; i < depth; ++i) mutex->Acquire(kInfinite);
}
