// Figures of `oltb capture` as a user runs it, a child process against oltb-sim child processes on loopback addresses
// of their own:
//   - end to end: every signal from the simulator at maximum rate into a CSV and into an HDF5 file for 4 s of
//     reading; events written per second of the tool's whole run (backlog written after the reading included),
//     with the tool's resident memory sampled every half second. The limit is the library reading the same stream
//     and writing nothing (oltbTryRead of 4096 events in a loop). Two passes of each format, interleaved;
//   - at the card's rate: the marking job in real time with all twelve head channels and every signal it drives
//     (1.2 million events/s), captured into an HDF5 file for 32 s: CPU time of the tool's process (both its threads
//     and the library's reader) per second of trace from its 2nd to its 32nd second, and its resident memory every
//     2 s. The limit is a plain recv loop draining the same stream from a second simulator for 10 s.
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
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace oltb::bench {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr const char* MaxRateAddress = "127.0.2.4";
constexpr const char* CardRateAddress = "127.0.2.5";
constexpr const char* CardRateDrainAddress = "127.0.2.6";
constexpr int MaxRatePasses = 2;
constexpr double MaxRateSeconds = 4;
constexpr double LibrarySeconds = 3;
constexpr double CardRateSeconds = 32;
constexpr double CardRateSettleSeconds = 2;
constexpr double DrainSeconds = 10;
// Every signal the marking job drives, all twelve head channels and the labels.
constexpr const char* JobSignals =
    "Conf1,PortA,PortLaserOut0,PortLaserOut1,Gate,StartMark,Label,LaserPower16,LaserPower8,LaserPower4,LaserPower2,"
    "LaserPower1,LaserPower0_16,LaserPower0_8,LaserPower0_4,LaserPower0_2,LaserPower0_1,LaserPower1_16,"
    "LaserPower1_8,LaserPower1_4,LaserPower1_2,LaserPower1_1";

double secondsSince(Clock::time_point begin) { return std::chrono::duration<double>(Clock::now() - begin).count(); }

long residentKiB(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
    }
    return -1;
}

// User + system time of a process so far (all its threads), from /proc/PID/stat; -1 once it is gone.
double cpuSeconds(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    const std::size_t end = text.rfind(')');
    if (end == std::string::npos) return -1;
    std::istringstream fields(text.substr(end + 2));
    std::string field;
    unsigned long user = 0;
    unsigned long system = 0;
    for (int index = 3; fields >> field; ++index) {
        if (index == 14) user = std::stoul(field);
        if (index == 15) {
            system = std::stoul(field);
            break;
        }
    }
    return static_cast<double>(user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// False once the process has ended (a zombie waiting to be reaped, or gone).
bool running(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    const std::size_t end = text.rfind(')');
    return end != std::string::npos && end + 2 < text.size() && text[end + 2] != 'Z';
}

double ownCpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// The "total" line of the tool's summary.
std::uint64_t totalOfSummary(const std::string& output) {
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("total", 0) == 0) return std::strtoull(line.c_str() + 5, nullptr, 10);
    }
    return 0;
}

std::string mebibytes(const std::vector<long>& samples) {
    std::string text;
    for (long kib : samples) text += (text.empty() ? "" : " ") + std::to_string((kib + 512) / 1024);
    return text + " MiB";
}

struct ToolRun {
    double seconds = -1;         // launch to exit
    std::uint64_t events = 0;    // written, as the summary counts them
    std::vector<long> resident;  // KiB, sampled while it ran
    double cpuPercent = -1;      // over the measured stretch, when asked for
};

// Runs `oltb capture` to its end, sampling its memory every `every` and its CPU time at `from` and `to` s.
ToolRun runCapture(const std::vector<std::string>& arguments, Clock::duration every, double from = 0, double to = 0) {
    ToolRun run;
    const Clock::time_point begin = Clock::now();
    testing::ChildProcess tool(OLTB_TOOL_PATH, arguments);
    double cpuFrom = -1;
    double cpuTo = -1;
    double wallFrom = 0;
    double wallTo = 0;
    Clock::time_point nextSample = begin + every;
    for (;;) {
        std::this_thread::sleep_for(20ms);
        if (!running(tool.pid())) break;
        const double now = secondsSince(begin);
        if (to > 0 && cpuFrom < 0 && now >= from) {
            cpuFrom = cpuSeconds(tool.pid());
            wallFrom = now;
        }
        if (to > 0 && now <= to) {
            const double cpu = cpuSeconds(tool.pid());
            if (cpu >= 0) {
                cpuTo = cpu;
                wallTo = now;
            }
        }
        if (Clock::now() >= nextSample) {
            run.resident.push_back(residentKiB(tool.pid()));
            nextSample += every;
        }
        if (now > 120) break;
    }
    run.seconds = secondsSince(begin);
    const int exitCode = tool.waitForExit(10s);
    if (exitCode != 0) {
        std::fprintf(stderr, "oltb capture exited with %d: %s\n", exitCode, tool.standardError().c_str());
        run.seconds = -1;
        return run;
    }
    run.events = totalOfSummary(tool.standardOutput());
    if (cpuFrom >= 0 && cpuTo >= cpuFrom && wallTo > wallFrom)
        run.cpuPercent = 100 * (cpuTo - cpuFrom) / (wallTo - wallFrom);
    return run;
}

