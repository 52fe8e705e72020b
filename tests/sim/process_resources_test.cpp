// The soak's sampler: each figure moves when this process really takes one more of the
// resource, so that a leak can't hide behind a figure the platform leaves at zero.
#include "sim/process_resources.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <cstring>
#include <deque>
#include <vector>

#include "sysutil/scoped_handle.h"

namespace {

DWORD WINAPI WaitForEvent(void* event) { return WaitForSingleObject(static_cast<HANDLE>(event), INFINITE); }

TEST(ProcessResources, EachFigureCountsWhatThisProcessHolds) {
    const size_t committed = 16 * 1024 * 1024, blockCount = 100, blockBytes = 1000;
    ScopedHandle release(CreateEventA(nullptr, TRUE, FALSE, nullptr));
    const sim::ProcessResources before = sim::SampleProcessResources();
    void* memory = VirtualAlloc(nullptr, committed, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE);
    ASSERT_NE(memory, nullptr);
    memset(memory, 0x5A, committed);  // written, as a leaked allocation is: some platforms charge a page once touched
    std::vector<std::vector<char>> blocks(blockCount, std::vector<char>(blockBytes));
    std::deque<ScopedHandle> events, threads;
    for (int i = 0; i < 10; ++i) events.emplace_back(CreateEventA(nullptr, TRUE, FALSE, nullptr));
    for (int i = 0; i < 3; ++i) threads.emplace_back(CreateThread(nullptr, 0, WaitForEvent, release.Get(), 0, nullptr));
    const sim::ProcessResources during = sim::SampleProcessResources();
    SetEvent(release.Get());
    for (auto& t : threads) WaitForSingleObject(t.Get(), INFINITE);
    VirtualFree(memory, 0, MEM_RELEASE);
    blocks.clear();
    const sim::ProcessResources after = sim::SampleProcessResources();

    EXPECT_TRUE(before.privateBytes > 0 && during.privateBytes >= before.privateBytes + committed);
    // Ten events and three threads.
    EXPECT_TRUE(during.handles == before.handles + 13 && during.threads == before.threads + 3);
    // Live blocks only: the freed ones leave the count again.
    const size_t blocksBytes = blockCount * blockBytes;
    EXPECT_GE(during.heapBytes, before.heapBytes + blocksBytes);
    EXPECT_LE(after.heapBytes + blocksBytes, during.heapBytes + 16 * 1024);
}

}  // namespace
