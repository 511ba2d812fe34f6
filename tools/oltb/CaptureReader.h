// Reads a capture that oltb wrote (.csv or .h5, by the extension in any case) back as the series of events it
// holds, in the order written, a batch at a time, with what the file tells about the series:
//
//     CaptureReader reader("trace.h5");
//     std::vector<oltbTraceEvent> batch(4096);
//     while (std::size_t count = reader.read(batch.data(), batch.size())) { ... }
//
// Memory does not grow with the file: an .h5 file is read a chunk per signal at a time and its signals merged by
// each event's place in the series; a CSV is read twice, once to learn its signals and check every line before any
// event is handed out, then row by row. A CSV keeps neither the server, the labels nor the start time, and
// whether head positions are signed only shows in their values: a position above 524287 can only be raw.
//
// Every reader holds the events to one rule (SeriesRule), so that an edited file is refused with the file and the
// row rather than analysed into nonsense: a time that is finite and within what a capture can hold, times and
// ticks that never go back, a value its signal can carry.
#pragma once

#include "api/oltb.h"
#include "tools/oltb/SeriesInfo.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace oltb::cli {

class SeriesRule {
public:
    // How head positions are given: converted to signed numbers, raw 20-bit values, or not known yet (a CSV before
    // it was read to its end).
    enum class Positions { Signed, Raw, Either };

    // Beyond 2^53 ticks (about 4.5 years) a time in us no longer tells ticks apart.
    static constexpr double MaxTimeUs = 9007199254740992.0 / 64.0;

    // Why `value` is no sample of `signal`: too wide for its bits, or a position outside a head's 20-bit range.
    // Empty when it is one.
    static std::string valueProblem(const SignalInfo& signal, std::int64_t value, Positions positions);

    // Why `event` (with its value already checked) cannot follow the events checked before it: a time that is not
    // finite or lies beyond MaxTimeUs, a time or a tick earlier than the event before. Empty when it can.
    std::string orderProblem(const oltbTraceEvent& event);

private:
    bool _any = false;
    double _lastTime = 0.0;
    std::uint64_t _lastTicks = 0;
};

class CaptureReader {
public:
    // Opens the file and reads what it tells about the series. Throws UsageError when the file is no capture of
    // oltb (the message names the file and, for a CSV, the line), InputError when it cannot be read (missing, not
    // permitted, a damaged HDF5 file).
    explicit CaptureReader(const std::string& path);
    ~CaptureReader();
    CaptureReader(const CaptureReader&) = delete;
    CaptureReader& operator=(const CaptureReader&) = delete;

    const SeriesInfo& info() const;

    // The next events, at most `capacity`, into `events`; 0 once every event was read. Throws as the constructor.
    std::size_t read(oltbTraceEvent* events, std::size_t capacity);

    // What a source of events must do; each format has its own.
    class Source {
    public:
        virtual ~Source() = default;
        virtual std::size_t read(oltbTraceEvent* events, std::size_t capacity) = 0;
        SeriesInfo info;
    };

private:
    std::unique_ptr<Source> _source;
};

// The reader of .h5 captures (H5Reader.cpp), which reads the file in a child process; refuses with a UsageError
// when this oltb was built without HDF5.
std::unique_ptr<CaptureReader::Source> openH5Capture(const std::string& path);
// The same reading in this process, for the fuzz target, which compares it with the child's and needs to see its
// paths; the tools use openH5Capture only. (Built with HDF5 only.)
std::unique_ptr<CaptureReader::Source> openH5CaptureInThisProcess(const std::string& path);

}  // namespace oltb::cli
