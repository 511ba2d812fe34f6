// Fuzz target: any bytes as a CSV capture, read as oltb reads one (CaptureCheck.h). What the reader accepts,
// written again by the CSV writer and read back, is the same series.
#include "CaptureCheck.h"

#include "tools/oltb/CsvWriter.h"

#include <sstream>
#include <tuple>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<oltbTraceEvent> events;
    if (!readWholeCapture(fuzzFile("capture.csv", std::string(reinterpret_cast<const char*>(data), size)), events)) {
        return 0;
    }
    std::ostringstream text;
    oltb::cli::CsvWriter(text).write(events.data(), events.size());
    std::vector<oltbTraceEvent> again;
    FUZZ_CHECK(readWholeCapture(fuzzFile("again.csv", text.str()), again) && again.size() == events.size());
    for (std::size_t i = 0; i < events.size(); ++i) {
        const auto fields = [](const oltbTraceEvent& e) { return std::tuple(e.Timestamp, e.Time, e.Type, e.Overflow, e.Value); };
        FUZZ_CHECK(fields(events[i]) == fields(again[i]));
    }
    return 0;
}
