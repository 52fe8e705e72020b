// The soak's verdict on a resource series sampled over a long run: does it keep rising once
// the process has warmed up?
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace sim {

// A rise counts only when it exceeds both the relative and the absolute bound, so that
// allocator and loader steps of a settled process don't read as leaks.
struct TrendTolerance {
    double relative;  // of the middle third's mean
    double absolute;  // in the series' own unit
};

struct TrendVerdict {
    bool decided = false;  // false: too few samples to tell
    bool rising = false;
    double middleMean = 0;
    double lastMean = 0;
};

// The first third of the samples is warm-up and ignored; the series rises when the mean of
// the last third exceeds the mean of the middle third by more than the tolerance. Means of
// thirds rather than a fitted slope: a transient worker caught in one sample moves a third's
// mean by a fraction, while a leak per iteration moves it by the iterations between thirds.
TrendVerdict JudgeTrend(const std::vector<double>& samples, const TrendTolerance& tolerance);

// Fewer samples than this leave the verdict undecided.
constexpr size_t kMinTrendSamples = 6;

}  // namespace sim
