// The simulator's options: registered with their ranges, then checked together and turned into settings.
#include "tools/oltb-sim/SimOptions.h"

#include "tools/oltb-sim/Server.h"
#include "tools/oltb/Excerpt.h"

#include <CLI/CLI.hpp>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <tuple>
#include <vector>

#ifndef OLTB_TOOL_VERSION
#define OLTB_TOOL_VERSION "unknown"
#endif

namespace oltb::sim {

// help.txt and description.txt (SimTexts.cpp, generated).
extern const char simHelp[];
extern const char simDescription[];

namespace {

// A finite number from `lowest` to `highest`. (CLI::Range lets "nan" through, and a speed of 1e308 or nan would
// be accepted only to send almost nothing.)
CLI::Validator finiteRange(const double lowest, const double highest) {
    return CLI::Validator(
        [lowest, highest](std::string& input) -> std::string {
            char* end = nullptr;
            const double value = std::strtod(input.c_str(), &end);
            if (end == input.c_str() || *end != '\0' || !std::isfinite(value) || value < lowest || value > highest) {
                return "must be a number from " + CLI::detail::to_string(lowest) + " to " +
                       CLI::detail::to_string(highest) + ", not " + oltb::cli::excerpt(input);
            }
            return {};
        },
        "[" + CLI::detail::to_string(lowest) + " - " + CLI::detail::to_string(highest) + "]");
}

std::optional<std::uint8_t> parseCommandCode(const std::string& text) {
    if (text == "stop") {
        return std::uint8_t{0x10};
    }
    if (text == "start") {
        return std::uint8_t{0x11};
    }
    if (text == "setconfig") {
        return std::uint8_t{0x81};
    }
    if (text == "getconfig") {
        return std::uint8_t{0x82};
    }
    try {
        std::size_t used = 0;
        const unsigned long value = std::stoul(text, &used, 0);
        if (used == text.size() && value <= 255) {
            return static_cast<std::uint8_t>(value);
        }
    } catch (const std::exception&) {}
    return std::nullopt;
}

}  // namespace

std::optional<int> parseOptions(int argc, char** argv, SimOptions& options) {
    std::string servoKind = "second-order";
    double servoDelayUs = -1;
    double counterRate = 1e6;
    std::uint64_t closeAfterWords = 0;
    std::vector<std::string> ignoredCommands;
    std::string malformedCommand;
    std::string malformedKind = "auto";

    CLI::App app{simDescription, "oltb-sim"};
    app.set_version_flag("--version", std::string("oltb-sim ") + OLTB_TOOL_VERSION);
    app.footer(simHelp);
    app.add_option("-a,--address", options.server.address, "Address to listen on (port 9495)")->capture_default_str();
    app.add_option("--speed", options.server.speed, "Trace seconds per wall-clock second")
        ->check(finiteRange(0.001, 1000.0))
        ->capture_default_str();
    app.add_flag("--max-rate", options.server.maxRate, "Stream as fast as the client reads (no pacing)");

    auto* jobOption =
        app.add_option("--job", options.jobFile, "Job file to run instead of the built-in job (format below)")
            ->check(CLI::ExistingFile);
    auto* printJobOption = app.add_flag("--print-job", options.printJob, "Print the job's text and exit");
    auto* explainOption = app.add_flag("--explain", options.explain,
                                       "Print what an analysis of the job's trace should find (JSON) and exit");
    auto* replayOption = app.add_option("--replay", options.replayFile,
                                        "Serve the events of a capture of oltb (.csv or .h5) instead of the job")
                             ->excludes(jobOption)
                             ->excludes(printJobOption)
                             ->excludes(explainOption);
    app.add_flag("--repeat", options.repeat, "With --replay: run the capture again and again, --pause-ms apart")
        ->needs(replayOption);
    app.add_option("--settle-band", options.job.settleBandUnits,
                   "Band around a jump's target for --explain's settle times, units")
        ->check(finiteRange(1.0, 100000.0))
        ->capture_default_str();
    app.add_option("--pause-ms", options.pauseMs,
                   "Pause between two runs of the job (or passes of --replay --repeat), ms")
        ->check(finiteRange(0.0, 60000.0))
        ->capture_default_str();

    auto* servo = app.add_option("--servo", servoKind, "Scan head model: second-order or delay")
                      ->check(CLI::IsMember({"second-order", "delay"}))
                      ->capture_default_str();
    auto* tracking = app.add_option("--tracking-error-us", options.job.servo.trackingErrorUs,
                                    "Lag of the actual behind the commanded position at constant speed, us")
                         ->check(finiteRange(0.0, 100000.0))
                         ->capture_default_str();
    app.add_option("--damping", options.job.servo.damping, "Damping of the scan head: 1 no overshoot, below 1 it rings")
        ->check(finiteRange(0.2, 2.0))
        ->capture_default_str();
    app.add_option("--max-acceleration", options.job.servo.maxAccelerationUnitsPerMs2,
                   "Largest acceleration, units/ms^2")
        ->check(finiteRange(1000.0, 1e9))
        ->capture_default_str();
    auto* servoDelay = app.add_option("--servo-delay-us", servoDelayUs, "Same as --servo delay --tracking-error-us US")
                           ->check(finiteRange(0.0, 100000.0))
                           ->excludes(servo)
                           ->excludes(tracking);
    app.add_option("--driver-filter-us", options.job.servo.driverFilterUs,
                   "Time constant of a low pass in the driver in front of the loop, us (0: none)")
        ->check(finiteRange(0.0, 10000.0))
        ->excludes(servoDelay)
        ->capture_default_str();
    app.add_option("--max-velocity", options.job.servo.maxVelocityUnitsPerMs,
                   "Largest speed of each mirror axis, units/ms")
        ->check(finiteRange(1.0, 1e7))
        ->excludes(servoDelay);
    app.add_option("--max-edge-dose", options.job.maxEdgeDose,
                   "Largest dose at the ends of a mark for --explain's best laser delays (times the nominal)")
        ->check(finiteRange(1.0, 100.0))
        ->capture_default_str();

    CardTiming& timing = options.job.timing;
    for (const auto& [name, value, help] :
         {std::tuple{"--jump-speed", &timing.jumpSpeedUnitsPerMs, "Jump speed, units/ms"},
          std::tuple{"--mark-speed", &timing.markSpeedUnitsPerMs, "Mark speed, units/ms"}}) {
        app.add_option(name, *value, help)->check(finiteRange(10.0, 1e6))->capture_default_str();
    }
    for (const auto& [name, value, help] :
         {std::tuple{"--jump-delay-us", &timing.jumpDelayUs, "Wait after a jump before the next command, us"},
          std::tuple{"--mark-delay-us", &timing.markDelayUs, "Wait after a polyline before the next command, us"},
          std::tuple{"--polygon-delay-us", &timing.polygonDelayUs, "Stop at each corner of a polyline, us"},
          std::tuple{"--laser-on-delay-us", &timing.laserOnDelayUs, "Gate on after a polyline's motion starts, us"},
          std::tuple{"--laser-off-delay-us", &timing.laserOffDelayUs, "Gate off after a polyline's motion ends, us"}}) {
        app.add_option(name, *value, help)->check(finiteRange(0.0, 100000.0))->capture_default_str();
    }
    app.add_option("--jump-table", options.jumpTableFile,
                   "Jump delay by jump length from FILE (rows: LENGTH DELAY_US)");
    app.add_option("--settings", options.settingsFile,
                   "The card's delays from a settings file of oltb analyze --settings-out (after the options above)");
    app.add_option("--feedback-noise-units", options.job.feedbackNoiseUnits,
                   "Noise of the traced actual positions, standard deviation in units")
        ->check(finiteRange(0.0, 10000.0))
        ->capture_default_str();

    app.add_option("--clock-start", options.server.clockStartTick, "Card clock at the first Start, ticks (1/64 us)")
        ->check(CLI::Range(std::uint64_t{0}, std::uint64_t{1} << 62))
        ->capture_default_str();
    app.add_flag("--counter", options.server.counter, "Stream the counting Spi0Rx sequence instead of the job")
        ->excludes(replayOption);
    app.add_option("--counter-rate", counterRate, "Counter words per second of trace time")
        ->check(finiteRange(1.0, 64e6))
        ->capture_default_str();
    app.add_option("--close-after-words", closeAfterWords, "Close each connection after N words")
        ->check(CLI::PositiveNumber);
    app.add_option("--ignore-command", ignoredCommands, "Never answer command CODE (repeatable)");
    app.add_option("--malformed-response", malformedCommand, "Answer command CODE with a malformed frame");
    app.add_option("--malformed-kind", malformedKind, "auto, short, empty or trailer")
        ->check(CLI::IsMember({"auto", "short", "empty", "trailer"}))
        ->capture_default_str();
    app.add_option("--overflow-every", options.server.faults.overflowEveryWords, "Simulate an overflow every N words")
        ->check(CLI::PositiveNumber);
    app.add_option("--overflow-lost", options.server.faults.overflowLostWords, "Data words lost at each overflow")
        ->check(CLI::Range(std::uint64_t{0}, std::uint64_t{1000000}))
        ->capture_default_str();
    app.add_flag("-v,--verbose", options.server.verbose, "Report clients and commands on standard error");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        if (e.get_exit_code() == 0) {  // --help, --version
            app.exit(e);
            return int{exitSuccess};
        }
        std::fprintf(stderr, "oltb-sim: %s\noltb-sim: see oltb-sim --help\n", e.what());
        return int{exitBadOptions};
    }

