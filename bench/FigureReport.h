// One printed line per figure: the median of the repetitions of a measured rate, the median of its limit measured
// in the same run, and the median of the per-repetition ratios (a repetition measures the thing and its limit
// back to back, so the ratio holds even when the machine's speed drifts between repetitions).
#pragma once

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

namespace oltb::bench {

inline double median(std::vector<double> values) {
    if (values.empty()) return 0.0;
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

struct RatePair {
    std::vector<double> measured;  // one per repetition
    std::vector<double> limit;     // one per repetition, same order

    double ratio() const {
        std::vector<double> ratios;
        for (std::size_t i = 0; i < std::min(measured.size(), limit.size()); ++i) {
            if (limit[i] > 0) ratios.push_back(measured[i] / limit[i]);
        }
        return median(ratios);
    }
};

// "<title>: <measured> <unit> | <limit title> <limit> <unit> | ratio <r> (<note>)"
inline void printFigure(const std::string& title, const RatePair& pair, const std::string& unit,
                        const std::string& limitTitle, const std::string& limitUnit, const std::string& note) {
    std::printf("%-44s %9.3g %-9s | %s %9.3g %-9s | ratio %.2f  (median of %zu; %s)\n", title.c_str(),
                median(pair.measured), unit.c_str(), limitTitle.c_str(), median(pair.limit), limitUnit.c_str(),
                pair.ratio(), pair.measured.size(), note.c_str());
    std::fflush(stdout);
}

}  // namespace oltb::bench
