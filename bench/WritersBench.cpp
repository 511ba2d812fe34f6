// Figures of the tool's writers: events in memory (the marking job with every signal it drives, decoded, positions
// signed and times counted from the first event, as `oltb capture` hands them over) written through the tool's
// outputs in batches of 4096 to a CSV, a VCD and an HDF5 file in the page cache, from creating the file to closing
// it. The limit is write(2) of as many bytes as the file got, a megabyte at a time, to another file in the same
// directory: what writing the bytes alone costs. Each format and its limit run back to back, five times over.
#include "bench/BenchStreams.h"
#include "bench/FigureReport.h"
#include "bench/MemoryBlockSource.h"

#include "events/TraceDecoder.h"
#include "tools/oltb/Outputs.h"
#include "tools/oltb/SeriesInfo.h"
#include "tools/oltb/Signals.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace oltb::bench {
namespace {

using Clock = std::chrono::steady_clock;
using OLVEN::TALIX3::TraceBuffer::TraceDecoder;

constexpr int Repetitions = 5;
constexpr double TraceSeconds = 1.5;
constexpr std::size_t BatchEvents = 4096;
constexpr std::size_t WriteBytes = std::size_t{1} << 20;

double secondsSince(Clock::time_point begin) { return std::chrono::duration<double>(Clock::now() - begin).count(); }

// The events of the job as the tool gets them from the library.
std::vector<oltbTraceEvent> capturedEvents() {
    const TraceStream stream = markingJobStream(TraceSeconds);
    MemoryBlockSource source(stream.blocks);
    TraceDecoder decoder;
    std::vector<oltbTraceEvent> events(stream.events);
    std::size_t count = 0;
    while (count < events.size()) {
        const unsigned read = decoder.TryRead(source, events.data(), static_cast<unsigned>(count),
                                              static_cast<unsigned>(std::min(BatchEvents, events.size() - count)), 0);
        if (read == 0 && source.exhausted()) break;
        count += read;
    }
    events.resize(count);
    TraceDecoder::ToSignedPosition(events.data(), static_cast<unsigned>(events.size()));
    const std::uint64_t origin = events.empty() ? 0 : events.front().Timestamp;
    for (oltbTraceEvent& event : events) {
        event.Time = static_cast<double>(static_cast<std::int64_t>(event.Timestamp - origin)) / 64.0;
    }
    return events;
}

cli::SeriesInfo seriesOf(const std::vector<oltbTraceEvent>& events) {
    std::vector<bool> present(128, false);
    for (const oltbTraceEvent& event : events) present[static_cast<std::size_t>(event.Type) % 128] = true;
    cli::SeriesInfo info;
    for (const cli::SignalInfo& signal : cli::allSignals()) {
        if (present[static_cast<std::size_t>(signal.type)]) info.signals.push_back(&signal);
    }
    info.timeZero = cli::VcdTimeZero::FirstEvent;
    info.host = "bench";
    info.startTimeUtc = cli::utcNowIso8601();
    return info;
}

// Seconds to write every event through the tool's outputs, from creating the file to closing it.
double writeThroughOutputs(const std::string& path, const cli::SeriesInfo& info,
                           const std::vector<oltbTraceEvent>& events) {
    std::filesystem::remove(path);
    const Clock::time_point begin = Clock::now();
    cli::Outputs outputs({path});
    outputs.open();
    outputs.begin(info);
    for (std::size_t first = 0; first < events.size(); first += BatchEvents) {
        outputs.write(events.data() + first, std::min(BatchEvents, events.size() - first));
    }
    outputs.finish();
    return secondsSince(begin);
}

// Seconds to create a file and write(2) `bytes` into it a megabyte at a time, then close it; -1 on a failure.
double writeBytes(const std::string& path, std::size_t bytes) {
    static const std::vector<char> buffer(WriteBytes, 'x');
    std::filesystem::remove(path);
    const Clock::time_point begin = Clock::now();
    const int descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (descriptor < 0) return -1;
    for (std::size_t left = bytes; left > 0;) {
        const ssize_t written = ::write(descriptor, buffer.data(), std::min(left, buffer.size()));
        if (written <= 0) {
            ::close(descriptor);
            return -1;
        }
        left -= static_cast<std::size_t>(written);
    }
    if (::close(descriptor) != 0) return -1;
    return secondsSince(begin);
}

}  // namespace
}  // namespace oltb::bench

// Arguments: the formats to measure (csv, vcd, h5); all without any.
int main(int argc, char** argv) {
    using namespace oltb::bench;
    const std::vector<std::string> chosen(argv + 1, argv + argc);
    namespace fs = std::filesystem;
    const std::vector<oltbTraceEvent> events = capturedEvents();
    const oltb::cli::SeriesInfo info = seriesOf(events);
    const fs::path directory = fs::temp_directory_path() / ("oltb-bench-writers-" + std::to_string(::getpid()));
    fs::create_directories(directory);
    std::printf("writers, %zu events of the marking job (every signal) in memory to files in the page cache (%s)\n",
                events.size(), directory.c_str());
    std::fflush(stdout);

    struct Format {
        const char* extension;
        const char* title;
        const char* target;
    };
    const Format formats[] = {{"csv", "writer CSV, events to a file", "target >= 1e7 events/s"},
                              {"vcd", "writer VCD, events to a file", "target >= 1e7 events/s"},
                              {"h5", "writer HDF5, events to a file", "target >= 2e7 events/s"}};
    bool ok = true;
    for (const Format& format : formats) {
        if (!chosen.empty() && std::find(chosen.begin(), chosen.end(), format.extension) == chosen.end()) continue;
        const std::string path = (directory / (std::string("events.") + format.extension)).string();
        const std::string plain = (directory / "bytes.bin").string();
        RatePair pair;
        std::uintmax_t bytes = 0;
        try {
            writeThroughOutputs(path, info, events);  // a first pass that sizes the page cache and the allocator
            for (int repetition = 0; repetition < Repetitions; ++repetition) {
                const double seconds = writeThroughOutputs(path, info, events);
                bytes = fs::file_size(path);
                const double limitSeconds = writeBytes(plain, bytes);
                if (limitSeconds <= 0) throw std::runtime_error("cannot write " + plain);
                pair.measured.push_back(static_cast<double>(events.size()) / seconds);
                pair.limit.push_back(static_cast<double>(events.size()) / limitSeconds);
            }
        } catch (const std::exception& error) {
            std::fprintf(stderr, "%s: %s\n", format.extension, error.what());
            ok = false;
            continue;
        }
        char note[160];
        std::snprintf(note, sizeof note, "%.1f bytes/event, %.0f MB; %s", static_cast<double>(bytes) / events.size(),
                      static_cast<double>(bytes) / 1e6, format.target);
        printFigure(format.title, pair, "events/s", "write() of its bytes", "events/s", note);
    }
    fs::remove_all(directory);
    return ok ? 0 : 1;
}
