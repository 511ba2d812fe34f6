// oltb-sim: a trace buffer server for machines without a scan controller card. Reads the command line and runs
// the server; everything the options mean is told by --help.
#include "CounterStream.h"
#include "GroundTruth.h"
#include "JobStream.h"
#include "ReplayStream.h"
#include "SettingsFile.h"
#include "Server.h"
#include "tools/oltb/Excerpt.h"
#include "tools/oltb/Signals.h"

#include <CLI/CLI.hpp>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#ifndef OLTB_TOOL_VERSION
#define OLTB_TOOL_VERSION "unknown"
#endif

namespace {

constexpr const char* kDescription =
    "oltb-sim: a simulated trace buffer server of a laser scan controller card.\n"
    "Listens on TCP port 9495 of ADDRESS, serves one client at a time, speaks the card's command protocol\n"
    "(Stop 16, Start 17, SetConfig 129, GetConfig 130; configuration version 6) and, while tracing is\n"
    "started, streams packed trace words of the selected signals. Prints \"oltb-sim listening on\n"
    "ADDRESS:9495\" once it accepts clients.";

constexpr const char* kFooter = R"(
THE MARKING JOB (default mode)
  The card runs a job over and over; a started stream begins with a fresh run. A run: 1 ms at home
  (0,0) with StartMark high for its last 10 us; the job's commands (PortA bit 0 and PortLaserOut1 high
  until the last one is done); a jump home if the job ended elsewhere; the pause (--pause-ms), longer
  if the mirrors need it to come to rest at home. The lower 16 bits of a label word count the runs.
  Without --job the built-in job runs (--print-job prints it): with labels 1 and 2 around the whole job
  and 10+2k / 11+2k around shape k, head 0 marks
      k=0 line    (-300000,-250000) -> (300000,-250000)                           power 0x4000
      k=1 square  corners (-100000,-100000) (100000,-100000) (100000,100000) (-100000,100000),
                  marked in that order and back to the first, as one polyline     power 0x6000
      k=2 circle  centre (250000,250000), radius 100000, from (350000,250000), once counterclockwise
                                                                                  power 0x8000
      k=3 arc     centre (-250000,250000), radius 100000, from (-150000,250000) half a turn
                  counterclockwise to (-350000,250000)                            power 0xC000
  each after a jump from the previous end (from home, first), and jumps home at the end.

THE JOB FILE (--job FILE)
  One command a line; '#' starts a comment; words separated by blanks. Positions in head units of
  head 0 (whole numbers, -524287..524287), speeds in units/ms, times in us; numbers may be 0x hex.
    jump X Y            jump to X Y (laser off); the next command waits for the jump delay
    mark X Y            mark a straight line from the current position to X Y
    arc CX CY DEGREES   mark around the centre CX CY from the current position; DEGREES > 0 turns
                        counterclockwise, < 0 clockwise (up to 3600 either way)
    label N             put label N (0..65535) into the trace at this point of the job
    power P             laser power of the following marks, 0..65535 (16 bits; initially 0x8000)
    wait US             stand still for US microseconds, laser off
    speed jump V        jump speed from here on (initially --jump-speed)
    speed mark V        mark speed from here on (initially --mark-speed)
  Consecutive mark and arc lines form one polyline marked with the laser kept on; any other command
  ends it. The job starts at home (0,0). A line the simulator cannot run is reported as
  "oltb-sim: FILE:LINE: what is wrong" (long or binary words quoted in short) and the simulator does not
  start (exit code 1); so is a FILE that is no regular file or is larger than 4 MiB. Example:
    label 1
    power 0x6000
    jump -200000 0
    mark 200000 0            # a line ...
    arc 200000 100000 180    # ... and a half circle, one polyline
    label 2

THE CARD'S TIMING
  A jump moves at the jump speed; the next command waits for the jump delay after its arrival. A
  polyline moves at the mark speed; at every corner between two of its segments the path stands still
  for the polygon delay. The gate (and the laser power) switches on the laser-on delay after the
  commanded motion of a polyline starts and off the laser-off delay after it ends; the next command
  waits for the mark delay after the end, and at least until the gate is off. The commanded path runs
  on the card's 10 us period (moves and delays round up to it); the gate edges fall on any tick.
  --jump-table FILE gives the card a variable jump delay: a jump of length L waits the delay of the
  first row whose length is L or more, beyond the last row that row's delay. The file holds one row
  "LENGTH DELAY_US" a line (units and us, lengths ascending, at most 256 rows, at most 1 MiB); lines
  starting with '#' and blank lines are skipped. Anything else is refused as
  "oltb-sim: --jump-table: FILE:LINE: what is wrong" (exit code 1). Example:
    # length   delay_us
    10000      300
    100000     800
    1000000    1500

