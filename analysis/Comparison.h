// Two traces of a head side by side: before and after a change of the card's settings (or of the head). Marks, jumps
// and corners are paired by their commanded geometry, so the traces need not start at the same time; a job that
// differs is said so instead of paired wrongly. Every figure is given before and after with its change, and better
// or worse in words.
#pragma once

#include "analysis/TraceAnalysis.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace oltb::analysis {

struct FigureChange {
    std::string figure;  // "tracking error X", "marks at 5000 units/ms: start missing", "jump 2 (427201 units)"
    std::string unit;    // "us", "units", "share", "dose", "events"
    std::optional<double> before, after;
    std::string verdict;  // "better", "worse", "the same", or empty where the change is a choice (a setting)
    std::string words;    // the change said plainly: "shorter by 20.5 µs", "settled now"
};

struct Comparison {
    std::string jobDifference;  // empty when every mark, jump and corner has its twin
    std::vector<std::pair<std::size_t, std::size_t>> marks, jumps, corners;  // paired indices: before, after
    std::vector<FigureChange> settings;  // the card's settings as each trace shows them: what changed
    std::vector<FigureChange> figures;
};

Comparison compare(const Result& before, const Result& after);

// The comparison with both analyses in full ("before", "after").
std::string toJson(const Comparison& comparison, const Result& before, const Result& after);
std::string toSummary(const Comparison& comparison, const std::string& beforeName, const std::string& afterName,
                      double unitsPerMm = 0);

}  // namespace oltb::analysis