    if (servoDelayUs >= 0) {
        servoKind = "delay";
        options.job.servo.trackingErrorUs = servoDelayUs;
    }
    options.job.servo.kind = servoKind == "delay" ? ServoKind::delay : ServoKind::secondOrder;
    if (options.job.servo.kind == ServoKind::delay &&
        (options.job.servo.driverFilterUs > 0 || options.job.servo.maxVelocityUnitsPerMs > 0)) {
        std::fprintf(stderr, "oltb-sim: --driver-filter-us and --max-velocity need --servo second-order\n");
        return int{exitBadOptions};
    }
    if (options.job.servo.kind == ServoKind::secondOrder &&
        (options.job.servo.trackingErrorUs < 10 || options.job.servo.trackingErrorUs > 5000)) {
        std::fprintf(stderr, "oltb-sim: --tracking-error-us: must lie from 10 to 5000 us with --servo second-order\n");
        return int{exitBadOptions};
    }
    options.job.pauseTicks = static_cast<std::uint64_t>(std::llround(options.pauseMs * 64000));
    options.server.counterStepTicks =
        std::max<std::uint64_t>(1, static_cast<std::uint64_t>(std::llround(64e6 / counterRate)));
    if (closeAfterWords > 0) {
        options.server.faults.closeAfterWords = closeAfterWords;
    }
    for (const std::string& text : ignoredCommands) {
        const auto code = parseCommandCode(text);
        if (!code) {
            std::fprintf(stderr, "oltb-sim: --ignore-command: not a command code: %s\n", text.c_str());
            return int{exitBadOptions};
        }
        options.server.faults.ignoredCommands.insert(*code);
    }
    if (!malformedCommand.empty()) {
        options.server.faults.malformedCommand = parseCommandCode(malformedCommand);
        if (!options.server.faults.malformedCommand) {
            std::fprintf(stderr, "oltb-sim: --malformed-response: not a command code: %s\n", malformedCommand.c_str());
            return int{exitBadOptions};
        }
    }
    options.server.faults.malformedKind = malformedKind == "short"     ? MalformedKind::shortPayload
                                          : malformedKind == "empty"   ? MalformedKind::emptyPayload
                                          : malformedKind == "trailer" ? MalformedKind::brokenTrailer
                                                                       : MalformedKind::automatic;

    return std::nullopt;
}

}  // namespace oltb::sim
