// The suggested settings as files to take to the card: the settings as JSON (what a configuration or a marking
// program reads, and oltb-sim --settings), and the variable jump delay as a plain table of length/delay pairs (what
// a card loads, and oltb-sim --jump-table).
#pragma once

#include "analysis/TraceAnalysis.h"

#include <string>
#include <vector>

namespace oltb::cli {

struct SettingsSource {
    std::string source;  // what was analysed
    int head = 0;
    double settleBandUnits = 100;
    double maxEdgeDose = 2;
    std::size_t runs = 1;  // with --each: the settings hold in this many runs
};

// {"settings_of": "oltb analyze", "source", "head", "units", "max_edge_dose", "settle_band", "margin", "runs",
//  "settings": {"laser_on_delay_us": {"now", "suggested", "why"}, ...}, "jump_delay_table": [...]}
std::string settingsFileText(const analysis::Settings& settings, const std::vector<analysis::JumpDelay>& table,
                             const SettingsSource& source);

// A comment header naming the head, the band and the margin, then "LENGTH DELAY_US" a line, lengths ascending.
// Where the table is not known yet (jumps that did not settle and could not be predicted), one row holds the
// suggested jump delay to measure with, and the header says so.
std::string jumpTableText(const analysis::Settings& settings, const std::vector<analysis::JumpDelay>& table,
                          const SettingsSource& source);

}  // namespace oltb::cli
