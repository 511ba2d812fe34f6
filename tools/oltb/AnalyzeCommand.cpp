// "oltb analyze": what a trace says about the card's tuning (the analysis library), as a summary with suggestions
// or as one JSON object. The trace comes from a capture file or, with --start and --end, from the server through
// the same acquisition as "oltb acquire".
#include "analysis/AnalysisReport.h"
#include "analysis/TraceAnalysis.h"
#include "tools/oltb/CommandSupport.h"
#include "tools/oltb/Commands.h"
#include "tools/oltb/CsvWriter.h"
#include "tools/oltb/Errors.h"

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

namespace oltb::cli {

namespace {

// TEMPORARY: reads the CSV that CsvWriter writes, in the least code that does. The capture reader shared by the
// tool's commands (CSV and HDF5 files) replaces this function once it is there.
std::vector<oltbTraceEvent> readCsvCapture(const std::string& path) {
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) {
        throw InputError("cannot read " + path + ": " + std::strerror(errno), true);
    }
    std::string text;
    char block[1 << 16];
    std::size_t got = 0;
    while ((got = std::fread(block, 1, sizeof(block), file)) > 0) {
        text.append(block, got);
    }
    const bool failed = std::ferror(file) != 0;
    std::fclose(file);
    if (failed) {
        throw InputError("cannot read " + path, true);
    }

    std::vector<oltbTraceEvent> events;
    std::size_t lineNumber = 0;
    std::size_t begin = 0;
    while (begin < text.size()) {
        std::size_t end = text.find('\n', begin);
        end = end == std::string::npos ? text.size() : end;
        std::string_view line(text.data() + begin, end - begin);
        begin = end + 1;
        ++lineNumber;
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        const auto fail = [&](const std::string& what) {
            return InputError(path + ":" + std::to_string(lineNumber) + ": not an oltb capture: " + what, false);
        };
        if (lineNumber == 1) {
            if (line != CsvWriter::Header) throw fail(std::string("the first line must be ") + CsvWriter::Header);
            continue;
        }
        if (line.empty()) continue;
        oltbTraceEvent event{};
        const char* p = line.data();
        const char* const stop = line.data() + line.size();
        int type = 0;
        int overflow = 0;
        const auto field = [&](auto& value) {
            const auto [next, error] = std::from_chars(p, stop, value);
            if (error != std::errc() || (next != stop && *next != ',')) throw fail("a field is not a number");
            p = next == stop ? next : next + 1;
        };
        field(event.Timestamp);
        field(event.Time);
        p = static_cast<const char*>(std::memchr(p, ',', static_cast<std::size_t>(stop - p)));
        if (p == nullptr) throw fail("expected 6 fields");
        ++p;
        field(type);
        field(event.Value);
        field(overflow);
        if (p != stop || type < 0 || type > 127 || overflow < 0 || overflow > 1) throw fail("expected 6 fields");
        event.Type = static_cast<oltbTraceEventType>(type);
        event.Overflow = overflow != 0;
        events.push_back(event);
    }
    if (lineNumber == 0) {
        throw InputError(path + ":1: not an oltb capture: the file is empty", false);
    }
    return events;
}

std::string signalName(int type) {
    const SignalInfo* signal = findSignalByType(type);
    return signal != nullptr ? signal->name : std::string();
}

}  // namespace

int runAnalyze(const AnalyzeOptions& options) {
    if (options.startGiven != options.endGiven) {
        throw UsageError("analyzing a server needs both --start and --end");
    }
    std::vector<oltbTraceEvent> events;
    if (options.startGiven) {
        AcquireOptions live = options.live;
        live.host = options.input;
        live.raw = false;
        std::optional<AcquiredEvents> acquired = acquireEvents(live, parseWantedSignals(live.signals));
        if (!acquired) {
            printError("acquisition interrupted before the end label; nothing analyzed");
            return ExitInterrupted;
        }
        events = std::move(acquired->events);
    } else {
        events = readCsvCapture(options.input);
    }

    analysis::Options settings;
    settings.head = options.head;
    settings.settleBandUnits = options.settleBandUnits;
    const analysis::Result result = analysis::analyze(events, settings);
    std::string text;
    if (options.json) {
        text = analysis::toJson(result, signalName);
    } else {
        analysis::SummaryOptions summary;
        summary.source = options.input;
        summary.unitsPerMm = options.unitsPerMm;
        summary.signalName = signalName;
        text = analysis::toSummary(result, summary);
    }
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0) {
        throw OutputError("cannot write to standard output", errno == EPIPE);
    }
    return ExitSuccess;
}

}  // namespace oltb::cli
