// The statistics every benchmark reports through. The command line and the JSON object that
// tools read are checked by bench_json on the real programs.
#include <gtest/gtest.h>

#include <vector>

#include "bench/bench_figures.h"

namespace {

TEST(BenchFigures, PercentilesAreNearestRankOfUnsortedSamples) {
    std::vector<double> hundred, tail;
    for (int i = 1; i <= 1000; ++i) tail.push_back(i <= 990 ? i : 5000 + i);  // ten outliers in a thousand
    hundred.assign(tail.begin(), tail.begin() + 100);
    const struct { const char* name; std::vector<double> samples; double share, expected; } cases[] = {
        {"one sample", {7}, 0.99, 7},
        {"median of three, unsorted", {3, 1, 2}, 0.5, 2},
        {"median of four takes the lower middle", {4, 1, 3, 2}, 0.5, 2},
        {"p99 of 1..100", hundred, 0.99, 99},
        {"p99 of 1..10 is the largest", {10, 1, 2, 3, 4, 5, 6, 7, 8, 9}, 0.99, 10},
        {"p99 of a thousand with ten outliers is the last ordinary one", tail, 0.99, 990},
        {"share 0 is the smallest", {9, 4, 6}, 0.0, 4},
        {"no samples", {}, 0.99, 0},
    };
    for (const auto& c : cases) EXPECT_EQ(bench::Percentile(c.samples, c.share), c.expected) << c.name;
}

}  // namespace
