// The soak's verdict on a sampled series: warm-up ignored, a leak caught, noise and a single
// spike tolerated, too short a run left undecided.
#include "sim/soak_trend.h"

#include <gtest/gtest.h>

namespace {

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
