#include "tools/oltb/CommandSupport.h"

#include "tools/oltb/CaptureReader.h"
#include "tools/oltb/Commands.h"
#include "tools/oltb/Errors.h"
#include "tools/oltb/Interrupt.h"

#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <mutex>
#include <thread>

namespace oltb::cli {

std::optional<std::vector<const SignalInfo*>> parseWantedSignals(const std::string& list) {
    if (list.empty()) {
        return std::nullopt;
    }
    try {
        return parseSignalList(list);
    } catch (const UnknownSignalError& error) {
        throw UsageError(error.what());
    }
}

std::unique_ptr<Connection> connectTo(const std::string& host) {
    InterruptsBlockedForNewThreads blocked;
    return std::make_unique<Connection>(host);
}

void runInterruptibly(const std::function<void()>& step, const std::function<void()>& cleanUp) {
    struct Shared {
        std::mutex mutex;
        std::condition_variable done;
        bool finished = false;
        std::exception_ptr failure;
    };
    const auto shared = std::make_shared<Shared>();
    std::thread worker;
    {
        InterruptsBlockedForNewThreads blocked;
        worker = std::thread([shared, step] {
            std::exception_ptr failure;
            try {
                step();
            } catch (...) {
                failure = std::current_exception();
            }
            const std::lock_guard<std::mutex> lock(shared->mutex);
            shared->failure = failure;
            shared->finished = true;
            shared->done.notify_all();
        });
    }
    std::unique_lock<std::mutex> lock(shared->mutex);
    while (!shared->done.wait_for(lock, std::chrono::milliseconds(20), [&] { return shared->finished; })) {
        if (interruptRequested()) {
            // The step may wait out a server that does not answer: it is left to the end of the process.
            lock.unlock();
            worker.detach();
            cleanUp();
            printError("interrupted while talking to the server; nothing written");
            std::_Exit(ExitInterrupted);
        }
    }
    lock.unlock();
    worker.join();
    if (shared->failure) {
        std::rethrow_exception(shared->failure);
    }
}

std::vector<const SignalInfo*> chooseSignals(Connection& connection,
                                             const std::optional<std::vector<const SignalInfo*>>& wanted,
                                             bool withLabel) {
    if (wanted || withLabel) {
        oltbTraceBufferConfig_Struct config = connection.getConfig();
        if (wanted) {
            selectOnly(config, *wanted);
        }
        if (withLabel) {
            config.Label = true;
        }
        connection.setConfig(config);
    }
    return signalsIn(connection.getConfig());
}

namespace {

// The whole capture (CSV or HDF5), head positions as signed numbers.
std::vector<oltbTraceEvent> readCapture(const std::string& path) {
    CaptureReader reader(path);
    std::vector<oltbTraceEvent> events;
    std::vector<oltbTraceEvent> batch(1 << 16);
    while (const std::size_t count = reader.read(batch.data(), batch.size())) {
        events.insert(events.end(), batch.begin(), batch.begin() + static_cast<std::ptrdiff_t>(count));
    }
    if (!reader.info().signedPositions) {
        oltbToSignedPosition(events.data(), static_cast<std::uint32_t>(events.size()));
    }
    return events;
}

}  // namespace

std::optional<std::vector<oltbTraceEvent>> eventsToAnalyze(const AnalyzeOptions& options) {
    if (options.startGiven != options.endGiven) {
        throw UsageError("analyzing a server needs both --start and --end");
    }
    if (!options.startGiven) {
        if (sameFile("-", options.input)) {
            throw UsageError("standard output is the capture to read, " + options.input);
        }
        return readCapture(options.input);
    }
    AcquireOptions live = options.live;
    live.host = options.input;
    live.raw = false;
    std::optional<AcquiredEvents> acquired = acquireEvents(live, parseWantedSignals(live.signals));
    if (!acquired) {
        return std::nullopt;
    }
    return std::move(acquired->events);
}

analysis::Options analysisOptions(const AnalyzeOptions& options) {
    analysis::Options settings;
    settings.head = options.head;
    settings.settleBandUnits = options.settleBandUnits;
    settings.maxEdgeDose = options.maxEdgeDose;
    settings.keepSeries = true;  // the report page draws them
    return settings;
}

analysis::Result analyzeEvents(const std::vector<oltbTraceEvent>& events, const AnalyzeOptions& options) {
    return analysis::analyze(events, analysisOptions(options));
}

namespace {

void reportResult(const Outputs& outputs, const Summary& summary) {
    const std::string written = outputs.describeComplete();
    if (written.empty()) {
        return;
    }
    for (const std::string& warning : outputs.warnings()) {
        printError("warning: " + warning);
    }
    std::ostream& out = outputs.csvOnStandardOutput() ? std::cerr : std::cout;
    summary.print(out);
    out << summary.totalEvents() << " events written to " << written << '\n';
    out.flush();
}

}  // namespace

void finishAndReport(Outputs& outputs, const Summary& summary) {
    try {
        outputs.finish();
    } catch (const OutputError& error) {
        if (!error.standardOutputClosed()) {
            reportResult(outputs, summary);
        }
        throw;
    }
    reportResult(outputs, summary);
}

void writeWholeFile(const std::string& path, const std::string& text) {
    const std::string partial = path + ".part" + std::to_string(::getpid());
    std::FILE* file = std::fopen(partial.c_str(), "wb");
    if (file == nullptr) {
        throw OutputError("cannot create " + partial + ": " + std::strerror(errno));
    }
    bool written = std::fwrite(text.data(), 1, text.size(), file) == text.size();
    int error = written ? 0 : errno;
    if (std::fclose(file) != 0 && written) {
        written = false;
        error = errno;
    }
    if (written && std::rename(partial.c_str(), path.c_str()) != 0) {
        written = false;
        error = errno;
    }
    if (!written) {
        std::remove(partial.c_str());
        throw OutputError("cannot write " + path + ": " + std::strerror(error));
    }
}

void printError(const std::string& text) {
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find('\n', begin), text.size());
        std::cerr << "oltb: " << text.substr(begin, end - begin) << '\n';
        begin = end + 1;
    }
    std::cerr.flush();
}

}  // namespace oltb::cli
