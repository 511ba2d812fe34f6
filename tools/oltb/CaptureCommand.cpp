// "oltb capture": starts tracing, reads in slices of 200 ms until the limit (duration, number of events) or
// Ctrl-C, stops, and keeps everything read. A lost connection also ends the capture: what was read is written
// and summarised before the failure is reported.
#include "tools/oltb/CommandSupport.h"
#include "tools/oltb/Commands.h"
#include "tools/oltb/Errors.h"
#include "tools/oltb/Interrupt.h"
#include "tools/oltb/Progress.h"

#include <algorithm>
#include <cstdio>
#include <optional>

namespace oltb::cli {

namespace {

// Short enough that Ctrl-C and the end of the duration are noticed promptly, long enough not to spin.
constexpr int ReadSliceMs = 200;
constexpr std::uint32_t BatchEvents = 4096;
constexpr double TicksPerMicrosecond = 64.0;

}  // namespace

int runCapture(const CaptureOptions& options) {
    const auto wanted = parseWantedSignals(options.signals);
    Outputs outputs(options.outputs);
    outputs.open();
    try {
        const std::unique_ptr<Connection> connection = connectTo(options.host);
        const std::vector<const SignalInfo*> signals = chooseSignals(*connection, wanted, false);
        if (signals.empty()) {
            throw UsageError("the server traces no signal; choose some with --signals");
        }
        SeriesInfo info;
        info.signals = signals;
        info.signedPositions = !options.raw;
        info.timeZero = VcdTimeZero::FirstEvent;
        info.host = options.host;
        info.startTimeUtc = utcNowIso8601();
        outputs.begin(info);
        connection->setReadTimeout(ReadSliceMs);
        connection->start();

        Summary summary;
        Progress progress(progressWanted(options.quiet), stderr);
        std::vector<oltbTraceEvent> batch(BatchEvents);
        std::optional<std::string> failure;
        std::optional<std::uint64_t> origin;
        while (!interruptRequested()) {
            if (options.maxEvents > 0 && summary.totalEvents() >= options.maxEvents) {
                break;
            }
            if (options.durationSeconds > 0.0 && progress.elapsedSeconds() >= options.durationSeconds) {
                break;
            }
            std::uint32_t wantedEvents = BatchEvents;
            if (options.maxEvents > 0) {
                wantedEvents = static_cast<std::uint32_t>(
                    std::min<std::uint64_t>(wantedEvents, options.maxEvents - summary.totalEvents()));
            }
            std::uint32_t count = 0;
            try {
                count = connection->tryRead(batch.data(), wantedEvents);
            } catch (const ServerError& error) {
                failure = error.what();
                break;
            }
            if (!options.raw) {
                oltbToSignedPosition(batch.data(), count);
            }
            // Time 0 of a capture is its first event (the library counts from the connection's reference).
            if (count > 0 && !origin) {
                origin = batch[0].Timestamp;
            }
            for (std::uint32_t index = 0; index < count; ++index) {
                batch[index].Time = static_cast<double>(static_cast<std::int64_t>(batch[index].Timestamp - *origin)) /
                                    TicksPerMicrosecond;
            }
            for (std::uint32_t index = 0; index < count; ++index) {
                summary.add(batch[index]);
            }
            try {
                outputs.write(batch.data(), count);
            } catch (const OutputError&) {
                break;  // the other files are finished with what was read; the failure is reported after
            }
            progress.update(summary.totalEvents());
        }
        progress.finish();
        const double elapsed = progress.elapsedSeconds();
        if (!failure) {
            try {
                connection->stop();
            } catch (const ServerError& error) {
                failure = error.what();
            }
        }
        try {
            outputs.finish();
        } catch (const OutputError& error) {
            if (!error.standardOutputClosed()) {
                reportResult(outputs, summary);
            }
            throw;
        }
        reportResult(outputs, summary);
        if (failure) {
            throw ServerError(*failure);
        }
        if (interruptRequested()) {
            char note[80];
            std::snprintf(note, sizeof(note), "capture ended by interrupt after %.1f s", elapsed);
            printError(note);
        }
        return ExitSuccess;
    } catch (...) {
        outputs.discardUnbegun();
        throw;
    }
}

}  // namespace oltb::cli
