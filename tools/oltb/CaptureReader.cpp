// The reader's CSV side: rows exactly as CsvWriter writes them, and the choice of the side by the file's extension.
#include "tools/oltb/CaptureReader.h"

#include "tools/oltb/CsvWriter.h"
#include "tools/oltb/Errors.h"
#include "tools/oltb/Excerpt.h"
#include "tools/oltb/Outputs.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string_view>

namespace oltb::cli {

namespace {

// The largest raw head position that is also a signed one; raw values go up to 2^20 - 1.
constexpr std::int32_t LargestSignedPosition = 524287;
constexpr std::int64_t LowestPosition = -524288;        // signed, sign-extended from 20 bits
constexpr std::int64_t HighestSignedPosition = 524288;  // an X channel negated
constexpr std::int64_t HighestRawPosition = 1048575;
constexpr std::string_view ByteOrderMark = "\xEF\xBB\xBF";

template <typename Number>
bool parseWhole(std::string_view text, Number& number) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() && !text.empty();
}

std::string timeText(double time) {
    char text[40];
    std::snprintf(text, sizeof text, "%.6f", time);
    return text;
}

// One row "timestamp_ticks,time_us,signal,type,value,overflow" into `event`; the reason when it is not one. Head
// positions are checked against the range of either form.
std::string parseRow(std::string_view row, oltbTraceEvent& event) {
    std::array<std::string_view, 6> cells;
    std::size_t count = 0;
    for (std::size_t begin = 0;; ++count) {
        const std::size_t comma = row.find(',', begin);
        if (count < cells.size()) {
            cells[count] = row.substr(begin, comma == std::string_view::npos ? std::string_view::npos : comma - begin);
        }
        if (comma == std::string_view::npos) {
            break;
        }
        begin = comma + 1;
    }
    if (count + 1 != cells.size()) {
        return "expected 6 columns, found " + std::to_string(count + 1);
    }
    const std::string_view& time = cells[1];
    const auto [timeEnd, timeError] = std::from_chars(time.data(), time.data() + time.size(), event.Time);
    int type = 0;
    std::int64_t value = 0;
    if (!parseWhole(cells[0], event.Timestamp)) {
        return "timestamp_ticks is not a whole number of ticks from 0 to 2^64 - 1";
    }
    if (timeError != std::errc() || timeEnd != time.data() + time.size() || time.empty()) {
        return "time_us is not a number";
    }
    const SignalInfo* signal = parseWhole(cells[3], type) ? findSignalByType(type) : nullptr;
    if (signal == nullptr || cells[2] != signal->name) {
        return "signal and type do not name one signal of the table (see: oltb signals)";
    }
    event.Type = signal->type;
    if (!parseWhole(cells[4], value)) {
        return "value is not a whole number";
    }
    std::string problem = SeriesRule::valueProblem(*signal, value, SeriesRule::Positions::Either);
    if (!problem.empty()) {
        return problem;
    }
    event.Value = static_cast<std::int32_t>(value);
    if (cells[5] != "0" && cells[5] != "1") {
        return "overflow is neither 0 nor 1";
    }
    event.Overflow = cells[5] == "1";
    return {};
}

class CsvCapture : public CaptureReader::Source {
public:
    // Reads the whole file once: the signals it holds, and a line that is no row fails before any event is used.
    explicit CsvCapture(const std::string& path) : _path(path), _in(path, std::ios::binary) {
        if (!_in) {
            throw InputError("cannot read " + path + ": " + std::strerror(errno));
        }
        readHeader();
        std::array<bool, 128> seen{};
        std::uint64_t firstNegative = 0;  // lines of the first negative and the first raw-only head position
        std::uint64_t firstRaw = 0;
        oltbTraceEvent event{};
        while (next(event)) {
            seen[static_cast<std::size_t>(event.Type)] = true;
            if (isHeadPosition(event.Type) && event.Value > LargestSignedPosition && firstRaw == 0) {
                firstRaw = _lineNumber;
                info.signedPositions = false;
            }
            if (isHeadPosition(event.Type) && event.Value < 0 && firstNegative == 0) {
                firstNegative = _lineNumber;
            }
        }
        if (firstRaw != 0 && firstNegative != 0) {
            throw UsageError(_path + ": line " + std::to_string(std::max(firstRaw, firstNegative)) +
                             ": not a row of an oltb capture: head positions are signed (negative on line " +
                             std::to_string(firstNegative) + ") and raw (above 524287 on line " +
                             std::to_string(firstRaw) + ") in one file");
        }
        for (const SignalInfo& signal : allSignals()) {
            if (seen[static_cast<std::size_t>(signal.type)]) {
                info.signals.push_back(&signal);
            }
        }
        _in.clear();
        _in.seekg(0);
        _rule = SeriesRule();
        readHeader();
    }

