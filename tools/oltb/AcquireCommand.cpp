// "oltb acquire": the events between a start label and an end label. The tool reads the trace in slices and keeps
// the label window itself, so that it knows at every moment which label it waits for: a wait that goes on too long
// or an interrupt ends within a slice, and the message says which label did not come. Only a complete series is
// written.
#include "tools/oltb/CommandOptions.h"
#include "tools/oltb/CommandSupport.h"
#include "tools/oltb/Commands.h"
#include "tools/oltb/Errors.h"
#include "tools/oltb/Interrupt.h"
#include "tools/oltb/LabelWindow.h"
#include "tools/oltb/Progress.h"

#include <cstdio>
#include <memory>
#include <string>

namespace oltb::cli {

namespace {

// Short enough that the longest wait and Ctrl-C are noticed promptly, long enough not to spin.
constexpr int ReadSliceMs = 100;
constexpr std::uint32_t BatchEvents = 4096;

std::string seconds(double value) {
    char text[32];
    std::snprintf(text, sizeof(text), "%g s", value);
    return text;
}

// Reads until the window is complete; throws ServerError when the server falls silent for too long, when the
// longest wait has passed or the connection fails. Returns false when interrupted.
bool collect(Connection& connection, const AcquireOptions& options, LabelWindow& window) {
    const std::string start = "start label " + std::to_string(options.startLabel);
    const std::string end = "end label " + std::to_string(options.endLabel);
    Progress progress(progressWanted(options.quiet), stderr);
    std::vector<oltbTraceEvent> batch(BatchEvents);
    double lastArrival = 0.0;
    while (!interruptRequested()) {
        const std::uint32_t count = connection.tryRead(batch.data(), BatchEvents);
        const double now = progress.elapsedSeconds();
        if (window.add(batch.data(), count)) {
            progress.finish();
            return true;
        }
        const std::string missing = window.startSeen() ? start + " came, but no " + end : "no " + start;
        if (count > 0) {
            lastArrival = now;
        } else if (now - lastArrival >= options.timeoutSeconds) {
            progress.finish();
            throw ServerError(missing + ": the server sent nothing for " + seconds(options.timeoutSeconds) +
                              " (--timeout)");
        }
        if (now >= options.maxWaitSeconds) {
            progress.finish();
            throw ServerError(missing + " within " + seconds(options.maxWaitSeconds) + " (--max-wait)");
        }
        progress.showWaiting(window.startSeen() ? std::to_string(window.size()) + " events since the " + start +
                                                      ", waiting for the " + end
                                                : "waiting for the " + start);
    }
    progress.finish();
    return false;
}

}  // namespace

std::optional<AcquiredEvents> acquireEvents(const AcquireOptions& options,
                                            const std::optional<std::vector<const SignalInfo*>>& wanted,
                                            const std::function<void()>& cleanUp) {
    std::unique_ptr<Connection> connection;
    AcquiredEvents acquired;
    SeriesInfo& info = acquired.info;
    runInterruptibly(
        [&] {
            connection = connectTo(options.host);
            info.signals = chooseSignals(*connection, wanted, true);
            connection->setReadTimeout(ReadSliceMs);
            connection->start();
        },
        cleanUp);
    info.signedPositions = !options.raw;
    info.host = options.host;
    info.startLabel = static_cast<std::uint16_t>(options.startLabel);
    info.endLabel = static_cast<std::uint16_t>(options.endLabel);
    info.startTimeUtc = utcNowIso8601();
    LabelWindow window(*info.startLabel, *info.endLabel);
    if (!collect(*connection, options, window)) {
        return std::nullopt;
    }
    connection->stop();
    acquired.events = window.takeEvents();
    info.valuesAtZero = window.lastBeforeStart();
    info.vcd = options.vcd;
    if (!options.raw) {
        oltbToSignedPosition(acquired.events.data(), static_cast<std::uint32_t>(acquired.events.size()));
        oltbToSignedPosition(info.valuesAtZero.data(), static_cast<std::uint32_t>(info.valuesAtZero.size()));
    }
    return acquired;
}

namespace {

int runAcquire(const AcquireOptions& options) {
    const auto wanted = parseWantedSignals(options.signals);
    Outputs outputs(options.outputs);
    outputs.open();
    try {
        std::optional<AcquiredEvents> acquired = acquireEvents(options, wanted, [&outputs] { outputs.discard(); });
        if (!acquired) {
            outputs.discardUnbegun();
            printError("acquisition interrupted before the end label; nothing written");
            return ExitInterrupted;
        }
        const std::vector<oltbTraceEvent>& events = acquired->events;
        Summary summary;
        for (const oltbTraceEvent& event : events) {
            summary.add(event);
        }
        outputs.begin(acquired->info);
        outputs.write(events.data(), events.size());
        finishAndReport(outputs, summary);
        return ExitSuccess;
    } catch (...) {
        outputs.discardUnbegun();
        throw;
    }
}

}  // namespace

Command addAcquireCommand(CLI::App& app) {
    auto options = std::make_shared<AcquireOptions>();
    AcquireOptions& acquire = *options;
    CLI::App* command =
        app.add_subcommand("acquire", "the events between a start label and an end label (labels excluded)");
    addTraceOptions(*command, acquire.host, acquire.signals, acquire.outputs, acquire.raw, acquire.quiet);
    addVcdOptions(*command, acquire.vcd);
    command->add_option("--start", acquire.startLabel, "start label number")->required()->check(LabelRange);
    command->add_option("--end", acquire.endLabel, "end label number (Label is added to the traced signals)")
        ->required()
        ->check(LabelRange);
    command->add_option("--timeout", acquire.timeoutSeconds, "give up when the server sends nothing this long")
        ->capture_default_str()
        ->check(positiveNumberOf("seconds", 3600.0));
    command
        ->add_option("--max-wait", acquire.maxWaitSeconds,
                     "give up when both labels have not come within this many seconds")
        ->capture_default_str()
        ->check(positiveNumberOf("seconds"));

    return {command, [options] { return runAcquire(*options); }};
}

}  // namespace oltb::cli
