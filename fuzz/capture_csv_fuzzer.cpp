// Fuzz target: any bytes as a CSV capture, read as oltb reads one (CaptureCheck.h). What the reader accepts,
// written again by the CSV writer and read back, is the same series.
#include "fuzz/CaptureCheck.h"

#include "tools/oltb/CsvWriter.h"

#include <sstream>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<oltbTraceEvent> events;
    if (!readWholeCapture(fuzzFile("capture.csv", std::string(reinterpret_cast<const char*>(data), size)), events)) {
        return 0;
    }
    std::ostringstream text;
    oltb::cli::CsvWriter(text).write(events.data(), events.size());
    std::vector<oltbTraceEvent> again;
    FUZZ_CHECK(readWholeCapture(fuzzFile("again.csv", text.str()), again) && sameEvents(again, events));
    return 0;
}