    std::size_t read(oltbTraceEvent* events, std::size_t capacity) override {
        std::size_t count = 0;
        while (count < capacity && next(events[count])) {
            ++count;
        }
        return count;
    }

private:
    // The next line without its line end (LF or CR LF); false at the end of the file.
    bool nextLine() {
        if (!std::getline(_in, _line)) {
            if (_in.bad()) {
                throw InputError("cannot read " + _path + ": " + std::strerror(errno));
            }
            return false;
        }
        ++_lineNumber;
        if (!_line.empty() && _line.back() == '\r') {
            _line.pop_back();
        }
        return true;
    }

    // The header line, after a UTF-8 byte-order mark if the file begins with one.
    void readHeader() {
        _lineNumber = 0;
        const bool read = nextLine();
        std::string_view header = _line;
        if (header.substr(0, ByteOrderMark.size()) == ByteOrderMark) {
            header.remove_prefix(ByteOrderMark.size());
        }
        if (!read || header != CsvWriter::Header) {
            throw UsageError(_path + ": line 1: not a capture written by oltb: it begins with " +
                             (read ? excerpt(header, 60) : std::string("nothing")) + ", an oltb CSV with the line " +
                             CsvWriter::Header);
        }
    }

    bool next(oltbTraceEvent& event) {
        if (!nextLine()) {
            return false;
        }
        std::string reason = parseRow(_line, event);
        if (reason.empty()) {
            reason = _rule.orderProblem(event);
        }
        if (!reason.empty()) {
            throw UsageError(_path + ": line " + std::to_string(_lineNumber) +
                             ": not a row of an oltb capture: " + reason);
        }
        return true;
    }

    std::string _path;
    std::ifstream _in;
    std::string _line;
    std::uint64_t _lineNumber = 0;
    SeriesRule _rule;
};

}  // namespace

CaptureReader::CaptureReader(const std::string& path) {
    const std::optional<OutputFormat> format = formatOfFileName(path);
    struct stat status {};
    if ((format == OutputFormat::Csv || format == OutputFormat::H5) && ::stat(path.c_str(), &status) == 0 &&
        !S_ISREG(status.st_mode)) {
        // A pipe or a device (a link to /dev/zero, say) would be read without end: a capture is a file.
        throw InputError("cannot read " + path + ": not a regular file");
    }
    if (format == OutputFormat::Csv) {
        _source = std::make_unique<CsvCapture>(path);
    } else if (format == OutputFormat::H5) {
        _source = openH5Capture(path);
    } else if (format == OutputFormat::Vcd) {
        throw UsageError(path +
                         ": a value change dump keeps only the changes of each signal and cannot be read "
                         "back; read the .csv or .h5 of the same capture");
    } else {
        throw UsageError("capture '" + path + "': unknown format; name a .csv or .h5 file written by oltb");
    }
}

CaptureReader::~CaptureReader() = default;

std::string SeriesRule::valueProblem(const SignalInfo& signal, std::int64_t value, Positions positions) {
    const unsigned bits = signal.bitsPerSample;
    if (isHeadPosition(signal.type)) {
        const std::int64_t lowest = positions == Positions::Raw ? 0 : LowestPosition;
        const std::int64_t highest = positions == Positions::Signed ? HighestSignedPosition : HighestRawPosition;
        if (value < lowest || value > highest) {
            return "value " + std::to_string(value) + " lies outside the range of " + signal.name + " (" +
                   std::to_string(lowest) + ".." + std::to_string(highest) + ", 20-bit head positions" +
                   (positions == Positions::Either ? ", signed or raw)" : ")");
        }
        return {};
    }
    const std::int64_t lowest = bits == 32 ? INT32_MIN : 0;
    const std::int64_t highest = bits == 32 ? INT32_MAX : (std::int64_t{1} << bits) - 1;
    if (value < lowest || value > highest) {
        return "value " + std::to_string(value) + " does not fit the " + std::to_string(bits) + " bit" +
               (bits == 1 ? "" : "s") + " of " + signal.name + " (" + std::to_string(lowest) + ".." +
               std::to_string(highest) + ")";
    }
    return {};
}

std::string SeriesRule::orderProblem(const oltbTraceEvent& event) {
    if (!std::isfinite(event.Time)) {
        return "time_us is not a finite number";
    }
    if (std::fabs(event.Time) > MaxTimeUs) {
        return "time_us " + timeText(event.Time) + " lies beyond the +-" + timeText(MaxTimeUs) +
               " us a capture can hold (2^53 ticks)";
    }
    if (_any && event.Time < _lastTime) {
        return "time_us " + timeText(event.Time) + " is earlier than the " + timeText(_lastTime) +
               " of the event before: the events are not in time order";
    }
    if (_any && event.Timestamp < _lastTicks) {
        return "timestamp_ticks " + std::to_string(event.Timestamp) + " is earlier than the " +
               std::to_string(_lastTicks) + " of the event before: the events are not in time order";
    }
    _any = true;
    _lastTime = event.Time;
    _lastTicks = event.Timestamp;
    return {};
}

const SeriesInfo& CaptureReader::info() const { return _source->info; }

std::size_t CaptureReader::read(oltbTraceEvent* events, std::size_t capacity) {
    return _source->read(events, capacity);
}

}  // namespace oltb::cli