THE SCAN HEAD (--servo)
  second-order (default): each mirror axis follows the commanded path through a position loop with
  natural frequency w and damping z, a = w^2 (input - actual) - 2 z w v, the acceleration limited
  to --max-acceleration, integrated in steps of 1 us or finer. At constant speed the mirror trails by
  the tracking error 2 z / w (--tracking-error-us, 10..5000); with --damping below 1 it overshoots and
  rings after a jump or a corner, at 1 and above it does not while the acceleration stays below the
  limit (long jumps at the defaults reach it). Heads built differently:
    --driver-filter-us T   a low pass in the driver in front of the loop (first order, time constant
                           T us): the loop follows the filtered command, so the mirror starts and stops
                           softer and trails by the tracking error plus T at constant speed.
    --max-velocity V       no axis moves faster than V units/ms: long jumps run at V and take longer
                           to arrive; below the mark speed the mirror never catches up with a mark and
                           has no steady lag.
  delay: the actual positions are the commanded ones delayed by the tracking error (0..100000), no
  dynamics: the mirror starts and stops at once, the lag of a perfect head (no filter, no limit).

WHAT AN ANALYSIS SHOULD FIND (--explain)
  Prints one JSON object computed from the model's exact mirror motion (not from a trace) and exits;
  a figure that does not exist is null. Times are in us from the job's first command (label 1 of the
  built-in job), positions in head units, speeds in units/ms.
  The head: "tracking_error_us" is its steady lag, how long after the command the mirror passes the
  same point at constant speed (the tracking error, plus the driver filter; the delay of the delay
  head; null when the velocity limit is below the mark speed). "least_squares_shift_us" is the shift
  that brings the command closest to the mirror over the samples under the gate.
  "marks", one per polyline, with its commanded "start" and "end" point, "mark_speed" (its length over
  its moving time) and the gate times "gate_on_us", "gate_off_us". What lands on the part:
  "start_missing" is how far the mirror already is along the mark's first direction when the gate
  opens (units of the start not marked; negative: the laser came on before the mirror reached the
  start), "end_missing" how far it still is from the end along the last direction when the gate
  closes (negative: it marked past the end); "speed_at_on", "speed_at_off" are the mirror's speed
  along the mark at the gate edges as a fraction of the mark speed: the dose there is 1 / speed (a
  speed near 0 burns a dot). Best gate times for --max-edge-dose D (default 2, 1..100): the laser
  comes on when the mirror first moves along the mark at mark speed / D ("best_laser_on_delay_us"
  after the commanded start), and goes off when, after the commanded end, its speed along the mark
  falls below mark speed / D or it reaches the end point, whichever is first
  ("best_laser_off_delay_us" after the commanded end); "start_missing_at_best", "end_missing_at_best"
  are what those leave unmarked. The top level has the medians of the best delays. A mirror that
  starts from rest cannot give both: a larger D marks more of each end and burns more there.
  "laser_on_offset_us", "laser_off_offset_us": gate on - (commanded start + lag), gate off -
  (commanded end + lag), with "motion_start_us", "motion_end_us" (the command shifted by the lag).
  "jumps": "from", "to", "length", the commanded arrival "end_us", "window_us" until the command
  moves again (null after the last), "settle_us", the last time the mirror leaves the band of
  --settle-band units around the target, counted from the arrival, when the command stays at the
  target (the mirror passing through the band at speed is not arrival), "settled" when that is within
  the window, and "overshoot_units" beyond the target until the next motion.
  "corners", one per corner of a polyline: "mark", the time "at_us" the command reaches it, "point",
  "angle_deg" (0 straight on, 90 a right angle, 180 back), "polygon_delay_us" the command stands there,
  "rounding", the closest the mirror comes to the corner point (a rounded corner), and "edge_dose",
  mark speed over the mirror's lowest speed from the command reaching the corner until two lags after
  it leaves (a dot at the corner: up to 100). Also the settings, every label with its time, and
  "jump_table", the rows in use (null without --jump-table).

