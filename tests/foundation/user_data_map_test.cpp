// The handle registry under threads: a look-up never runs beside a change of the registry.
#include "foundation/user_data_map.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "foundation/sy_event.h"

namespace {

// An entry that reports its copies. The registry copies an entry out in Find and in in Add, and
// either copy runs only under the registry's lock; one copy held open must keep the other out.
struct Probe {
    enum Role { kPlain, kFound, kAdded };
    Probe() = default;
    explicit Probe(Role r) : role(r) {}
    Probe(const Probe& other) : role(other.role) { Copied(role); }
    Probe& operator=(const Probe& other) = default;

    // Armed only for the race itself, so that setting the registry up reports nothing.
    static std::atomic<bool> armed, overlapped;
    static SyEvent foundInside, addedInside;

    static void Copied(Role role) {
        if (!armed) return;
        if (role == kFound) {
            foundInside.Set();
            // How long the look-up holds its copy open for an add to break in.
            overlapped = addedInside.Wait(1500) == 0;
        } else if (role == kAdded) {
            addedInside.Set();
        }
    }

    Role role = kPlain;
};
std::atomic<bool> Probe::armed{false}, Probe::overlapped{false};
SyEvent Probe::foundInside(true, false), Probe::addedInside(true, false);

TEST(UserDataMapLocking, AddWaitsForALookUpThatIsCopyingItsEntryOut) {
    Probe::foundInside.Reset();
    Probe::addedInside.Reset();
    UserDataMap<Probe> map(false);
    const uint64_t key = map.Add(Probe(Probe::kFound));
    Probe::armed = true;
    std::thread finder([&] { map.Find(key); });
    ASSERT_EQ(Probe::foundInside.Wait(kInfinite), 0);
    const uint64_t second = map.Add(Probe(Probe::kAdded));
    finder.join();
    Probe::armed = false;
    EXPECT_FALSE(Probe::overlapped) << "an entry went in while a look-up was copying one out";
    EXPECT_NE(second, key);
    EXPECT_EQ(map.Size(), 2u);
}

}  // namespace