// Events per second that the library reads from the simulator and hands over, nothing written; -1 on a failure.
double readThroughLibrary(const char* address) {
    const int handle = oltbConnect(address);
    if (handle < 0) return -1;
    std::vector<oltbTraceEvent> buffer(4096);
    double rate = -1;
    if (oltbSetReadTimeout(handle, 2000) == 0 && oltbStart(handle) == 0) {
        std::uint64_t events = 0;
        const Clock::time_point begin = Clock::now();
        while (secondsSince(begin) < LibrarySeconds) {
            std::uint32_t count = 0;
            if (oltbTryRead(handle, buffer.data(), 0, 4096, &count) != 0) break;
            events += count;
        }
        if (secondsSince(begin) >= LibrarySeconds) rate = static_cast<double>(events) / secondsSince(begin);
    }
    oltbDisconnect(handle);
    return rate;
}

bool measureMaximumRate(const std::filesystem::path& directory) {
    testing::Simulator simulator(MaxRateAddress, {"--max-rate"});
    if (!simulator.ready()) {
        std::fprintf(stderr, "oltb-sim: %s\n", simulator.standardError().c_str());
        return false;
    }
    for (const char* extension : {"csv", "h5"}) {
        const std::string path = (directory / (std::string("max-rate.") + extension)).string();
        RatePair pair;
        std::vector<long> resident;
        for (int pass = 0; pass < MaxRatePasses; ++pass) {
            const ToolRun run = runCapture({"capture", MaxRateAddress, "--signals", "all", "--duration",
                                            std::to_string(MaxRateSeconds), "--quiet", "-o", path},
                                           500ms);
            std::filesystem::remove(path);
            const double library = readThroughLibrary(MaxRateAddress);
            if (run.seconds <= 0 || library <= 0) return false;
            pair.measured.push_back(static_cast<double>(run.events) / run.seconds);
            pair.limit.push_back(library);
            if (pass == MaxRatePasses - 1) resident = run.resident;
        }
        const std::string note =
            std::string("resident every 0.5 s: ") + mebibytes(resident) + "; target >= 6e6 events/s";
        printFigure(std::string("capture --signals all, max rate, ") + extension, pair, "events/s",
                    "library reading only", "events/s", note);
    }
    return true;
}

// A plain TCP connection to a simulator that asks for the job's signals with command frames (0x4D, code, 17
// payload bytes) and receives 16 KiB at a time, throwing the bytes away; CPU per second of this process.
double drainAtCardRate() {
    const int descriptor = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in server{};
    server.sin_family = AF_INET;
    server.sin_port = htons(9495);
    inet_pton(AF_INET, CardRateDrainAddress, &server.sin_addr);
    if (descriptor < 0 || connect(descriptor, reinterpret_cast<const sockaddr*>(&server), sizeof server) != 0)
        return -1;
    const auto selection = everythingTheJobDrives().toPayload();
    std::array<std::uint8_t, 19> setConfig{0x4D, 129};
    std::copy(selection.begin(), selection.end(), setConfig.begin() + 2);
    const std::array<std::uint8_t, 19> start{0x4D, 17};
    double percent = -1;
    if (send(descriptor, setConfig.data(), setConfig.size(), MSG_NOSIGNAL) == 19 &&
        send(descriptor, start.data(), start.size(), MSG_NOSIGNAL) == 19) {
        alignas(4096) static char buffer[16384];
        const Clock::time_point begin = Clock::now();
        double cpuFrom = -1;
        double wallFrom = 0;
        for (;;) {
            if (recv(descriptor, buffer, sizeof buffer, 0) <= 0) break;
            const double now = secondsSince(begin);
            if (cpuFrom < 0 && now >= CardRateSettleSeconds) {
                cpuFrom = ownCpuSeconds();
                wallFrom = now;
            }
            if (now >= DrainSeconds) {
                percent = 100 * (ownCpuSeconds() - cpuFrom) / (now - wallFrom);
                break;
            }
        }
    }
    close(descriptor);
    return percent;
}

bool measureCardRate(const std::filesystem::path& directory) {
    testing::Simulator toolSide(CardRateAddress, {});
    testing::Simulator drainSide(CardRateDrainAddress, {});
    if (!toolSide.ready() || !drainSide.ready()) {
        std::fprintf(stderr, "oltb-sim: %s%s\n", toolSide.standardError().c_str(), drainSide.standardError().c_str());
        return false;
    }
    const std::string path = (directory / "card-rate.h5").string();
    const ToolRun run = runCapture({"capture", CardRateAddress, "--signals", JobSignals, "--duration",
                                    std::to_string(CardRateSeconds), "--quiet", "-o", path},
                                   2s, CardRateSettleSeconds, CardRateSeconds);
    const auto bytes = std::filesystem::exists(path) ? std::filesystem::file_size(path) : 0;
    std::filesystem::remove(path);
    const double drain = drainAtCardRate();
    if (run.seconds <= 0 || run.cpuPercent < 0 || drain < 0) return false;
    RatePair pair{{run.cpuPercent}, {drain}};
    char note[200];
    std::snprintf(note, sizeof note, "%.3g events/s, %.2f bytes/event; resident every 2 s: %s",
                  static_cast<double>(run.events) / CardRateSeconds,
                  run.events > 0 ? static_cast<double>(bytes) / static_cast<double>(run.events) : 0.0,
                  mebibytes(run.resident).c_str());
    printFigure("capture into HDF5 at the card's rate, CPU", pair, "% of core", "plain recv drain", "% of core", note);
    return true;
}

}  // namespace
}  // namespace oltb::bench

int main() {
    using namespace oltb::bench;
    namespace fs = std::filesystem;
    const fs::path directory = fs::temp_directory_path() / ("oltb-bench-capture-" + std::to_string(::getpid()));
    fs::create_directories(directory);
    std::printf("oltb capture as a child process against oltb-sim, files in %s\n", directory.c_str());
    std::fflush(stdout);
    const bool cardRate = measureCardRate(directory);
    const bool maximumRate = measureMaximumRate(directory);
    fs::remove_all(directory);
    return cardRate && maximumRate ? 0 : 1;
}
