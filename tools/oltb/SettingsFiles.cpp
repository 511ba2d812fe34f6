#include "tools/oltb/SettingsFiles.h"

#include "analysis/AnalysisReport.h"
#include "tools/oltb/Errors.h"

#include <cmath>
#include <cstdio>

namespace oltb::cli {

namespace {

constexpr const char* Margin = "10 % of the settle time, at least 5 us, rounded up to the card's 10 us period";

std::string number(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.0f", value);
    return text;
}

}  // namespace

std::string settingsFileText(const analysis::Settings& settings, const std::vector<analysis::JumpDelay>& table,
                             const SettingsSource& source) {
    return "{\"settings_of\": \"oltb analyze\", \"source\": " + analysis::jsonString(source.source) +
           ", \"head\": " + std::to_string(source.head) + ", \"runs\": " + std::to_string(source.runs) +
           ",\n \"units\": {\"delays\": \"us\", \"lengths\": \"head units\"}, \"max_edge_dose\": " +
           analysis::jsonNumber(source.maxEdgeDose) +
           ", \"settle_band\": " + analysis::jsonNumber(source.settleBandUnits) +
           ", \"margin\": " + analysis::jsonString(Margin) + ",\n \"settings\": " + analysis::settingsJson(settings) +
           ",\n \"jump_delay_table\": " + analysis::jumpDelayTableJson(table) + "}\n";
}

std::string jumpTableText(const analysis::Settings& settings, const std::vector<analysis::JumpDelay>& table,
                          const SettingsSource& source) {
    std::string text = "# Jump delay by jump length for scan head " + std::to_string(source.head) +
                       ", suggested by oltb analyze from " + source.source + "\n" + "# settle band " +
                       number(source.settleBandUnits) + " head units; margin " + Margin + "\n" +
                       "# A jump of length L waits the delay of the first row whose length is L or more; beyond the "
                       "last row, that row's delay.\n";
    bool known = !table.empty();
    for (const analysis::JumpDelay& row : table) {
        known = known && row.delayUs.has_value();
    }
    if (!known) {
        if (!settings.jump.suggested) {
            throw UsageError("no jump delay to write: the trace holds no jump with a next motion to settle for");
        }
        text +=
            "# Not known yet: jumps did not settle within the trace. One row: the jump delay to trace again "
            "with, to measure them.\n# length_units delay_us\n" +
            number(table.empty() ? 1e6 : std::ceil(table.back().upToLength)) + " " + number(*settings.jump.suggested) +
            "\n";
        return text;
    }
    text += "# length_units delay_us\n";
    for (const analysis::JumpDelay& row : table) {
        text += number(std::ceil(row.upToLength)) + " " + number(*row.delayUs) + "\n";
    }
    return text;
}

}  // namespace oltb::cli