SIGNALS PRODUCED (all others stay silent)
    Head0/Head1 TxX TxY TxZ   commanded positions, one word each every 10 us (640 ticks)
    Head0/Head1 RxX RxY RxZ   actual positions from the scan head model, sampled with them
                              head 1 = head 0 mirrored in X and halved: (-x/2, y/2); Z of a head is its
                              focus correction (x*x + y*y) / 2^21; X channels travel negated (20 bits)
    Gate, PortLaserOut0       1 while a polyline is marked (its gate, by the laser delays)
    LaserPower16/8/4/2/1, LaserPower0_16.._1   the polyline's power while the gate is on, scaled to the
                              line's width and rounded up; LaserPower1_16.._1 half of it (laser of head 1)
    PortA                     bit 0 job running, bits 8..11 number of the polyline being marked (1..15,
                              counting on from the job start)
    PortLaserOut1             job running;  StartMark  10 us pulse before the job
    Label                     the job's labels
  Narrow signals are sent only when they change (and once with their state when tracing starts): one
  word covers 32/n ticks of an n-bit signal, aligned to that window, first sample in the top bits.

REPLAY (--replay FILE)
  Serves a capture that oltb wrote (.csv or .h5, by the extension) instead of the job: each Start replays
  its events from the beginning as the card would send them, re-encoded into trace words (positions back
  to raw 20 bits with X negated when the file holds signed ones, narrow signals packed several samples a
  word, labels with the pass 1, 2, ... in the lower 16 bits, time-base words), paced by --speed or
  --max-rate. Only the capture's signals that the configuration selects are sent: the card streams what
  is configured, and a selected signal the capture lacks stays silent. Timestamps are the capture's
  minus a constant: the first event comes 32 to 63 ticks after the stream's start, each event keeping
  its place in a 32-tick window. Captured again, the replay gives the same events. After one pass the
  stream stays silent until the next Start; with --repeat the capture runs again, each pass --pause-ms
  after the last event of the one before. The whole file is checked before the server listens: one
  that is no capture of oltb, cannot be read, or holds a value its signal cannot carry is reported
  ("oltb-sim: --replay: FILE: what is wrong") with exit code 1. Without HDF5 in the build .h5 files
  are refused.

COUNTER MODE (--counter)
  Spi0Rx words with values 0, 1, 2, ... from each Start, one word every 64e6/RATE ticks, sent whatever
  signals are selected; for integrity tests and benchmarks (best with --max-rate).

TIME
  The card clock starts at --clock-start ticks and runs on with the streamed trace, across Stop/Start and
  clients; each stream starts on the next multiple of 640 ticks with a time-base word (type 127, payload
  = clock >> 24), and another one precedes the first word of every new 2^24-tick period. Paced at
  --speed times real time, or as fast as the client reads with --max-rate.

PROTOCOL CHOICES
  Stop, Start and SetConfig are answered with an empty response, GetConfig with the 17-byte configuration
  (version 6, masks of groups 0, 1, 3, 2). Initially selected: Head0 TxX TxY RxX RxY, Gate, LaserPower16,
  PortA, Label. A selection lasts until the next SetConfig, across clients. A Start while started keeps
  the stream. A frame with an unknown code is reported on standard error and answered with an empty
  response (so the client does not wait in vain); bytes that do not start a frame (0x4D) are reported and
  skipped up to the next 0x4D, without an answer. Responses are queued behind the words already produced,
  between whole words. A client does not see a response right behind a word whose last byte is 0x4D, so
  the job's values keep that byte clear: a job file's labels 0x4D00..0x4DFF and powers whose laser level
  would carry it are refused (the counter reaches 0x4D000000 only after 1.29e9 values).

FAULTS
  --close-after-words N     closes each connection after N words (time-base words included)
  --ignore-command CODE     carries the command out but never answers it (repeatable)
  --malformed-response CODE answers CODE with a malformed frame, by --malformed-kind: short = 16 payload
                            bytes, empty = none, trailer = trailer B2 00, auto = short for GetConfig
                            and trailer otherwise. CODE: a number (16, 0x82) or stop|start|setconfig|getconfig
  --overflow-every N        after every N data words an internal buffer overflow: the next
                            --overflow-lost data words are lost, the first word after them has the
                            overflow flag. Time-base words are never lost.

