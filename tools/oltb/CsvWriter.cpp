// Times are multiples of 1/64 us, so six decimals print them exactly and the column reads back without loss.
#include "tools/oltb/CsvWriter.h"

#include "tools/oltb/Signals.h"

#include <cinttypes>
#include <cstdio>

namespace oltb::cli {

CsvWriter::CsvWriter(std::ostream& out) : _out(out) {
    _out << Header << '\n';
}

void CsvWriter::write(const oltbTraceEvent& event) {
    const SignalInfo* signal = findSignalByType(event.Type);
    char row[160];
    std::snprintf(row, sizeof(row), "%" PRIu64 ",%.6f,%s,%d,%" PRId32 ",%d\n", event.Timestamp, event.Time,
                  signal != nullptr ? signal->name : "unknown", static_cast<int>(event.Type), event.Value,
                  event.Overflow ? 1 : 0);
    _out << row;
}

}  // namespace oltb::cli
