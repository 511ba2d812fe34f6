// Fuzz target: the .h5 capture reader on damaged files. A small capture written by oltb (three signals, one of them
// over two chunks) is changed where the input says, four bytes a change: a 24-bit place in the file and the byte put
// there. The file is read as oltb reads one (CaptureCheck.h), in a child process; unchanged, it reads back as
// written. Unless HDF5 failed on it there, it is read again in this process, where the fuzzer sees the reader's
// paths, with the same outcome.
#include "fuzz/CaptureCheck.h"

#include "tools/oltb/H5Writer.h"

#include <iterator>

// A damaged file may make HDF5 ask for absurd amounts of memory, which malloc refuses outside the sanitizer; so it
// does here, rather than ending the run. HDF5 loses a few bytes on some of its failure paths, which no caller can
// free: those are not the reader's leaks.
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }
extern "C" const char* __lsan_default_suppressions() { return "leak:libhdf5"; }

namespace {

constexpr std::size_t SeriesEvents = 5000 + 50 + 5;

const std::string& writtenCapture() {
    static const std::string bytes = [] {
        oltb::cli::SeriesInfo info;
        info.signals = oltb::cli::parseSignalList("Gate,Head0TxX,Label");
        info.host = "fuzz";
        info.startLabel = 1;
        info.endLabel = 2;
        const std::string path = fuzzFile("written.h5", "");
        oltb::cli::H5Writer writer(path, info);
        for (std::uint64_t tick = 0; tick < 5000; ++tick) {
            const double time = static_cast<double>(tick) / 64;
            writer.write({tick, time, oltbEventHead0TxX, tick == 7, -static_cast<std::int32_t>(tick)});
            if (tick % 100 == 0)
                writer.write({tick, time, oltbEventGate, false, static_cast<std::int32_t>(tick / 100 % 2)});
            if (tick % 1000 == 0) writer.write({tick, time, oltbEventLabel, false, 65535});
        }
        writer.finish();
        std::ifstream file(path, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    }();
    return bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string file = writtenCapture();
    for (std::size_t i = 0; i + 4 <= size; i += 4) {
        file[((std::size_t{data[i]} << 16) | (std::size_t{data[i + 1]} << 8) | data[i + 2]) % file.size()] =
            static_cast<char>(data[i + 3]);
    }
    const std::string path = fuzzFile("capture.h5", file);
    std::vector<oltbTraceEvent> events, again;
    std::string refusal, refusedAgain;
    const auto asTheToolReads = [](const std::string& name) {
        return std::make_unique<oltb::cli::CaptureReader>(name);
    };
    const bool read = readWholeCapture(path, events, refusal, asTheToolReads);
    FUZZ_CHECK(size >= 4 || (read && events.size() == SeriesEvents));
    if (refusal.find("HDF5 failed on it") != std::string::npos) {
        return 0;  // a fault of HDF5's own, met by the child process that reads the file
    }
    // Read again in this process, where the fuzzer sees the reader's paths: the same series or the same refusal.
    readWholeCapture(path, again, refusedAgain, oltb::cli::openH5CaptureInThisProcess);
    FUZZ_CHECK(refusedAgain == refusal && (!read || sameEvents(again, events)));
    return 0;
}
