// Times are multiples of 1/64 us, so six decimals print them exactly and the column reads back without loss. A row
// is put together from integers: the time as whole ticks split into microseconds and a six-digit fraction
// (k/64 us = k * 15625 millionths), which is exactly what "%.6f" prints for such a number. A time that is no whole
// number of ticks (which the library never reports, but an edited file may hold) is printed in the shortest form
// that reads back as the same number.
#include "tools/oltb/CsvWriter.h"

#include "tools/oltb/Signals.h"

#include <charconv>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstring>

namespace oltb::cli {

namespace {

constexpr std::size_t MaxRowBytes = 160;  // also what a row printed as a whole may take
constexpr double TicksPerMicrosecond = 64.0;
// Below 2^53 ticks every whole number of ticks is exact as a double.
constexpr double MaxExactTicks = 9007199254740992.0;

char* formatUnsigned(char* place, std::uint64_t value) { return std::to_chars(place, place + 20, value).ptr; }

// "%.6f" of ticks / 64 for a whole number of ticks.
char* formatTicksAsMicroseconds(char* place, double time, std::int64_t ticks) {
    if (std::signbit(time)) *place++ = '-';
    const std::uint64_t magnitude =
        ticks < 0 ? 0 - static_cast<std::uint64_t>(ticks) : static_cast<std::uint64_t>(ticks);
    place = formatUnsigned(place, magnitude / 64);
    *place++ = '.';
    std::uint32_t millionths = static_cast<std::uint32_t>(magnitude % 64) * 15625;
    for (int digit = 5; digit >= 0; --digit) {
        place[digit] = static_cast<char>('0' + millionths % 10);
        millionths /= 10;
    }
    return place + 6;
}

}  // namespace

CsvWriter::CsvWriter(std::ostream& out) : _out(out) { begin(); }

CsvWriter::CsvWriter(int descriptor) : _out(descriptor) { begin(); }

void CsvWriter::begin() {
    for (std::size_t type = 0; type < _signalColumns.size(); ++type) {
        const SignalInfo* signal = findSignalByType(static_cast<int>(type));
        _signalColumns[type] =
            std::string(signal != nullptr ? signal->name : "unknown") + ',' + std::to_string(type) + ',';
    }
    _out.append(Header);
    _out.append('\n');
    _out.endOfCall();
}

char* CsvWriter::formatRow(const oltbTraceEvent& event, char* place) const {
    const double ticks = event.Time * TicksPerMicrosecond;
    const auto type = static_cast<unsigned>(event.Type);
    if (!(std::fabs(ticks) < MaxExactTicks) || ticks != std::trunc(ticks) || type >= _signalColumns.size()) {
        const SignalInfo* signal = findSignalByType(event.Type);
        char time[40];
        *std::to_chars(time, time + sizeof(time) - 1, event.Time).ptr = '\0';
        char row[MaxRowBytes];
        std::snprintf(row, sizeof(row), "%" PRIu64 ",%s,%s,%d,%" PRId32 ",%d\n", event.Timestamp, time,
                      signal != nullptr ? signal->name : "unknown", static_cast<int>(event.Type), event.Value,
                      event.Overflow ? 1 : 0);
        const std::size_t length = std::strlen(row);
        std::memcpy(place, row, length);
        return place + length;
    }
    place = formatUnsigned(place, event.Timestamp);
    *place++ = ',';
    place = formatTicksAsMicroseconds(place, event.Time, static_cast<std::int64_t>(ticks));
    *place++ = ',';
    const std::string& columns = _signalColumns[type];
    std::memcpy(place, columns.data(), columns.size());
    place += columns.size();
    place = std::to_chars(place, place + 11, event.Value).ptr;
    *place++ = ',';
    *place++ = event.Overflow ? '1' : '0';
    *place++ = '\n';
    return place;
}

void CsvWriter::write(const oltbTraceEvent* events, std::size_t count) {
    for (std::size_t index = 0; index < count; ++index) {
        _out.advance(formatRow(events[index], _out.room(MaxRowBytes)));
    }
    _out.endOfCall();
}

}  // namespace oltb::cli
