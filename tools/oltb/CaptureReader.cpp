// The reader's CSV side: rows exactly as CsvWriter writes them, and the choice of the side by the file's extension.
#include "tools/oltb/CaptureReader.h"

#include "tools/oltb/CsvWriter.h"
#include "tools/oltb/Errors.h"
#include "tools/oltb/Outputs.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <fstream>
#include <string_view>

namespace oltb::cli {

namespace {

// The largest raw head position that is also a signed one; raw values go up to 2^20 - 1.
constexpr std::int32_t LargestSignedPosition = 524287;

template <typename Number>
bool parseWhole(std::string_view text, Number& number) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() && !text.empty();
}

// One row "timestamp_ticks,time_us,signal,type,value,overflow" into `event`; the reason when it is not one.
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
    if (!parseWhole(cells[0], event.Timestamp)) {
        return "timestamp_ticks is not a whole number of ticks";
    }
    if (timeError != std::errc() || timeEnd != time.data() + time.size() || time.empty() || !std::isfinite(event.Time)) {
        return "time_us is not a number";
    }
    const SignalInfo* signal = parseWhole(cells[3], type) ? findSignalByType(type) : nullptr;
    if (signal == nullptr || cells[2] != signal->name) {
        return "signal and type do not name one signal of the table (see: oltb signals)";
    }
    event.Type = signal->type;
    if (!parseWhole(cells[4], event.Value)) {
        return "value is not a 32-bit whole number";
    }
    if (cells[5] != "0" && cells[5] != "1") {
        return "overflow is neither 0 nor 1";
    }
    event.Overflow = cells[5] == "1";
    return {};
}

class CsvCapture : public CaptureReader::Source {
public:
    // Reads the whole file once: the signals it holds, and a line that is no row fails before any event is used.
    explicit CsvCapture(const std::string& path) : _path(path), _in(path) {
        if (!_in) {
            throw InputError("cannot read " + path + ": " + std::strerror(errno));
        }
        if (!std::getline(_in, _line) || _line != CsvWriter::Header) {
            throw UsageError(path + ": line 1: not a capture written by oltb (its CSV starts with the line " +
                             CsvWriter::Header + ")");
        }
        std::array<bool, 128> seen{};
        oltbTraceEvent event{};
        while (next(event)) {
            seen[static_cast<std::size_t>(event.Type)] = true;
            if (isHeadPosition(event.Type) && event.Value > LargestSignedPosition) {
                info.signedPositions = false;
            }
        }
        for (const SignalInfo& signal : allSignals()) {
            if (seen[static_cast<std::size_t>(signal.type)]) {
                info.signals.push_back(&signal);
            }
        }
        _in.clear();
        _in.seekg(0);
        _lineNumber = 1;
        if (!std::getline(_in, _line)) {
            throw InputError("cannot read " + path + " again");
        }
    }

    std::size_t read(oltbTraceEvent* events, std::size_t capacity) override {
        std::size_t count = 0;
        while (count < capacity && next(events[count])) {
            ++count;
        }
        return count;
    }

private:
    bool next(oltbTraceEvent& event) {
        if (!std::getline(_in, _line)) {
            if (_in.bad()) {
                throw InputError("cannot read " + _path + ": " + std::strerror(errno));
            }
            return false;
        }
        ++_lineNumber;
        const std::string reason = parseRow(_line, event);
        if (!reason.empty()) {
            throw UsageError(_path + ": line " + std::to_string(_lineNumber) + ": not a row of an oltb capture: " +
                             reason);
        }
        return true;
    }

    std::string _path;
    std::ifstream _in;
    std::string _line;
    std::uint64_t _lineNumber = 1;
};

}  // namespace

CaptureReader::CaptureReader(const std::string& path) {
    const std::optional<OutputFormat> format = formatOfFileName(path);
    if (format == OutputFormat::Csv) {
        _source = std::make_unique<CsvCapture>(path);
    } else if (format == OutputFormat::H5) {
        _source = openH5Capture(path);
    } else if (format == OutputFormat::Vcd) {
        throw UsageError(path + ": a value change dump keeps only the changes of each signal and cannot be read "
                                "back; read the .csv or .h5 of the same capture");
    } else {
        throw UsageError("capture '" + path + "': unknown format; name a .csv or .h5 file written by oltb");
    }
}

CaptureReader::~CaptureReader() = default;

const SeriesInfo& CaptureReader::info() const {
    return _source->info;
}

std::size_t CaptureReader::read(oltbTraceEvent* events, std::size_t capacity) {
    return _source->read(events, capacity);
}

}  // namespace oltb::cli
