// "oltb acquire": the events between a start label and an end label. oltbAcquire blocks until the end label, so
// it runs on a thread of its own while the main thread shows progress and watches for Ctrl-C and the longest
// wait. To end the wait early the main thread stops the trace; the server falls silent and the acquisition ends
// with a timeout after at most the read timeout. Only a complete series is written.
#include "tools/oltb/CommandSupport.h"
#include "tools/oltb/Commands.h"
#include "tools/oltb/Errors.h"
#include "tools/oltb/Interrupt.h"
#include "tools/oltb/Progress.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <optional>
#include <thread>

namespace oltb::cli {

namespace {

constexpr auto WatchInterval = std::chrono::milliseconds(50);

struct AcquisitionOutcome {
    std::uint32_t count = 0;
    std::optional<std::string> failure;
};

enum class EndOfWait { Completed, Interrupted, TooLong };

// Runs the acquisition on its own thread and waits for it; stops the trace when the user interrupts or the
// longest wait has passed.
EndOfWait waitForAcquisition(Connection& connection, const AcquireOptions& options, AcquisitionOutcome& outcome) {
    std::atomic<bool> done{false};
    std::thread worker;
    {
        InterruptsBlockedForNewThreads blocked;
        worker = std::thread([&] {
            try {
                outcome.count = connection.acquire(static_cast<std::uint16_t>(options.startLabel),
                                                   static_cast<std::uint16_t>(options.endLabel));
            } catch (const std::exception& error) {
                outcome.failure = error.what();
            }
            done = true;
        });
    }
    Progress progress(progressWanted(options.quiet), stderr);
    const std::string waiting = "acquiring between labels " + std::to_string(options.startLabel) + " and " +
                                std::to_string(options.endLabel);
    EndOfWait end = EndOfWait::Completed;
    while (!done) {
        const bool tooLong = options.maxWaitSeconds > 0.0 && progress.elapsedSeconds() >= options.maxWaitSeconds;
        if (end == EndOfWait::Completed && (interruptRequested() || tooLong)) {
            end = interruptRequested() ? EndOfWait::Interrupted : EndOfWait::TooLong;
            progress.finish();
            printError("stopping the trace; the acquisition ends within " +
                       std::to_string(static_cast<int>(std::ceil(options.timeoutSeconds))) + " s" +
                       (end == EndOfWait::Interrupted ? " (interrupt again to quit at once)" : ""));
            try {
                connection.stop();
            } catch (const ServerError&) {
                // The acquisition reports the connection's state itself.
            }
        }
        if (end == EndOfWait::Completed) {
            progress.showWaiting(waiting);
        }
        std::this_thread::sleep_for(WatchInterval);
    }
    worker.join();
    progress.finish();
    return end;
}

}  // namespace

int runAcquire(const AcquireOptions& options) {
    const auto wanted = parseWantedSignals(options.signals);
    Outputs outputs(options.outputs);
    outputs.open();
    try {
        const std::unique_ptr<Connection> connection = connectTo(options.host);
        const std::vector<const SignalInfo*> signals = chooseSignals(*connection, wanted, true);
        connection->setReadTimeout(static_cast<int>(std::max(1L, std::lround(options.timeoutSeconds * 1000.0))));
        connection->start();

        AcquisitionOutcome outcome;
        const EndOfWait end = waitForAcquisition(*connection, options, outcome);
        if (end == EndOfWait::Interrupted) {
            outputs.discardUnbegun();
            printError("acquisition interrupted before the end label; nothing written");
            return ExitInterrupted;
        }
        if (end == EndOfWait::TooLong) {
            char text[80];
            std::snprintf(text, sizeof(text), "no end label %u within %g s", options.endLabel,
                          options.maxWaitSeconds);
            throw ServerError(text);
        }
        if (outcome.failure) {
            throw ServerError(*outcome.failure);
        }
        std::vector<oltbTraceEvent> events = connection->takeAcquired(outcome.count);
        connection->stop();
        if (!options.raw) {
            oltbToSignedPosition(events.data(), static_cast<std::uint32_t>(events.size()));
        }
        Summary summary;
        for (const oltbTraceEvent& event : events) {
            summary.add(event);
        }
        outputs.begin(signals, !options.raw, VcdTimeZero::ReferenceOfTime);
        outputs.write(events.data(), events.size());
        outputs.finish();
        reportResult(outputs, summary);
        return ExitSuccess;
    } catch (...) {
        outputs.discardUnbegun();
        throw;
    }
}

}  // namespace oltb::cli
