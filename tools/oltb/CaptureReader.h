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
#pragma once

#include "api/oltb.h"
#include "tools/oltb/SeriesInfo.h"

#include <cstddef>
#include <memory>
#include <string>

namespace oltb::cli {

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

// The reader of .h5 captures (H5Reader.cpp); refuses with a UsageError when this oltb was built without HDF5.
std::unique_ptr<CaptureReader::Source> openH5Capture(const std::string& path);

}  // namespace oltb::cli
