// The soak's two judges: the sampler, each figure of which moves when this process really takes
// one more of the resource, so that a leak can't hide behind a figure the platform leaves at
// zero; and the verdict on a sampled series: warm-up ignored, a leak caught, noise and a single
// spike tolerated, too short a run left undecided.
#include <windows.h>

#include <gtest/gtest.h>

#include <cstring>
#include <deque>
#include <vector>

#include "sim/process_resources.h"
#include "sim/soak_trend.h"
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

    EXPECT_GT(before.privateBytes, 0u);
    EXPECT_GE(during.privateBytes, before.privateBytes + committed);
    // Ten events and three threads.
    EXPECT_EQ(during.handles, before.handles + 13);
    EXPECT_EQ(during.threads, before.threads + 3);
    // Live blocks only: the freed ones leave the count again.
    const size_t blocksBytes = blockCount * blockBytes;
    EXPECT_GE(during.heapBytes, before.heapBytes + blocksBytes);
    EXPECT_LE(after.heapBytes + blocksBytes, during.heapBytes + 16 * 1024);
}

TEST(SoakTrend, Verdicts) {
    const sim::TrendTolerance threads{0, 1}, memory{0.02, 512.0 * 1024};
    const double m = 4e7, k = 1024, s = 1e7;
    const struct { const char* name; std::vector<double> samples; sim::TrendTolerance tolerance; bool decided, rising; }
        cases[] = {
        {"flat", {20, 20, 20, 20, 20, 20, 20, 20, 20}, threads, true, false},
        {"warm-up climb, then flat: not judged", {5, 12, 19, 20, 20, 20, 20, 20, 20}, threads, true, false},
        {"one more per sample: a leak", {20, 21, 22, 23, 24, 25, 26, 27, 28}, threads, true, true},
        {"a worker caught in one sample", {20, 20, 20, 20, 20, 20, 20, 23, 20}, threads, true, false},
        {"rise of exactly the slack", {20, 20, 20, 20, 20, 20, 21, 21, 21}, threads, true, false},
        {"rise just above the slack", {20, 20, 20, 20, 20, 20, 22, 22, 22}, threads, true, true},
        {"falling", {30, 30, 30, 28, 28, 28, 25, 25, 25}, threads, true, false},
        // 2 % of 40 MB is 800 KiB, above the 512 KiB floor.
        {"within 2 %", {m, m, m, m, m, m, m + 700 * k, m + 700 * k, m + 700 * k}, memory, true, false},
        {"beyond 2 %", {m, m, m, m, m, m, m + 900 * k, m + 900 * k, m + 900 * k}, memory, true, true},
        {"small process: the floor holds", {s, s, s, s, s, s, s + 400 * k, s + 400 * k, s + 400 * k}, memory, true,
         false},
        {"7 samples are 2 + 2 + 3", {0, 0, 20, 20, 20, 20, 29}, threads, true, true},
        {"too short", {20, 21, 22, 23, 24}, threads, false, false},
        {"empty", {}, threads, false, false},
    };
    for (const auto& c : cases) {
        const sim::TrendVerdict verdict = sim::JudgeTrend(c.samples, c.tolerance);
        EXPECT_TRUE(verdict.decided == c.decided && verdict.rising == c.rising) << c.name;
    }
}

}  // namespace
