// The figures of one job that a monitor keeps, charts and publishes: a few numbers out of the job's analysis that
// show a head drifting from job to job (its tracking error, how much of the marks' ends the laser leaves out and
// how much dose they take, how long jumps take to settle, events lost), the card's settings as the trace shows
// them, and the warnings. Small and fixed in size, so that a history of thousands of jobs costs little memory.
#pragma once

#include "analysis/TraceAnalysis.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace oltb::monitor {

struct SettingFigures {
    const char* name = "";  // as in the analysis' JSON: "laser_on_delay_us", ...
    std::optional<double> now, suggested;
};

struct JobFigures {
    std::uint64_t id = 0;  // counted from 1 by the monitor; a job skipped or dropped leaves its number out
    std::string endedUtc;  // when the end label came, ISO 8601
    double endedUnixSeconds = 0;
    double durationUs = 0;  // from the start label to the end label
    std::uint64_t events = 0;
    std::size_t marks = 0, jumps = 0, unsettledJumps = 0;
    std::optional<double> trackingErrorXUs, trackingErrorYUs;
    // Over the marks not started by a jump that had not settled (their edges show the jump, not the laser):
    std::optional<double> startMissing, endMissing;        // median, head units
    std::optional<double> startMissingMax, endMissingMax;  // the worst mark
    std::optional<double> edgeDoseMax;                     // the largest dose at a mark's edge, times the body's
    std::optional<double> settleMaxUs;                     // the longest settle time of a jump, predicted ones included
    std::uint64_t lostEvents = 0;
    std::array<SettingFigures, 5> settings;
    std::vector<std::string> warnings;  // at most MaxWarnings, the last saying how many more there were
    double analysisSeconds = 0;         // what the analysis took: it must stay below the time between jobs
    std::string savedFile;              // the job's capture in the save directory, or empty
    std::string failure;                // why the job has no figures (the analysis failed), or empty
};

// A dose at an edge where the mirror stands still is infinite; figures and charts stop at this.
constexpr double MaxEdgeDose = 100.0;
constexpr std::size_t MaxWarnings = 8;

// The figures of an analysed job; id and times are the caller's.
JobFigures figuresOf(const analysis::Result& result);

// The job as one JSON object, times in us and lengths in head units. Brief: the numbers the trend charts use and
// the number of warnings, for the history of many jobs; otherwise the settings and the warnings too.
std::string toJson(const JobFigures& job, bool brief);

}  // namespace oltb::monitor
