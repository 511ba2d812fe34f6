// What is known about a series of events besides the events: which signals were traced, how positions are given,
// where time 0 lies, and where and when the series was recorded. The commands fill it for the files they write;
// a capture read back gives what its file kept (a CSV keeps only the events).
#pragma once

#include "tools/oltb/Signals.h"
#include "tools/oltb/VcdWriter.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace oltb::cli {

struct SeriesInfo {
    std::vector<const SignalInfo*> signals;  // the traced signals, in table order
    bool signedPositions = true;             // head positions converted to signed numbers (false: --raw)
    VcdTimeZero timeZero = VcdTimeZero::ReferenceOfTime;
    std::string host;                         // the server's address; empty when unknown
    std::optional<std::uint16_t> startLabel;  // the labels around an acquisition; none for a capture
    std::optional<std::uint16_t> endLabel;
    std::string startTimeUtc;                  // when tracing started, ISO 8601 in UTC; empty when unknown
    std::vector<oltbTraceEvent> valuesAtZero;  // each signal's last event before time 0, where the command saw one
    VcdFormat vcd;                             // how a .vcd file of the series is laid out (the command's options)
};

// The current time as ISO 8601 in UTC to the millisecond: "2024-05-01T12:34:56.789Z".
std::string utcNowIso8601();

}  // namespace oltb::cli
