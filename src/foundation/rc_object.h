// Reference counting for every long-lived object: strong RCPtr, weak WkPtr, and the
// final-release hook through which an object can refuse to be freed (pooling).
#pragma once

#include <atomic>
#include <cstdint>
#include <utility>

class WkReference;

class RCObject {
public:
    // Counts at or above this value mean the object is in its final-release sequence.
    static constexpr int32_t kDyingMark = 0xDEAD00;

    RCObject();
    explicit RCObject(bool counted);
    virtual ~RCObject();

    // Called outside the reference lock once the count reached zero. Returning true keeps
    // the object alive (it has been parked somewhere); false lets Release delete it.
    virtual bool OnFinalRelease();
    virtual WkReference* CreateWeakReference();

    int32_t AddRef();
    int32_t Release();
    // The caller gets no reference of its own; null once the object is dying.
    WkReference* GetWeakReference();

    int32_t RefCount() const { return refCount.load(std::memory_order_acquire); }
    bool IsCounted() const { return counted; }

    RCObject(const RCObject&) = delete;
    RCObject& operator=(const RCObject&) = delete;

private:
    std::atomic<int32_t> refCount;
    bool counted;
    WkReference* weakRef;

    friend class WkReference;
};

class WkReference : public RCObject {
public:
    explicit WkReference(RCObject* observed) : target(observed) {}
    ~WkReference() override { target = nullptr; }

    // Not counted; cleared under the reference lock the moment the observed object starts to die.
    RCObject* target;
};

// Scoped hold of the one process-wide reference lock (recursive, never destroyed).
class RefLockGuard {
public:
    RefLockGuard();
    ~RefLockGuard();
    RefLockGuard(const RefLockGuard&) = delete;
    RefLockGuard& operator=(const RefLockGuard&) = delete;
};

template <class T>
class RCPtr {
public:
    RCPtr() noexcept : ptr(nullptr) {}
    RCPtr(std::nullptr_t) noexcept : ptr(nullptr) {}
    RCPtr(T* raw) : ptr(nullptr) { Assign(raw); }
    RCPtr(const RCPtr& other) : ptr(nullptr) { Assign(other.Get()); }
    template <class U>
    RCPtr(const RCPtr<U>& other) : ptr(nullptr) { Assign(other.Get()); }
    RCPtr(RCPtr&& other) noexcept : ptr(other.Detach()) {}
    template <class U>
    RCPtr(RCPtr<U>&& other) noexcept : ptr(other.Detach()) {}

    virtual ~RCPtr() { Assign(nullptr); }

    RCPtr& operator=(T* raw) { Assign(raw); return *this; }
    RCPtr& operator=(std::nullptr_t) { Assign(nullptr); return *this; }
    RCPtr& operator=(const RCPtr& other) { Assign(other.Get()); return *this; }
    RCPtr& operator=(RCPtr&& other) noexcept {
        if (this != &other) Adopt(other.Detach());
        return *this;
    }

    T* Get() const { return ptr.load(std::memory_order_relaxed); }
    T* operator->() const { return Get(); }
    T& operator*() const { return *Get(); }
    explicit operator bool() const { return Get() != nullptr; }
    bool operator==(const T* p) const { return Get() == p; }
    bool operator!=(const T* p) const { return Get() != p; }
    bool operator==(std::nullptr_t) const { return Get() == nullptr; }
    bool operator!=(std::nullptr_t) const { return Get() != nullptr; }

    // Takes the pointer out with its reference; the caller owns that reference now.
    T* Detach() noexcept { return ptr.exchange(nullptr, std::memory_order_acq_rel); }

    // Stores a pointer whose reference the caller already holds.
    void Adopt(T* owned) {
        T* old = ptr.exchange(owned, std::memory_order_acq_rel);
        if (old) old->Release();
    }

protected:
    // Add first, exchange, release last: self-assignment is safe, and of two threads that
    // replace the same pointer at once, each old value is released exactly once.
    void Assign(T* next) {
        if (next) next->AddRef();
        Adopt(next);
    }

private:
    std::atomic<T*> ptr;
};

// Holds a strong reference on the object's control block, never on the object itself.
template <class T>
class WkPtr : public RCPtr<WkReference> {
public:
    WkPtr() = default;
    WkPtr(std::nullptr_t) {}
    WkPtr(T* object) : RCPtr<WkReference>(object ? object->GetWeakReference() : nullptr) {}
    WkPtr(const WkPtr&) = default;
    WkPtr(WkPtr&&) noexcept = default;
    WkPtr& operator=(const WkPtr&) = default;
    WkPtr& operator=(WkPtr&&) noexcept = default;
    WkPtr& operator=(T* object) {
        RCPtr<WkReference>::operator=(object ? object->GetWeakReference() : nullptr);
        return *this;
    }

    RCPtr<T> Lock() const {
        T* result = nullptr;
        RCObject* mismatched = nullptr;
        {
            RefLockGuard guard;
            WkReference* ref = Get();
            if (ref && ref->target) {
                RCObject* target = ref->target;
                target->AddRef();
                result = dynamic_cast<T*>(target);
                if (!result) mismatched = target;
            }
        }
        // A target of another class than T yields null; give back the reference taken above.
        if (mismatched) mismatched->Release();
        RCPtr<T> strong;
        strong.Adopt(result);
        return strong;
    }
};

template <class T, class... Args>
RCPtr<T> MakeRC(Args&&... args) {
    return RCPtr<T>(new T(std::forward<Args>(args)...));
}
