// Writes events as CSV: a header line, then one row per event with the absolute time in ticks, the time in us
// (as the library reports it), the signal's name and event type, the value and the overflow flag.
#pragma once

#include "api/oltb.h"

#include <ostream>

namespace oltb::cli {

class CsvWriter {
public:
    static constexpr const char* Header = "timestamp_ticks,time_us,signal,type,value,overflow";

    // Writes the header line.
    explicit CsvWriter(std::ostream& out);

    void write(const oltbTraceEvent& event);

private:
    std::ostream& _out;
};

}  // namespace oltb::cli
