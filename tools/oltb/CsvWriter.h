// Writes events as CSV: a header line, then one row per event with the absolute time in ticks, the time in us
// (as the library reports it), the signal's name and event type, the value and the overflow flag.
#pragma once

#include "api/oltb.h"
#include "tools/oltb/TextOutput.h"

#include <array>
#include <cstddef>
#include <ostream>
#include <string>

namespace oltb::cli {

class CsvWriter {
public:
    static constexpr const char* Header = "timestamp_ticks,time_us,signal,type,value,overflow";

    // Writes the header line. Rows go to the stream at the end of every write call.
    explicit CsvWriter(std::ostream& out);
    // Writes the header line. Rows go to the open file `descriptor` (which stays open) a megabyte at a time; flush()
    // writes the rest.
    explicit CsvWriter(int descriptor);

    void write(const oltbTraceEvent& event) { write(&event, 1); }
    void write(const oltbTraceEvent* events, std::size_t count);
    void flush() { _out.flush(); }

    // errno of the first write that failed, 0 while none did.
    int error() const { return _out.error(); }

private:
    void begin();
    char* formatRow(const oltbTraceEvent& event, char* place) const;

    TextOutput _out;
    // "<signal>,<type>," of each event type, the signal's name "unknown" for types outside the table.
    std::array<std::string, 128> _signalColumns;
};

}  // namespace oltb::cli
