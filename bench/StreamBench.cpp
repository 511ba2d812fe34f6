// Figures of the whole receive path, with oltb-sim as a child process on loopback addresses of its own:
//   - reading at full speed: the simulator's counter sequence at maximum rate, read with oltbRead into a
//     4096-event buffer and checked value by value; the limit is the same server stream drained by a plain recv
//     loop of 16 KiB that discards the bytes. Five passes of each, interleaved;
//   - the cost at the card's rate: the marking job in real time with all twelve head channels (1.2 million
//     position events/s) and every signal it drives. CPU time of this process (the library's reader thread
//     included) per second, for an application whose oltbRead waits for each block and for one that polls every
//     10 ms; the limit is a plain recv loop draining the same stream from a second simulator. Resident memory is
//     sampled over the whole measurement on one connection;
//   - the memory of a backlog: the counter at the card's rate (1.2 million words/s) left unread for 5 s, then read
//     out after a Stop, cleared, and dropped with the connection; resident memory against the bytes waiting.
#include "bench/BenchStreams.h"
#include "bench/FigureReport.h"
#include "tests/support/ChildProcess.h"

#include "api/oltb.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace oltb::bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* MaxRateAddress = "127.0.2.1";
constexpr const char* CardRateAddress = "127.0.2.2";
constexpr const char* CardRateDrainAddress = "127.0.2.3";
constexpr const char* BacklogAddress = "127.0.2.7";
constexpr int MaxRatePasses = 5;
constexpr int CardRateRounds = 3;
constexpr auto MaxRateWarmUp = std::chrono::milliseconds(250);
constexpr auto MaxRateMeasured = std::chrono::milliseconds(1500);
constexpr auto CardRateSettle = std::chrono::milliseconds(500);
constexpr auto CardRateMeasured = std::chrono::seconds(3);
constexpr auto PollPeriod = std::chrono::milliseconds(10);
constexpr std::uint32_t ReadBufferEvents = 4096;
constexpr std::size_t ReceiveBytes = 16384;

double secondsSince(Clock::time_point begin) { return std::chrono::duration<double>(Clock::now() - begin).count(); }

std::string lastError() {
    char text[256] = {};
    oltbGetLastError(text, static_cast<int>(sizeof text));
    return text;
}

// User + system time of every thread of this process, the library's reader thread included.
double processCpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// A field of /proc/self/status in KiB: "VmRSS:" (resident now) or "VmHWM:" (the most ever resident).
long statusKiB(const std::string& field) {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind(field, 0) == 0) return std::strtol(line.c_str() + field.size(), nullptr, 10);
    }
    return -1;
}

long residentKiB() { return statusKiB("VmRSS:"); }

// Counts what arrives after a warm-up or settling time, over a fixed measured time.
class MeasuredWindow {
public:
    MeasuredWindow(Clock::duration before, Clock::duration measured)
        : _begin(Clock::now()), _before(before), _measured(measured) {}

    // Adds `amount` if the window is open; false once it has closed.
    bool add(std::uint64_t amount) {
        const Clock::time_point now = Clock::now();
        if (!_open) {
            if (now - _begin >= _before) {
                _open = true;
                _openedAt = now;
                _cpuAtOpen = processCpuSeconds();
            }
            return true;
        }
        _amount += amount;
        if (now - _openedAt < _measured) return true;
        _seconds = std::chrono::duration<double>(now - _openedAt).count();
        _cpuSeconds = processCpuSeconds() - _cpuAtOpen;
        return false;
    }
    double perSecond() const { return static_cast<double>(_amount) / _seconds; }
    double cpuPercent() const { return 100 * _cpuSeconds / _seconds; }

private:
    Clock::time_point _begin;
    Clock::duration _before;
    Clock::duration _measured;
    bool _open = false;
    Clock::time_point _openedAt{};
    double _cpuAtOpen = 0;
    std::uint64_t _amount = 0;
    double _seconds = 0;
    double _cpuSeconds = 0;
};

// The receive buffer starts on a page, like the library's: loopback throughput halves when it starts a few bytes
// into one.
struct alignas(4096) DrainBuffer {
    std::array<char, ReceiveBytes> bytes;
};

// A plain TCP connection to a simulator that asks for the stream with command frames (0x4D, code, 17 payload
// bytes) and then receives 16 KiB at a time, throwing the bytes away. The responses go with them.
class PlainDrain {
public:
    explicit PlainDrain(const char* address) : _descriptor(socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in server{};
        server.sin_family = AF_INET;
        server.sin_port = htons(9495);
        inet_pton(AF_INET, address, &server.sin_addr);
        _connected =
            _descriptor >= 0 && connect(_descriptor, reinterpret_cast<const sockaddr*>(&server), sizeof server) == 0;
    }
    ~PlainDrain() {
        if (_descriptor >= 0) close(_descriptor);
    }
    PlainDrain(const PlainDrain&) = delete;
    PlainDrain& operator=(const PlainDrain&) = delete;