EXIT CODES
  0 after SIGINT or SIGTERM (and after --help, --version, --print-job and --explain), 1 bad options, a job
  file, jump table or settings file that cannot run or a capture that cannot be replayed, 2 the address
  cannot be bound
  ("oltb-sim: cannot listen on ADDRESS:9495: reason"), 3 any other failure.
)";

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
    } catch (const std::exception&) {
    }
    return std::nullopt;
}

// One line on standard error: what the replay serves, so that a client knows which signals to select.
void describeReplay(const oltbsim::ReplayCapture& capture, const bool repeat, const double pauseMs) {
    std::string names;
    for (const std::uint32_t type : capture.types) {
        const oltb::cli::SignalInfo* signal = oltb::cli::findSignalByType(static_cast<int>(type));
        names += (names.empty() ? "" : ",") + std::string(signal != nullptr ? signal->name : "?");
    }
    const double spanMs = static_cast<double>(capture.lastTick - capture.firstTick) / 64000.0;
    std::fprintf(stderr, "oltb-sim: replaying %s: %llu events of %s over %.3f ms, ", capture.path.c_str(),
                 static_cast<unsigned long long>(capture.events), names.c_str(), spanMs);
    if (repeat) {
        std::fprintf(stderr, "repeated %g ms after each end\n", pauseMs);
    } else {
        std::fprintf(stderr, "once per Start\n");
    }
}

}  // namespace

