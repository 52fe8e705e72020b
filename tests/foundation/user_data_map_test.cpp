// The handle registry under threads: a look-up never runs beside a change of the registry.
#include "foundation/user_data_map.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <atomic>
#include <thread>

#include "sysutil/scoped_handle.h"

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
    static std::atomic<bool> armed;
    static HANDLE foundInside;
    static HANDLE addedInside;
    static std::atomic<bool> overlapped;
    // How long the look-up holds its copy open for an add to break in.
    static constexpr DWORD kWindowMs = 1500;

    static void Copied(Role role) {
        if (!armed) return;
        if (role == kFound) {
            SetEvent(foundInside);
            overlapped = WaitForSingleObject(addedInside, kWindowMs) == WAIT_OBJECT_0;
        } else if (role == kAdded) {
            SetEvent(addedInside);
        }
    }

    Role role = kPlain;
};
std::atomic<bool> Probe::armed{false};
HANDLE Probe::foundInside = nullptr;
HANDLE Probe::addedInside = nullptr;
std::atomic<bool> Probe::overlapped{false};

TEST(UserDataMapLocking, AddWaitsForALookUpThatIsCopyingItsEntryOut) {
    ScopedHandle found(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    ScopedHandle added(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    Probe::foundInside = found.Get();
    Probe::addedInside = added.Get();
    UserDataMap<Probe> map(false);
    const uint64_t key = map.Add(Probe(Probe::kFound));
    Probe::armed = true;
    std::thread finder([&] { map.Find(key); });
    ASSERT_EQ(WaitForSingleObject(found.Get(), INFINITE), WAIT_OBJECT_0);
    const uint64_t second = map.Add(Probe(Probe::kAdded));
    finder.join();
    Probe::armed = false;
    EXPECT_FALSE(Probe::overlapped) << "an entry went in while a look-up was copying one out";
    EXPECT_NE(second, key);
    EXPECT_EQ(map.Size(), 2u);
}

}  // namespace
