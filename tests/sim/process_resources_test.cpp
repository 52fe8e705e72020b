// The soak's sampler: each figure moves when this process really takes one more of the
// resource, so that a leak can't hide behind a figure the platform leaves at zero.
#include "sim/process_resources.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <cstring>
#include <deque>

#include "sysutil/scoped_handle.h"

namespace {

constexpr size_t kCommitted = 16 * 1024 * 1024;

struct VirtualBlock {
    void* at = VirtualAlloc(nullptr, kCommitted, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE);
    ~VirtualBlock() {
        if (at) VirtualFree(at, 0, MEM_RELEASE);
    }
};

DWORD WINAPI WaitForEvent(void* event) { return WaitForSingleObject(static_cast<HANDLE>(event), INFINITE); }

TEST(ProcessResources, CommittedMemoryCounts) {
    sim::ProcessResources before = sim::SampleProcessResources();
    VirtualBlock block;
    ASSERT_NE(block.at, nullptr);
    // Written, as a leaked allocation is: some platforms charge a page only once touched.
    memset(block.at, 0x5A, kCommitted);
    sim::ProcessResources after = sim::SampleProcessResources();
    EXPECT_GT(before.privateBytes, 0u);
    EXPECT_GE(after.privateBytes, before.privateBytes + kCommitted);
}

TEST(ProcessResources, OpenHandlesCount) {
    sim::ProcessResources before = sim::SampleProcessResources();
    std::deque<ScopedHandle> events;
    for (int i = 0; i < 10; ++i) events.emplace_back(CreateEventA(nullptr, TRUE, FALSE, nullptr));
    sim::ProcessResources after = sim::SampleProcessResources();
    EXPECT_GT(before.handles, 0u);
    EXPECT_EQ(after.handles, before.handles + 10);
}

TEST(ProcessResources, RunningThreadsCount) {
    ScopedHandle release(CreateEventA(nullptr, TRUE, FALSE, nullptr));
    sim::ProcessResources before = sim::SampleProcessResources();
    std::deque<ScopedHandle> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back(CreateThread(nullptr, 0, WaitForEvent, release.Get(), 0, nullptr));
        ASSERT_TRUE(threads.back().Valid());
    }
    sim::ProcessResources during = sim::SampleProcessResources();
    SetEvent(release.Get());
    for (auto& t : threads) WaitForSingleObject(t.Get(), INFINITE);
    EXPECT_GE(before.threads, 1u);
    EXPECT_EQ(during.threads, before.threads + 3);
}

}  // namespace
