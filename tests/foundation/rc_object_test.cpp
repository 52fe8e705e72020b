#include "foundation/rc_object.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <thread>
#include <vector>

namespace {

std::atomic<int> liveTracked{0}, destroyedTracked{0}, liveControls{0};

// Counts its instances and the control objects of its weak pointers.
class Tracked : public RCObject {
public:
    explicit Tracked(bool counted = true) : RCObject(counted) { ++liveTracked; }
    ~Tracked() override {
        --liveTracked;
        ++destroyedTracked;
    }
    class Control : public WkReference {
    public:
        explicit Control(RCObject* t) : WkReference(t) { ++liveControls; }
        ~Control() override { --liveControls; }
    };
    WkReference* CreateWeakReference() override { return new Control(this); }
};

TEST(ReferenceCounting, OnlyTheLastStrongPointerFreesAndWeakPointersOutliveTheObject) {
    liveTracked = destroyedTracked = liveControls = 0;
    auto* raw = new Tracked;
    EXPECT_EQ(raw->Release(), 0);
    EXPECT_EQ(liveTracked, 1) << "an extra Release on a count of 0 must not free";
    WkPtr<Tracked> weak;
    {
        RCPtr<Tracked> a(raw), b = a;
        RCPtr<Tracked> c(std::move(b));
        a = a;
        weak = raw;
        WkPtr<Tracked> second(raw);
        EXPECT_EQ(second.Get(), weak.Get()) << "one control object per object";
        EXPECT_EQ(raw->RefCount(), 2) << "a move transfers, self-assignment keeps, weak pointers don't count";
        c = nullptr;
        EXPECT_EQ(weak.Lock().Get(), raw);
    }
    EXPECT_EQ(destroyedTracked, 1);
    EXPECT_EQ(weak.Lock().Get(), nullptr);
    EXPECT_EQ(liveControls, 1) << "the last weak pointer still holds the control object";

    // An uncounted object ignores counts but still gives weak references, which its destructor ends.
    {
        Tracked owned(false);
        EXPECT_EQ(owned.AddRef(), 0);
        { RCPtr<Tracked> p(&owned); }
        weak = &owned;
        EXPECT_EQ(liveControls, 1) << "the replaced control object is gone";
        EXPECT_EQ(weak.Lock().Get(), &owned);
    }
    EXPECT_EQ(destroyedTracked, 2);
    EXPECT_EQ(weak.Lock().Get(), nullptr);
    weak = nullptr;
    EXPECT_EQ(liveControls, 0);
}

// Recycles itself in its final-release hook unless told otherwise; while it dies it takes
// pointers to itself, which must not start another final release.
class Pooled : public RCObject {
public:
    bool OnFinalRelease() override {
        RCPtr<Pooled> again(this), twice(this);
        ++finalReleases;
        if (park) pool = this;
        return recycle;
    }
    ~Pooled() override {
        RCPtr<Pooled> inDestructor(this);
        weakInDestructor = WkPtr<Pooled>(this).Get() != nullptr;
        ++deletions;
    }
    bool recycle = true, park = false;
    int finalReleases = 0;
    static int deletions;
    static bool weakInDestructor;
    static RCPtr<Pooled> pool;
};
int Pooled::deletions = 0;
bool Pooled::weakInDestructor = true;
RCPtr<Pooled> Pooled::pool;

TEST(ReferenceCounting, TheFinalReleaseDeletesOnceOrRecyclesTheObject) {
    Pooled::deletions = 0;
    Pooled::weakInDestructor = true;
    auto* raw = new Pooled;
    { RCPtr<Pooled> p(raw); }
    EXPECT_EQ(raw->finalReleases, 1);
    EXPECT_EQ(raw->RefCount(), 0) << "recycled: back to 0 and usable again";
    WkPtr<Pooled> weak(raw);
    {
        RCPtr<Pooled> again(raw);
        EXPECT_EQ(weak.Lock().Get(), raw);
    }
    EXPECT_EQ(raw->finalReleases, 2);
    // The hook parks one reference: Release reports the net count it left in place.
    raw->park = true;
    raw->AddRef();
    EXPECT_EQ(raw->Release(), 1);
    raw->park = raw->recycle = false;
    EXPECT_EQ(Pooled::deletions, 0);
    Pooled::pool = nullptr;
    EXPECT_EQ(Pooled::deletions, 1);
    EXPECT_FALSE(Pooled::weakInDestructor) << "a dying object hands out no weak reference";
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
    }
    for (void* p : Observed::graveyard) std::free(p);
    Observed::graveyard.clear();
    EXPECT_EQ(deadSeen, 0);
    EXPECT_GT(locked, 0) << "the race never let Lock win; the test proved nothing";
}

}  // namespace
