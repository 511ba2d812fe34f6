// oltb-sim: a trace buffer server for machines without a scan controller card. Reads the command line and runs
// the server; everything the options mean is told by --help.
#include "Server.h"

#include <CLI/CLI.hpp>

#include <cmath>
#include <cstdio>
#include <exception>
#include <optional>
#include <string>
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
  Runs over and over; a started stream begins with a fresh run. Times are from the start of a run,
  positions in raw head units of head 0 (signed, as converted by oltbToSignedPosition).
    0 ms      at home (0,0); StartMark high for 10 us just before 1 ms
    1 ms      label 1: job starts (PortA bit 0 and PortLaserOut1 high while the job runs)
    for each shape k = 0..3: jump at 25000 units/ms to its start, settle 100 us, label 10+2k,
      1 us later gate on and laser power on, mark at 5000 units/ms, gate and power off,
      1 us later label 11+2k, dwell 100 us
      k=0 line    (-300000,-250000) -> (300000,-250000)                          labels 10/11  power 0x4000
      k=1 square  corners (-100000,-100000) (100000,-100000) (100000,100000) (-100000,100000),
                  marked in that order and back to the first                      labels 12/13  power 0x6000
      k=2 circle  centre (250000,250000), radius 100000, from (350000,250000), one turn
                  counterclockwise                                                labels 14/15  power 0x8000
      k=3 arc     centre (-250000,250000), radius 100000, from (-150000,250000) half a turn
                  counterclockwise to (-350000,250000)                            labels 16/17  power 0xC000
    then jump home, settle 100 us, label 2: job ends (about 562 ms after label 1)
    pause (--pause-ms), then the next run. The lower 16 bits of a label word count the runs: 1, 2, ...
  Signals produced (all others stay silent):
    Head0/Head1 TxX TxY TxZ   commanded positions, one word each every 10 us (640 ticks)
    Head0/Head1 RxX RxY RxZ   actual positions: the commanded ones delayed by --servo-delay-us
                              head 1 = head 0 mirrored in X and halved: (-x/2, y/2); Z of a head is its
                              focus correction (x*x + y*y) / 2^21; X channels travel negated (20 bits)
    Gate, PortLaserOut0       1 exactly while a shape is marked
    LaserPower16/8/4/2/1, LaserPower0_16.._1   the shape's power while marking, scaled to the line's
                              width and rounded up; LaserPower1_16.._1 half of it (laser of head 1)
    PortA                     bit 0 job running, bits 8..11 number of the shape being marked (k+1)
    PortLaserOut1             job running;  StartMark  10 us pulse before label 1
    Label                     the label numbers above
  Narrow signals are sent only when they change (and once with their state when tracing starts): one
  word covers 32/n ticks of an n-bit signal, aligned to that window, first sample in the top bits.

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
  the job's values keep that byte clear (the counter reaches 0x4D000000 only after 1.29e9 values).

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
  0 after SIGINT or SIGTERM (and for --help), 1 bad options, 2 the address cannot be bound
  ("oltb-sim: cannot listen on ADDRESS:9495: reason"), 3 any other failure.
)";

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

}  // namespace

int main(int argc, char** argv) {
    using oltbsim::ExitCode;
    oltbsim::ServerSettings settings;
    double servoDelayUs = 250;
    double pauseMs = 50;
    double counterRate = 1e6;
    std::uint64_t closeAfterWords = 0;
    std::vector<std::string> ignoredCommands;
    std::string malformedCommand;
    std::string malformedKind = "auto";

    CLI::App app{kDescription, "oltb-sim"};
    app.set_version_flag("--version", std::string("oltb-sim ") + OLTB_TOOL_VERSION);
    app.footer(kFooter);
    app.add_option("-a,--address", settings.address, "Address to listen on (port 9495)")->capture_default_str();
    app.add_option("--speed", settings.speed, "Trace seconds per wall-clock second")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    app.add_flag("--max-rate", settings.maxRate, "Stream as fast as the client reads (no pacing)");
    app.add_option("--servo-delay-us", servoDelayUs, "Delay of the actual behind the commanded positions, us")
        ->check(CLI::Range(0.0, 100000.0))
        ->capture_default_str();
    app.add_option("--pause-ms", pauseMs, "Pause between two runs of the job, ms")
        ->check(CLI::Range(0.0, 60000.0))
        ->capture_default_str();
    app.add_option("--clock-start", settings.clockStartTick, "Card clock at the first Start, ticks (1/64 us)")
        ->capture_default_str();
    app.add_flag("--counter", settings.counter, "Stream the counting Spi0Rx sequence instead of the job");
    app.add_option("--counter-rate", counterRate, "Counter words per second of trace time")
        ->check(CLI::Range(1.0, 64e6))
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
        ->capture_default_str();
    app.add_flag("-v,--verbose", settings.verbose, "Report clients and commands on standard error");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? ExitCode::exitSuccess : ExitCode::exitBadOptions;
    }

    settings.job.servoDelayTicks = static_cast<std::uint64_t>(std::llround(servoDelayUs * 64));
    settings.job.pauseTicks = static_cast<std::uint64_t>(std::llround(pauseMs * 64000));
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

    try {
        return oltbsim::runServer(settings);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "oltb-sim: %s\n", e.what());
        return ExitCode::exitFailure;
    }
}
