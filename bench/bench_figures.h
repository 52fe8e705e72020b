// What every benchmark program reports: percentiles of its samples and one flat set of named
// figures, printed as a table for people or, after --json, as one JSON object for tools.
// Portable: the native benchmarks use it as well as the Windows ones.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace bench {

// Nearest rank: the smallest sample with at least `share` of all samples at or below it.
inline double Percentile(std::vector<double> samples, double share) {
    if (samples.empty()) return 0;
    std::sort(samples.begin(), samples.end());
    const double rank = std::ceil(share * static_cast<double>(samples.size()));
    const size_t index = rank < 1 ? 0 : static_cast<size_t>(rank) - 1;
    return samples[std::min(index, samples.size() - 1)];
}

inline double Median(const std::vector<double>& samples) { return Percentile(samples, 0.5); }
inline double P99(const std::vector<double>& samples) { return Percentile(samples, 0.99); }

// The command line every benchmark takes: [--json] [--rounds N]. A wrong one is told on
// standard error and leaves `ok` false.
struct Options {
    bool json = false;
    int rounds = 0;
    bool ok = true;
};

inline Options ParseOptions(const char* program, int argc, char** argv, int defaultRounds) {
    Options options;
    options.rounds = defaultRounds;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--json") == 0) {
            options.json = true;
        } else if (strcmp(argv[i], "--rounds") == 0 && i + 1 < argc) {
            options.rounds = atoi(argv[++i]);
        } else {
            options.ok = false;
        }
    }
    if (options.rounds < 1) options.ok = false;
    if (!options.ok) fprintf(stderr, "usage: %s [--json] [--rounds N]\n", program);
    return options;
}

class Figures {
public:
    void Add(const std::string& name, double value) { figures.emplace_back(name, value); }
    // The median and the p99 of a sample series, as <stem>_median_<unit> and <stem>_p99_<unit>.
    void AddSeries(const std::string& stem, const std::string& unit, const std::vector<double>& samples) {
        Add(stem + "_median_" + unit, Median(samples));
        Add(stem + "_p99_" + unit, P99(samples));
    }
    void Print(bool json, FILE* out = stdout) const {
        if (json) {
            fprintf(out, "{");
            for (size_t i = 0; i < figures.size(); ++i) {
                fprintf(out, "%s\"%s\": %.3f", i ? ", " : "", figures[i].first.c_str(), figures[i].second);
            }
            fprintf(out, "}\n");
        } else {
            for (const auto& figure : figures) fprintf(out, "%-32s %12.3f\n", figure.first.c_str(), figure.second);
        }
        fflush(out);
    }

private:
    std::vector<std::pair<std::string, double>> figures;
};

}  // namespace bench
