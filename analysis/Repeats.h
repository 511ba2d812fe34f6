// A capture that holds the job many times (a machine marks part after part; the simulator repeats its job): the
// analysis of every run between two labels, and how much each figure moves from run to run. Settings suggested for
// the job hold in every run: the jump delays cover the slowest jump of any run, the laser delays keep every run's
// edges within the dose limit.
#pragma once

#include "analysis/TraceAnalysis.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace oltb::analysis {

// Input that cannot be analysed run by run: no run between the labels, or runs of different jobs.
class RunsError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The events from each start label to the end label that follows it (labels left out), in time order, each run's
// times counted from its start label. A start label without an end label after it ends no run.
std::vector<std::vector<oltbTraceEvent>> runsBetween(const oltbTraceEvent* events, std::size_t count,
                                                     std::uint16_t startLabel, std::uint16_t endLabel);

// One figure over the runs that have it.
struct Spread {
    std::string figure;  // "tracking error X", "mark 3 start missing", ...
    std::string unit;    // "us", "units", "share", "dose"
    std::size_t runs = 0;
    double median = 0, min = 0, max = 0, stddev = 0;
    std::size_t worstRun = 0;  // from 0: the run furthest from what the figure should be
};

struct Repeatability {
    std::size_t runs = 0;
    std::size_t unclosed = 0;     // start labels whose end label the capture does not hold
    std::vector<Result> results;  // one per run
    std::vector<Spread> figures;
    Settings settings;  // suggested so that they hold in every run
    std::vector<JumpDelay> jumpDelayTable;
    std::vector<std::string> warnings;
};

// Throws RunsError when no run closes or the runs hold different jobs (other marks or jumps).
Repeatability analyzeEach(const oltbTraceEvent* events, std::size_t count, std::uint16_t startLabel,
                          std::uint16_t endLabel, const Options& options = {});

// With `withRuns` the analysis of every run too ("each"), else only the spreads, the settings and the warnings.
std::string toJson(const Repeatability& repeats, bool withRuns = true);
std::string toSummary(const Repeatability& repeats, const std::string& source, double unitsPerMm = 0);

}  // namespace oltb::analysis
