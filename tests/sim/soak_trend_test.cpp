// The soak's verdict on a sampled series: warm-up ignored, a leak caught, noise and a single
// spike tolerated, too short a run left undecided.
#include "sim/soak_trend.h"

#include <gtest/gtest.h>

namespace {

struct TrendCase {
    const char* name;
    std::vector<double> samples;
    sim::TrendTolerance tolerance;
    bool decided;
    bool rising;
};

class SoakTrend : public ::testing::TestWithParam<TrendCase> {};

TEST_P(SoakTrend, Verdict) {
    const TrendCase& c = GetParam();
    sim::TrendVerdict verdict = sim::JudgeTrend(c.samples, c.tolerance);
    EXPECT_EQ(verdict.decided, c.decided);
    EXPECT_EQ(verdict.rising, c.rising);
}

const sim::TrendTolerance kThreads{0, 1};
const sim::TrendTolerance kMemory{0.02, 512.0 * 1024};

INSTANTIATE_TEST_SUITE_P(
    Series, SoakTrend,
    ::testing::Values(
        TrendCase{"flat", {20, 20, 20, 20, 20, 20, 20, 20, 20}, kThreads, true, false},
        // Start-up grows the process; that third is not judged.
        TrendCase{"warmup_climb_then_flat", {5, 12, 19, 20, 20, 20, 20, 20, 20}, kThreads, true, false},
        // One more thread per sample: a thread leaked per round.
        TrendCase{"steady_climb", {20, 21, 22, 23, 24, 25, 26, 27, 28}, kThreads, true, true},
        // A worker caught alive in one sample of the last third.
        TrendCase{"single_spike", {20, 20, 20, 20, 20, 20, 20, 23, 20}, kThreads, true, false},
        // Exactly the absolute slack is still flat; just above it rises.
        TrendCase{"rise_at_slack", {20, 20, 20, 20, 20, 20, 21, 21, 21}, kThreads, true, false},
        TrendCase{"rise_above_slack", {20, 20, 20, 20, 20, 20, 22, 22, 22}, kThreads, true, true},
        // A fall is never a leak.
        TrendCase{"falling", {30, 30, 30, 28, 28, 28, 25, 25, 25}, kThreads, true, false},
        // 40 MB: 2 % is 800 KiB, above the 512 KiB floor; 700 KiB more passes, 900 KiB fails.
        TrendCase{"memory_within_relative",
                  {4e7, 4e7, 4e7, 4e7, 4e7, 4e7, 4e7 + 700 * 1024, 4e7 + 700 * 1024, 4e7 + 700 * 1024},
                  kMemory, true, false},
        TrendCase{"memory_beyond_relative",
                  {4e7, 4e7, 4e7, 4e7, 4e7, 4e7, 4e7 + 900 * 1024, 4e7 + 900 * 1024, 4e7 + 900 * 1024},
                  kMemory, true, true},
        // Small process: the absolute floor holds, not 2 % of 10 MB.
        TrendCase{"memory_floor", {1e7, 1e7, 1e7, 1e7, 1e7, 1e7, 1e7 + 400 * 1024, 1e7 + 400 * 1024,
                                   1e7 + 400 * 1024},
                  kMemory, true, false},
        // The remainder joins the last third: 7 samples are 2 + 2 + 3.
        TrendCase{"remainder_in_last_third", {0, 0, 20, 20, 20, 20, 29}, kThreads, true, true},
        TrendCase{"too_short", {20, 21, 22, 23, 24}, kThreads, false, false},
        TrendCase{"empty", {}, kThreads, false, false}),
    [](const ::testing::TestParamInfo<TrendCase>& info) { return std::string(info.param.name); });

}  // namespace
