// Writes events to an HDF5 file, the common ground of MATLAB, Python (h5py, pandas) and HDFView: one group per
// signal, named as in `oltb signals`, holding one dataset per column of its events, each chunked and compressed.
//
//   /                      attributes tool, tool_version, server, traced_signals, start_time_utc,
//                          start_label and end_label (after an acquisition)
//   /<signal>/             attributes event_type, bits_per_sample, signed (1: values are signed head positions)
//       timestamp_ticks    uint64   the card's clock, 64 ticks per us
//       time_us            float64  the event's time as the tool writes it (from the first event or the start label)
//       value              int32
//       overflow           uint8    1: words were lost before this one
//       sequence           uint64   the event's place in the whole series, counted from 0
//
// Events are kept per signal and appended a chunk at a time, so memory stays the same however long a capture runs.
// Once a second all events are appended and the file is flushed; what a hard kill leaves is told in the README.
#pragma once

#include "api/oltb.h"
#include "tools/oltb/SeriesInfo.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace oltb::cli {

class H5Writer {
public:
    static constexpr std::size_t ChunkEvents = 4096;
    static constexpr const char* ToolName = "oltb";

    // Whether this oltb was built with HDF5; without it .h5 files are refused as a usage error.
    static bool available();

    // Creates the file (replacing one of that name) with its attributes and an empty group for each signal of
    // `info`. Throws OutputError naming the file.
    H5Writer(const std::string& path, const SeriesInfo& info);
    // Closes the file without writing what is still buffered (finish() writes it).
    ~H5Writer();
    H5Writer(const H5Writer&) = delete;
    H5Writer& operator=(const H5Writer&) = delete;

    // Events must come in the series' order. An event of a signal that has no group yet gets one; one of a type
    // outside the signal table (which the library never delivers) is left out. Throws OutputError.
    void write(const oltbTraceEvent& event) { write(&event, 1); }
    void write(const oltbTraceEvent* events, std::size_t count);

    // Appends every event kept and flushes the file to disk, if the last flush is a second ago or more. Throws
    // OutputError.
    void flushIfDue();

    // Writes what is buffered and closes the file. Throws OutputError.
    void finish();

private:
    struct State;
    std::unique_ptr<State> _state;
};

}  // namespace oltb::cli
