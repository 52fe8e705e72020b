#include "sim/soak_trend.h"

#include <algorithm>

namespace sim {

namespace {

double Mean(std::vector<double>::const_iterator begin, std::vector<double>::const_iterator end) {
    double sum = 0;
    for (auto it = begin; it != end; ++it) sum += *it;
    return sum / static_cast<double>(end - begin);
}

}  // namespace

TrendVerdict JudgeTrend(const std::vector<double>& samples, const TrendTolerance& tolerance) {
    TrendVerdict verdict;
    if (samples.size() < kMinTrendSamples) return verdict;
    size_t third = samples.size() / 3;
    // A remainder goes to the last third: the newest samples weigh most.
    auto middle = samples.begin() + static_cast<std::ptrdiff_t>(third);
    auto last = middle + static_cast<std::ptrdiff_t>(third);
    verdict.decided = true;
    verdict.middleMean = Mean(middle, last);
    verdict.lastMean = Mean(last, samples.end());
    double allowed = std::max(verdict.middleMean * tolerance.relative, tolerance.absolute);
    verdict.rising = verdict.lastMean - verdict.middleMean > allowed;
    return verdict;
}

}  // namespace sim