    bool sendCommand(std::uint8_t code, const std::array<std::uint8_t, 17>& payload = {}) {
        std::array<std::uint8_t, 19> frame{0x4D, code};
        std::copy(payload.begin(), payload.end(), frame.begin() + 2);
        return _connected &&
               send(_descriptor, frame.data(), frame.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(frame.size());
    }
    // Receives until the window closes; false if the connection ends first.
    bool drain(MeasuredWindow& window) {
        for (;;) {
            const ssize_t received = recv(_descriptor, _buffer->bytes.data(), _buffer->bytes.size(), 0);
            if (received <= 0) return false;
            ++_receives;
            if (!window.add(static_cast<std::uint64_t>(received))) return true;
        }
    }
    std::uint64_t receives() const { return _receives; }

private:
    int _descriptor;
    bool _connected = false;
    std::uint64_t _receives = 0;
    std::unique_ptr<DrainBuffer> _buffer = std::make_unique<DrainBuffer>();
};

constexpr std::uint8_t StartCommand = 17;
constexpr std::uint8_t SetConfigCommand = 129;

// ---- reading at full speed -----------------------------------------------------------------------------------

// Events per second read through the library from the counter stream; -1 after a wrong value or a failure.
double readCounterThroughLibrary() {
    const int handle = oltbConnect(MaxRateAddress);
    if (handle < 0) {
        std::fprintf(stderr, "connect: %s\n", lastError().c_str());
        return -1;
    }
    std::vector<oltbTraceEvent> buffer(ReadBufferEvents);
    std::uint32_t expected = 0;
    double rate = -1;
    if (oltbSetReadTimeout(handle, 5000) == 0 && oltbStart(handle) == 0) {
        MeasuredWindow window(MaxRateWarmUp, MaxRateMeasured);
        for (bool intact = true; intact;) {
            std::uint32_t count = 0;
            if (oltbRead(handle, buffer.data(), 0, ReadBufferEvents, &count) != 0) {
                std::fprintf(stderr, "read: %s\n", lastError().c_str());
                break;
            }
            for (std::uint32_t i = 0; i < count && intact; ++i, ++expected) {
                intact = buffer[i].Type == oltbEventSpi0Rx && static_cast<std::uint32_t>(buffer[i].Value) == expected;
                if (!intact) {
                    std::fprintf(stderr, "counter: value %d of type %d where %u was due\n", buffer[i].Value,
                                 static_cast<int>(buffer[i].Type), expected);
                }
            }
            if (intact && !window.add(count)) rate = window.perSecond();
            if (rate >= 0) break;
        }
    } else {
        std::fprintf(stderr, "start: %s\n", lastError().c_str());
    }
    oltbDisconnect(handle);
    return rate;
}

// Words per second of the same stream through a plain recv loop; -1 on a failure.
double drainCounterWithRecv() {
    PlainDrain drain(MaxRateAddress);
    MeasuredWindow window(MaxRateWarmUp, MaxRateMeasured);
    if (!drain.sendCommand(StartCommand) || !drain.drain(window)) return -1;
    return window.perSecond() / 8;
}

bool measureMaximumRate() {
    testing::Simulator simulator(MaxRateAddress, {"--counter", "--max-rate"});
    if (!simulator.ready()) {
        std::fprintf(stderr, "oltb-sim: %s\n", simulator.standardError().c_str());
        return false;
    }
    RatePair pair;
    for (int pass = 0; pass < MaxRatePasses; ++pass) {
        const double library = readCounterThroughLibrary();
        const double drain = drainCounterWithRecv();
        if (library < 0 || drain < 0) return false;
        pair.measured.push_back(library);
        pair.limit.push_back(drain);
    }
    // The reader thread outruns a reading loop that checks every value, so blocks pile up in the queue meanwhile.
    const std::string note = "4096-event reads, every value checked; resident at most " +
                             std::to_string(statusKiB("VmHWM:") / 1024) + " MiB; target ratio >= 0.45";
    printFigure("end to end, counter at max rate, oltbRead", pair, "events/s", "plain recv drain", "words/s", note);
    return true;
}

// ---- cost at the card's rate ---------------------------------------------------------------------------------

oltbTraceBufferConfig_Struct everySignalOfTheJob() {
    oltbTraceBufferConfig_Struct c;
    oltbInitConfig(&c);
    c.Head0TxX = c.Head0TxY = c.Head0TxZ = c.Head0RxX = c.Head0RxY = c.Head0RxZ = true;
    c.Head1TxX = c.Head1TxY = c.Head1TxZ = c.Head1RxX = c.Head1RxY = c.Head1RxZ = true;
    c.PortA = c.PortLaserOut0 = c.PortLaserOut1 = c.Gate = c.StartMark = c.Label = true;
    c.LaserPower16 = c.LaserPower8 = c.LaserPower4 = c.LaserPower2 = c.LaserPower1 = true;
    c.LaserPower0_16 = c.LaserPower0_8 = c.LaserPower0_4 = c.LaserPower0_2 = c.LaserPower0_1 = true;
    c.LaserPower1_16 = c.LaserPower1_8 = c.LaserPower1_4 = c.LaserPower1_2 = c.LaserPower1_1 = true;
    return c;
}

// How the application reads: oltbRead waiting for every block as it arrives (a block comes about once a
// millisecond, and each read returns with it), or a poll every 10 ms that takes what is queued and never waits.
enum class ReadingPattern { waitForEachBlock, pollEvery10Ms };

struct CardRatePhase {
    double cpuPercent = -1;
    double eventsPerSecond = 0;
};

// One started stretch on the library's connection; tracing is stopped again at its end, so the connection's
// reader thread is idle while the plain drain is measured.
CardRatePhase readAtCardRate(int handle, ReadingPattern pattern) {
    const bool polling = pattern == ReadingPattern::pollEvery10Ms;
    std::vector<oltbTraceEvent> buffer(ReadBufferEvents);
    CardRatePhase phase;
    if (oltbSetReadTimeout(handle, polling ? 0 : 2000) != 0 || oltbStart(handle) != 0) return phase;
    MeasuredWindow window(CardRateSettle, CardRateMeasured);
    Clock::time_point nextPoll = Clock::now();
    for (;;) {
        std::uint32_t count = 0;
        if (oltbRead(handle, buffer.data(), 0, ReadBufferEvents, &count) != 0) {
            std::fprintf(stderr, "card rate: %s\n", lastError().c_str());
            oltbStop(handle);
            return phase;
        }
        if (!window.add(count)) break;
        if (polling && count < ReadBufferEvents) {
            nextPoll += PollPeriod;
            std::this_thread::sleep_until(nextPoll);
        }
    }
    phase.cpuPercent = window.cpuPercent();
    phase.eventsPerSecond = window.perSecond();
    return oltbStop(handle) == 0 ? phase : CardRatePhase{};
}

struct DrainPhase {
    double cpuPercent = -1;
    double microsecondsPerReceive = 0;  // CPU time of the process per receive: mostly waking up for it
};

DrainPhase drainAtCardRate() {
    PlainDrain drain(CardRateDrainAddress);
    const auto selection = everythingTheJobDrives().toPayload();
    std::array<std::uint8_t, 17> payload{};
    std::copy(selection.begin(), selection.end(), payload.begin());
    MeasuredWindow window(CardRateSettle, CardRateMeasured);
    const double cpuBefore = processCpuSeconds();
    if (!drain.sendCommand(SetConfigCommand, payload) || !drain.sendCommand(StartCommand) || !drain.drain(window)) {
        return {};
    }
    return {window.cpuPercent(), 1e6 * (processCpuSeconds() - cpuBefore) / static_cast<double>(drain.receives())};
}

bool measureCardRate() {
    testing::Simulator librarySide(CardRateAddress, {});
    testing::Simulator drainSide(CardRateDrainAddress, {});
    if (!librarySide.ready() || !drainSide.ready()) {
        std::fprintf(stderr, "oltb-sim: %s%s\n", librarySide.standardError().c_str(),
                     drainSide.standardError().c_str());
        return false;
    }
    const int handle = oltbConnect(CardRateAddress);
    const oltbTraceBufferConfig_Struct config = everySignalOfTheJob();
    if (handle < 0 || oltbSetConfig(handle, &config) != 0) {
        std::fprintf(stderr, "card rate: %s\n", lastError().c_str());
        return false;
    }
    RatePair waiting;
    RatePair polling;
    std::vector<double> eventsPerSecond;
    std::vector<double> microsecondsPerReceive;
    std::vector<long> resident = {residentKiB()};
    const Clock::time_point begin = Clock::now();
    bool ok = true;
    for (int round = 0; round < CardRateRounds && ok; ++round) {
        const CardRatePhase waitingPhase = readAtCardRate(handle, ReadingPattern::waitForEachBlock);
        const DrainPhase drainPhase = drainAtCardRate();
        const double drainPercent = drainPhase.cpuPercent;
        const CardRatePhase pollingPhase = readAtCardRate(handle, ReadingPattern::pollEvery10Ms);
        ok = waitingPhase.cpuPercent >= 0 && drainPercent >= 0 && pollingPhase.cpuPercent >= 0;
        microsecondsPerReceive.push_back(drainPhase.microsecondsPerReceive);
        waiting.measured.push_back(waitingPhase.cpuPercent);
        waiting.limit.push_back(drainPercent);
        polling.measured.push_back(pollingPhase.cpuPercent);
        polling.limit.push_back(drainPercent);
        eventsPerSecond.push_back(waitingPhase.eventsPerSecond);
        eventsPerSecond.push_back(pollingPhase.eventsPerSecond);
        resident.push_back(residentKiB());
    }
    const double seconds = secondsSince(begin);
    oltbDisconnect(handle);
    if (!ok) return false;

    char note[160];
    std::snprintf(note, sizeof note, "%.3g events/s; the drain costs %.0f us per receive here; target < 2 %%",
                  median(eventsPerSecond), median(microsecondsPerReceive));
    printFigure("card rate, oltbRead waits for each block", waiting, "% of core", "plain recv drain", "% of core",
                note);
    printFigure("card rate, oltbRead polls every 10 ms", polling, "% of core", "plain recv drain", "% of core", note);
    std::string samples;
    for (long kib : resident) samples += (samples.empty() ? "" : " -> ") + std::to_string(kib);
    std::printf("%-44s %s KiB resident, one connection, sampled over %.0f s (flat = no growth)\n",
                "card rate, memory of the reading process", samples.c_str(), seconds);
    std::fflush(stdout);
    return true;
}

// ---- the memory of a backlog --------------------------------------------------------------------------------

// Leaves the stream unread for `seconds` (tracing started); the resident growth, in KiB.
long backlogKiB(int handle, double seconds, long baseline) {
    if (oltbStart(handle) != 0) return -1;
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    return residentKiB() - baseline;
}

bool measureBacklogMemory() {
    testing::Simulator simulator(BacklogAddress, {"--counter", "--counter-rate", "1200000"});
    const long baseline = residentKiB();
    const int handle = oltbConnect(BacklogAddress);
    oltbTraceBufferConfig_Struct config;
    oltbInitConfig(&config);
    config.Spi0Rx = true;
    if (!simulator.ready() || handle < 0 || oltbSetConfig(handle, &config) != 0) {
        std::fprintf(stderr, "backlog: %s%s\n", simulator.standardError().c_str(), lastError().c_str());
        return false;
    }
    const long waiting = backlogKiB(handle, 5, baseline);
    std::vector<oltbTraceEvent> buffer(ReadBufferEvents);
    std::uint64_t words = 0;
    oltbStop(handle);
    oltbSetReadTimeout(handle, 0);
    for (std::uint32_t count = 1; count > 0 && oltbRead(handle, buffer.data(), 0, ReadBufferEvents, &count) == 0;) {
        words += count;
    }
    const long readOut = residentKiB() - baseline;
    const long beforeClear = backlogKiB(handle, 5, baseline);
    oltbClear(handle);
    const long cleared = residentKiB() - baseline;
    const long beforeDisconnect = backlogKiB(handle, 5, baseline);
    oltbDisconnect(handle);
    const long disconnected = residentKiB() - baseline;
    std::printf(
        "%-44s %.1f MiB waiting took %.1f MiB resident (%.3f times); back to +%.1f MiB after reading it, "
        "+%.1f MiB after a Clear (of %.1f), +%.1f MiB after a Disconnect (of %.1f)\n",
        "backlog at the card's rate, 5 s unread", static_cast<double>(words) * 8 / 1048576, waiting / 1024.0,
        static_cast<double>(waiting) * 1024 / (static_cast<double>(words) * 8), readOut / 1024.0, cleared / 1024.0,
        beforeClear / 1024.0, disconnected / 1024.0, beforeDisconnect / 1024.0);
    std::fflush(stdout);
    return true;
}

}  // namespace
}  // namespace oltb::bench

int main() {
    using namespace oltb::bench;
    std::printf("receive path over loopback with oltb-sim\n");
    std::fflush(stdout);
    // The card's rate first: its memory figures then start from a process that has not held a backlog yet.
    const bool cardRate = measureCardRate();
    const bool maximumRate = measureMaximumRate();
    const bool backlog = measureBacklogMemory();
    return maximumRate && cardRate && backlog ? 0 : 1;
}