int main(int argc, char** argv) {
    using oltbsim::ExitCode;
    oltbsim::ServerSettings settings;
    oltbsim::JobSettings job;
    std::string jobFile;
    std::string servoKind = "second-order";
    double servoDelayUs = -1;
    bool printJob = false;
    bool explain = false;
    double pauseMs = 50;
    double counterRate = 1e6;
    std::uint64_t closeAfterWords = 0;
    std::vector<std::string> ignoredCommands;
    std::string malformedCommand;
    std::string malformedKind = "auto";
    std::string replayFile;
    bool repeat = false;
    std::string jumpTableFile;

    CLI::App app{kDescription, "oltb-sim"};
    app.set_version_flag("--version", std::string("oltb-sim ") + OLTB_TOOL_VERSION);
    app.footer(kFooter);
    app.add_option("-a,--address", settings.address, "Address to listen on (port 9495)")->capture_default_str();
    app.add_option("--speed", settings.speed, "Trace seconds per wall-clock second")
        ->check(finiteRange(0.001, 1000.0))
        ->capture_default_str();
    app.add_flag("--max-rate", settings.maxRate, "Stream as fast as the client reads (no pacing)");

    auto* jobOption = app.add_option("--job", jobFile, "Job file to run instead of the built-in job (format below)")
                          ->check(CLI::ExistingFile);
    auto* printJobOption = app.add_flag("--print-job", printJob, "Print the job's text and exit");
    auto* explainOption =
        app.add_flag("--explain", explain, "Print what an analysis of the job's trace should find (JSON) and exit");
    auto* replayOption =
        app.add_option("--replay", replayFile, "Serve the events of a capture of oltb (.csv or .h5) instead of the job")
            ->excludes(jobOption)
            ->excludes(printJobOption)
            ->excludes(explainOption);
    app.add_flag("--repeat", repeat, "With --replay: run the capture again and again, --pause-ms apart")
        ->needs(replayOption);
    app.add_option("--settle-band", job.settleBandUnits, "Band around a jump's target for --explain's settle times, units")
        ->check(finiteRange(1.0, 100000.0))
        ->capture_default_str();
    app.add_option("--pause-ms", pauseMs, "Pause between two runs of the job (or passes of --replay --repeat), ms")
        ->check(finiteRange(0.0, 60000.0))
        ->capture_default_str();

    auto* servo = app.add_option("--servo", servoKind, "Scan head model: second-order or delay")
                      ->check(CLI::IsMember({"second-order", "delay"}))
                      ->capture_default_str();
    auto* tracking = app.add_option("--tracking-error-us", job.servo.trackingErrorUs,
                                    "Lag of the actual behind the commanded position at constant speed, us")
                         ->check(finiteRange(0.0, 100000.0))
                         ->capture_default_str();
    app.add_option("--damping", job.servo.damping, "Damping of the scan head: 1 no overshoot, below 1 it rings")
        ->check(finiteRange(0.2, 2.0))
        ->capture_default_str();
    app.add_option("--max-acceleration", job.servo.maxAccelerationUnitsPerMs2, "Largest acceleration, units/ms^2")
        ->check(finiteRange(1000.0, 1e9))
        ->capture_default_str();
    auto* servoDelay = app.add_option("--servo-delay-us", servoDelayUs, "Same as --servo delay --tracking-error-us US")
                           ->check(finiteRange(0.0, 100000.0))
                           ->excludes(servo)
                           ->excludes(tracking);
    app.add_option("--driver-filter-us", job.servo.driverFilterUs,
                   "Time constant of a low pass in the driver in front of the loop, us (0: none)")
        ->check(finiteRange(0.0, 10000.0))
        ->excludes(servoDelay)
        ->capture_default_str();
    app.add_option("--max-velocity", job.servo.maxVelocityUnitsPerMs, "Largest speed of each mirror axis, units/ms")
        ->check(finiteRange(1.0, 1e7))
        ->excludes(servoDelay);
    app.add_option("--max-edge-dose", job.maxEdgeDose,
                   "Largest dose at the ends of a mark for --explain's best laser delays (times the nominal)")
        ->check(finiteRange(1.0, 100.0))
        ->capture_default_str();

    oltbsim::CardTiming& timing = job.timing;
    for (const auto& [name, value, help] : {
             std::tuple{"--jump-speed", &timing.jumpSpeedUnitsPerMs, "Jump speed, units/ms"},
             std::tuple{"--mark-speed", &timing.markSpeedUnitsPerMs, "Mark speed, units/ms"}}) {
        app.add_option(name, *value, help)->check(finiteRange(10.0, 1e6))->capture_default_str();
    }
    for (const auto& [name, value, help] : {
             std::tuple{"--jump-delay-us", &timing.jumpDelayUs, "Wait after a jump before the next command, us"},
             std::tuple{"--mark-delay-us", &timing.markDelayUs, "Wait after a polyline before the next command, us"},
             std::tuple{"--polygon-delay-us", &timing.polygonDelayUs, "Stop at each corner of a polyline, us"},
             std::tuple{"--laser-on-delay-us", &timing.laserOnDelayUs, "Gate on after a polyline's motion starts, us"},
             std::tuple{"--laser-off-delay-us", &timing.laserOffDelayUs, "Gate off after a polyline's motion ends, us"}}) {
        app.add_option(name, *value, help)->check(finiteRange(0.0, 100000.0))->capture_default_str();
    }
    app.add_option("--jump-table", jumpTableFile, "Jump delay by jump length from FILE (rows: LENGTH DELAY_US)");
    std::string settingsFile;
    app.add_option("--settings", settingsFile,
                   "The card's delays from a settings file of oltb analyze --settings-out (after the options above)");
    app.add_option("--feedback-noise-units", job.feedbackNoiseUnits,
                   "Noise of the traced actual positions, standard deviation in units")
        ->check(finiteRange(0.0, 10000.0))
        ->capture_default_str();

    app.add_option("--clock-start", settings.clockStartTick, "Card clock at the first Start, ticks (1/64 us)")
        ->check(CLI::Range(std::uint64_t{0}, std::uint64_t{1} << 62))
        ->capture_default_str();
    app.add_flag("--counter", settings.counter, "Stream the counting Spi0Rx sequence instead of the job")
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
    app.add_option("--overflow-every", settings.faults.overflowEveryWords, "Simulate an overflow every N words")
        ->check(CLI::PositiveNumber);
    app.add_option("--overflow-lost", settings.faults.overflowLostWords, "Data words lost at each overflow")
        ->check(CLI::Range(std::uint64_t{0}, std::uint64_t{1000000}))
        ->capture_default_str();
    app.add_flag("-v,--verbose", settings.verbose, "Report clients and commands on standard error");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        if (e.get_exit_code() == 0) {  // --help, --version
            app.exit(e);
            return ExitCode::exitSuccess;
        }
        std::fprintf(stderr, "oltb-sim: %s\noltb-sim: see oltb-sim --help\n", e.what());
        return ExitCode::exitBadOptions;
    }

    if (servoDelayUs >= 0) {
        servoKind = "delay";
        job.servo.trackingErrorUs = servoDelayUs;
    }
    job.servo.kind = servoKind == "delay" ? oltbsim::ServoKind::delay : oltbsim::ServoKind::secondOrder;
    if (job.servo.kind == oltbsim::ServoKind::delay && (job.servo.driverFilterUs > 0 || job.servo.maxVelocityUnitsPerMs > 0)) {
        std::fprintf(stderr, "oltb-sim: --driver-filter-us and --max-velocity need --servo second-order\n");
        return ExitCode::exitBadOptions;
    }
    if (job.servo.kind == oltbsim::ServoKind::secondOrder &&
        (job.servo.trackingErrorUs < 10 || job.servo.trackingErrorUs > 5000)) {
        std::fprintf(stderr, "oltb-sim: --tracking-error-us: must lie from 10 to 5000 us with --servo second-order\n");
        return ExitCode::exitBadOptions;
    }
    job.pauseTicks = static_cast<std::uint64_t>(std::llround(pauseMs * 64000));
    settings.counterStepTicks = std::max<std::uint64_t>(1, static_cast<std::uint64_t>(std::llround(64e6 / counterRate)));
    if (closeAfterWords > 0) {
        settings.faults.closeAfterWords = closeAfterWords;
    }
    for (const std::string& text : ignoredCommands) {
        const auto code = parseCommandCode(text);
        if (!code) {
            std::fprintf(stderr, "oltb-sim: --ignore-command: not a command code: %s\n", text.c_str());
            return ExitCode::exitBadOptions;
        }
        settings.faults.ignoredCommands.insert(*code);
    }
    if (!malformedCommand.empty()) {
        settings.faults.malformedCommand = parseCommandCode(malformedCommand);
        if (!settings.faults.malformedCommand) {
            std::fprintf(stderr, "oltb-sim: --malformed-response: not a command code: %s\n",
                         malformedCommand.c_str());
            return ExitCode::exitBadOptions;
        }
    }
    using oltbsim::MalformedKind;
    settings.faults.malformedKind = malformedKind == "short"     ? MalformedKind::shortPayload
                                    : malformedKind == "empty"   ? MalformedKind::emptyPayload
                                    : malformedKind == "trailer" ? MalformedKind::brokenTrailer
                                                                 : MalformedKind::automatic;

    std::unique_ptr<oltbsim::TraceSource> source;
    std::optional<oltbsim::MarkingJob> markingJob;
    if (!replayFile.empty()) {
        try {
            auto replay = std::make_unique<oltbsim::ReplayStream>(oltbsim::scanCapture(replayFile), repeat,
                                                                  job.pauseTicks);
            describeReplay(replay->capture(), repeat, pauseMs);
            source = std::move(replay);
        } catch (const oltbsim::ReplayError& e) {
            std::fprintf(stderr, "oltb-sim: --replay: %s\n", e.what());
            return ExitCode::exitBadOptions;
        }
    } else {
        try {
            if (!jobFile.empty()) {
                job.program = oltbsim::readJobFile(jobFile);
            }
            if (!jumpTableFile.empty()) {
                job.timing.jumpDelayTable = oltbsim::readJumpTable(jumpTableFile);
            }
            if (!settingsFile.empty()) {
                oltbsim::applySettingsFile(settingsFile, job.timing);
            }
            if (printJob) {
                std::fputs(job.program.text.c_str(), stdout);
                return ExitCode::exitSuccess;
            }
            markingJob.emplace(job);
        } catch (const oltbsim::JobFileError& e) {
            std::fprintf(stderr, "oltb-sim: %s\n", e.what());
            return ExitCode::exitBadOptions;
        } catch (const oltbsim::JumpTableError& e) {
            std::fprintf(stderr, "oltb-sim: --jump-table: %s\n", e.what());
            return ExitCode::exitBadOptions;
        } catch (const oltbsim::SettingsFileError& e) {
            std::fprintf(stderr, "oltb-sim: --settings: %s\n", e.what());
            return ExitCode::exitBadOptions;
        } catch (const std::exception& e) {
            std::fprintf(stderr, "oltb-sim: the job cannot run: %s\n", e.what());
            return ExitCode::exitBadOptions;
        }
        if (explain) {
            std::fputs(oltbsim::explanationJson(*markingJob, oltbsim::explainJob(*markingJob)).c_str(), stdout);
            return ExitCode::exitSuccess;
        }
        if (settings.counter) {
            source = std::make_unique<oltbsim::CounterStream>(settings.counterStepTicks);
        } else {
            source = std::make_unique<oltbsim::JobStream>(*markingJob);
        }
    }
    try {
        return oltbsim::runServer(settings, *source);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "oltb-sim: %s\n", e.what());
        return ExitCode::exitFailure;
    }
}
