// The analysis as a JSON object for programs and as a summary with suggestions for people.
#pragma once

#include "analysis/Json.h"
#include "analysis/TraceAnalysis.h"

#include <optional>
#include <string>
#include <vector>

namespace oltb::analysis {

// The name of a signal by its event type, e.g. "Head0TxX"; without one, "type N".
std::string signalLabel(int type);

// The settings object {"laser_on_delay_us": {"now", "suggested", "why"}, ...} and the jump delay table.
std::string settingsJson(const Settings& settings);
std::string jumpDelayTableJson(const std::vector<JumpDelay>& table);

// One JSON object, times in us and lengths in head units; a figure that is missing is null.
std::string toJson(const Result& result);

struct SummaryOptions {
    std::string source;         // what was analysed, for the first line
    double unitsPerMm = 0;      // > 0: lengths in mm (errors in um), speeds in mm/s
    std::size_t markRows = 20;  // at most this many marks and jumps are listed one by one
};

// The readable summary: the card's settings now and suggested, every figure, the warnings, and what the trace lacked.
std::string toSummary(const Result& result, const SummaryOptions& options);

// What to change on the card, one item each ("Laser-on delay: 200 → 148 µs: ..."), as the summary words them; a
// long item goes on after "\n    ".
std::vector<std::string> suggestedChanges(const Result& result, double unitsPerMm = 0);

// Each figure the trace could not give, with the reason and what to trace for it, as the summary words them.
std::vector<std::string> notMeasured(const Result& result);

}  // namespace oltb::analysis
