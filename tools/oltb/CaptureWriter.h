// One output file of a series of events, in the format its name's extension says. Every format implements this
// interface; the list of formats (WriterFormats.cpp) is the only place that knows them all, so that a fourth format
// is its writer and one line of that list.
#pragma once

#include "api/oltb.h"
#include "tools/oltb/SeriesInfo.h"

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace oltb::cli {

class CaptureWriter {
public:
    virtual ~CaptureWriter() = default;
    // Events in the series' order. Throws OutputError; a buffered text's failed write shows in error() instead.
    virtual void write(const oltbTraceEvent* events, std::size_t count) = 0;
    // Completes the file: what is buffered, a last time stamp, a view file beside it. Throws OutputError.
    virtual void finish() = 0;
    // errno of the first write that failed, 0 while none did.
    virtual int error() const { return 0; }
    // What the format had to change of the series (events moved or left out), one text each.
    virtual std::vector<std::string> warnings(const std::string& /*path*/) const { return {}; }
};

struct WriterFormat {
    const char* extension;  // ".csv", lower case
    // Whether the writer creates the file from its name itself (HDF5), rather than writing the open descriptor.
    bool writesByName;
    bool (*available)();  // false when this oltb was built without what the format needs
    const char* needs;    // what it needs: "HDF5"
    // Starts the file with what is known of the series. Throws OutputError.
    std::unique_ptr<CaptureWriter> (*start)(int descriptor, const std::string& path, const SeriesInfo& info);
};

// Every format oltb writes.
const std::vector<WriterFormat>& writerFormats();

// The format of a file name by its extension (any case); "-" (standard output) is CSV; null for any other name.
const WriterFormat* writerFormatOf(const std::string& path);

}  // namespace oltb::cli
