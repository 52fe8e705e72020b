#include "foundation/rc_object.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <thread>
#include <vector>

namespace {

std::atomic<int> liveTracked{0}, destroyedTracked{0};

class Tracked : public RCObject {
public:
    explicit Tracked(bool counted = true) : RCObject(counted) { ++liveTracked; }
    ~Tracked() override {
        --liveTracked;
        ++destroyedTracked;
    }
};

class Other : public RCObject {};

TEST(ReferenceCounting, PointersCountFromZeroAndOnlyTheLastOneFrees) {
    liveTracked = destroyedTracked = 0;
    auto* raw = new Tracked;
    EXPECT_EQ(raw->Release(), 0);
    EXPECT_EQ(raw->RefCount(), 0) << "an extra Release on a count of 0 must not free";
    {
        RCPtr<Tracked> a(raw);
        RCPtr<Tracked> b = a;
        EXPECT_EQ(raw->RefCount(), 2);
        RCPtr<Tracked> c(std::move(b));
        EXPECT_EQ(raw->RefCount(), 2) << "a move transfers the reference";
        EXPECT_EQ(b.Get(), nullptr);
        a = a;
        EXPECT_EQ(raw->RefCount(), 2) << "self-assignment must not drop the object";
        c = nullptr;
        EXPECT_EQ(liveTracked, 1) << "one reference left";
    }
    EXPECT_EQ(destroyedTracked, 1);

    // An uncounted object ignores counts but still gives weak references.
    WkPtr<Tracked> weak;
    {
        Tracked owned(false);
        EXPECT_EQ(owned.AddRef(), 0);
        { RCPtr<Tracked> p(&owned); }
        EXPECT_EQ(liveTracked, 1);
        weak = &owned;
        EXPECT_EQ(weak.Lock().Get(), &owned);
    }
    EXPECT_EQ(destroyedTracked, 2);
    EXPECT_EQ(weak.Lock().Get(), nullptr) << "destroying the owner ends the weak pointers";
}

class SelfReferencing : public RCObject {
public:
    explicit SelfReferencing(int* deletions) : deletions(deletions) {}
    bool OnFinalRelease() override {
        RCPtr<SelfReferencing> again(this), twice(this);
        return false;
    }
    ~SelfReferencing() override {
        RCPtr<SelfReferencing> inDestructor(this);
        weakHeldInDestructor = WkPtr<SelfReferencing>(this).Get() != nullptr;
        ++*deletions;
    }
    int* deletions;
    static bool weakHeldInDestructor;
};
bool SelfReferencing::weakHeldInDestructor = true;

class Pooled : public RCObject {
public:
    bool OnFinalRelease() override {
        ++finalReleases;
        if (keepInPool) pool = this;  // one reference stays in the pool
        return recycle;
    }
    ~Pooled() override { ++deletions; }
    bool recycle = true, keepInPool = false;
    int finalReleases = 0;
    static int deletions;
    static RCPtr<Pooled> pool;
};
int Pooled::deletions = 0;
RCPtr<Pooled> Pooled::pool;

TEST(ReferenceCounting, TheFinalReleaseDeletesOnceOrRecyclesTheObject) {
    int deletions = 0;
    WkPtr<SelfReferencing> observer;
    {
        RCPtr<SelfReferencing> p(new SelfReferencing(&deletions));
        observer = p.Get();
    }
    EXPECT_EQ(deletions, 1) << "pointers to itself while it dies don't delete it again";
    EXPECT_FALSE(SelfReferencing::weakHeldInDestructor) << "a dying object hands out no weak reference";
    EXPECT_EQ(observer.Lock().Get(), nullptr);

    auto* raw = new Pooled;
    WkPtr<Pooled> before;
    {
        RCPtr<Pooled> p(raw);
        before = raw;
    }
    EXPECT_EQ(Pooled::deletions, 0);
    EXPECT_EQ(raw->finalReleases, 1);
    EXPECT_EQ(raw->RefCount(), 0) << "back to 0 and usable again";
    EXPECT_EQ(before.Lock().Get(), nullptr) << "a weak pointer from before recycling stays dead";
    WkPtr<Pooled> after(raw);
    EXPECT_NE(after.Get(), before.Get()) << "a new control object is made after recycling";
    {
        RCPtr<Pooled> again(raw);
        EXPECT_EQ(after.Lock().Get(), raw);
    }
    EXPECT_EQ(raw->finalReleases, 2);
    // The hook parks one reference: Release reports the net count it left in place.
    raw->keepInPool = true;
    raw->AddRef();
    EXPECT_EQ(raw->Release(), 1);
    raw->keepInPool = raw->recycle = false;
    Pooled::pool = nullptr;
    EXPECT_EQ(Pooled::deletions, 1);
}

std::atomic<int> liveControls{0};

class ControlCounted : public RCObject {
public:
    class Control : public WkReference {
    public:
        explicit Control(RCObject* t) : WkReference(t) { ++liveControls; }
        ~Control() override { --liveControls; }
    };
    WkReference* CreateWeakReference() override { return new Control(this); }
};

TEST(ReferenceCounting, WeakPointersShareOneControlObjectThatOutlivesTheObject) {
    liveControls = 0;
    WkPtr<ControlCounted> weak;
    {
        RCPtr<ControlCounted> strong(new ControlCounted);
        weak = strong.Get();
        WkPtr<ControlCounted> second(strong.Get());
        EXPECT_EQ(second.Get(), weak.Get()) << "one control object per object";
        EXPECT_EQ(strong->RefCount(), 1) << "weak pointers do not count on the object";
    }
    EXPECT_EQ(weak.Lock().Get(), nullptr);
    EXPECT_EQ(liveControls, 1) << "the last weak pointer still holds the control object";
    weak = nullptr;
    EXPECT_EQ(liveControls, 0);

    // A weak reference of another class locks to null and leaves the count alone.
    RCPtr<Other> strong(new Other);
    WkPtr<Tracked> wrong;
    static_cast<RCPtr<WkReference>&>(wrong) = strong->GetWeakReference();
    EXPECT_EQ(wrong.Lock().Get(), nullptr);
    EXPECT_EQ(strong->RefCount(), 1);
}

TEST(ReferenceCountingRaces, TwoThreadsReplacingOnePointerReleaseEachValueOnce) {
    liveTracked = destroyedTracked = 0;
    constexpr int kRounds = 20000;
    RCPtr<Tracked> shared(new Tracked);
    std::atomic<bool> go{false};
    auto replace = [&] {
        while (!go) std::this_thread::yield();
        for (int i = 0; i < kRounds; ++i) shared = new Tracked;
    };
    std::thread a(replace), b(replace);
    go = true;
    a.join();
    b.join();
    EXPECT_EQ(liveTracked, 1) << "only the final value may be alive";
    shared = nullptr;
    EXPECT_EQ(destroyedTracked, 2 * kRounds + 1);
}

// Memory of these objects is never returned while the test runs, so a dead object that Lock
// wrongly hands out can be recognised instead of being read after free.
class Observed : public RCObject {
public:
    ~Observed() override { alive = false; }
    static void* operator new(size_t size) { return std::malloc(size); }
    static void operator delete(void* p) {
        std::lock_guard<std::mutex> lock(graveyardMutex);
        graveyard.push_back(p);
    }
    std::atomic<bool> alive{true};
    static std::mutex graveyardMutex;
    static std::vector<void*> graveyard;
};
std::mutex Observed::graveyardMutex;
std::vector<void*> Observed::graveyard;

TEST(ReferenceCountingRaces, LockRacingTheLastReleaseNeverYieldsADeadObject) {
    int deadSeen = 0, locked = 0;
    for (int round = 0; round < 1000; ++round) {
        RCPtr<Observed> strong(new Observed);
        WkPtr<Observed> weak(strong.Get());
        std::atomic<bool> go{false};
        std::thread releaser([&] {
            while (!go) {
            }
            strong = nullptr;
        });
        go = true;
        for (int i = 0; i < 50; ++i) {
            RCPtr<Observed> p = weak.Lock();
            locked += p ? 1 : 0;
            deadSeen += p && !p->alive ? 1 : 0;
        }
        releaser.join();
        EXPECT_EQ(weak.Lock().Get(), nullptr);
    }
    for (void* p : Observed::graveyard) std::free(p);
    Observed::graveyard.clear();
    EXPECT_EQ(deadSeen, 0);
    EXPECT_GT(locked, 0) << "the race never let Lock win; the test proved nothing";
}

}  // namespace
