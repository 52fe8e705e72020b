#include "foundation/rc_object.h"

#include <windows.h>

namespace {

// One recursive lock for all counts of the process. Built on first use and never
// destroyed, so objects released during process exit still find it.
CRITICAL_SECTION& ReferenceLock() {
    static CRITICAL_SECTION* lock = [] {
        auto* cs = new CRITICAL_SECTION;
        InitializeCriticalSection(cs);
        return cs;
    }();
    return *lock;
}

}  // namespace

RefLockGuard::RefLockGuard() { EnterCriticalSection(&ReferenceLock()); }
RefLockGuard::~RefLockGuard() { LeaveCriticalSection(&ReferenceLock()); }

RCObject::RCObject() : RCObject(true) {}

RCObject::RCObject(bool isCounted) : refCount(0), counted(isCounted), weakRef(nullptr) {}

RCObject::~RCObject() {
    // Counted objects have let go of their control object in Release already.
    if (counted) return;
    WkReference* ref = nullptr;
    {
        RefLockGuard guard;
        if (weakRef) {
            weakRef->target = nullptr;
            ref = weakRef;
            weakRef = nullptr;
        }
    }
    if (ref) ref->Release();
}

bool RCObject::OnFinalRelease() { return false; }

WkReference* RCObject::CreateWeakReference() { return new WkReference(this); }

int32_t RCObject::AddRef() {
    if (!counted) return refCount.load(std::memory_order_acquire);
    RefLockGuard guard;
    int32_t next = refCount.load(std::memory_order_acquire) + 1;
    refCount.store(next, std::memory_order_release);
    return next;
}

int32_t RCObject::Release() {
    if (!counted) return refCount.load(std::memory_order_acquire);

    WkReference* ref = nullptr;
    {
        RefLockGuard guard;
        int32_t count = refCount.load(std::memory_order_acquire);
        if (count == 0) return 0;
        --count;
        if (count > 0) {
            refCount.store(count, std::memory_order_release);
            return count;
        }
        // From here on the count sits near the dying mark: references taken and dropped by
        // the hook or the destructors move it around the mark and never reach 0 again.
        refCount.store(kDyingMark, std::memory_order_release);
        if (weakRef) {
            weakRef->target = nullptr;
            ref = weakRef;
            weakRef = nullptr;
        }
    }
    if (ref) ref->Release();

    if (!OnFinalRelease()) {
        delete this;
        return 0;
    }

    RefLockGuard guard;
    int32_t net = refCount.load(std::memory_order_acquire) - kDyingMark;
    refCount.store(net, std::memory_order_release);
    return net;
}

WkReference* RCObject::GetWeakReference() {
    RefLockGuard guard;
    if (refCount.load(std::memory_order_acquire) >= kDyingMark) return nullptr;
    if (!weakRef) {
        weakRef = CreateWeakReference();
        weakRef->AddRef();
    }
    return weakRef;
}
