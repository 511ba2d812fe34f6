// The interleaving explorer of the C interface: seeded random schedules of every exported call, over two handles and
// two to four threads, against fake servers that answer late (at any delay, several at once, mixed with new answers),
// cut frames anywhere, stream counting words full of 0x4D runs, stall and close. Calls the header calls a caller's
// error are part of it: reads overlapping reads and Starts, Disconnects of one handle side by side, stale handles,
// null pointers. Every schedule must keep the invariants: no crash (the sanitizer builds), every call returns within
// its bound, every failure is one of the library's texts for that call, every event is a word the server sent, in
// order and once, every GetConfig gets the answer to its own frame; after a run nothing is left behind.
//
//   api_explorer [--seconds S] [--workers W] [--first-seed N] [--max-delay-ms D] [--first-address A]
//       schedules from N on for S seconds, worker w on 127.0.10.(A + 4w) and the next address (A: 100)
//   api_explorer --seed N [--repeat R]                                              schedule N alone, R times
//
// A failure prints the seed, the violation and the schedule's calls, and ends the run with exit code 1. A schedule
// and its faults are the same for the same seed; the interleaving of its threads differs from run to run.
#include "api/oltb.h"
#include "tests/support/FakeServer.h"

#include <dirent.h>
#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace oltb::testing;
using Clock = std::chrono::steady_clock;
using Random = std::mt19937_64;

Clock::time_point after(Clock::time_point from, double seconds) {
    return from + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr double Slack = 3;  // sanitized builds run several times slower
constexpr bool AllocatorIsMeaningful = false;
#else
constexpr double Slack = 1;
constexpr bool AllocatorIsMeaningful = true;
#endif

const std::string NotEstablished = "Connection to trace buffer server not established!";
const std::string NoConnection = "No connection to trace buffer server established.";
const std::set<std::string> HandleTexts = {"Illegal handle.", "Illegal handle!",
                                           "There is no connection corresponding to this handle.",
                                           "Out parameter is a null pointer!"};
const std::set<std::string> CommandTexts = {NotEstablished,
                                            "Could not receive a response from the trace buffer server within 3000ms"};
const std::set<std::string> ReadTexts = {NoConnection, "buffer may not be null",
                                         "Nothing received from trace buffer server within the specified timeout",
                                         "Expected start label but got end label!", "No acquired elements available!"};

int pick(Random& random, int below) { return static_cast<int>(random() % static_cast<unsigned>(below)); }
bool chance(Random& random, int percent) { return pick(random, 100) < percent; }

// ---- the stream: word k decodes to Timestamp k; labels 1 and 2 once per period; values full of 0x4D bytes -------

constexpr std::uint32_t LabelPeriod = 1500;
constexpr std::uint32_t LabelShift = 16;  // a word of 16-bit samples is stamped 16 ticks before its time
int labelAt(std::uint32_t k) {
    const std::uint32_t phase = k % LabelPeriod;
    return phase == LabelShift + 4 ? 1 : phase == LabelPeriod / 2 ? 2 : 0;
}
std::uint32_t valueAt(std::uint32_t k) {
    const std::uint32_t values[] = {0x4D4D4D4DU, 0x4D4D0000U | (k & 0xFFFFU), k, ~k};
    return values[k % 4];
}
Bytes wordsFrom(std::uint32_t first, std::uint32_t count) {
    Bytes bytes;
    for (std::uint32_t k = first; k < first + count; ++k) {
        const Bytes word = labelAt(k) != 0
                               ? makeWord(oltbEventLabel, k - LabelShift, static_cast<std::uint32_t>(labelAt(k)) << 16)
                               : makeWord(oltbEventSpi0Rx, k, valueAt(k));
        bytes.insert(bytes.end(), word.begin(), word.end());
    }
    return bytes;
}

// ---- the schedule --------------------------------------------------------------------------------------------------

enum Kind {
    Connect,
    Disconnect,
    IsConnected,
    GetTimeout,
    SetTimeout,
    Start,
    Stop,
    Clear,
    GetConfig,
    SetConfig,
    TryRead,
    Read,
    Acquire,
    GetAcquired,
    LastError,
    NoHandle,
    KindCount
};
enum Bound { Quick, Prompt, Command, Reading };  // 1 s; 2 s; commands of all threads in turn; reads in turn
struct KindInfo {
    const char* name;
    int weight;  // how often it is drawn
    Bound bound;
    const std::set<std::string>* texts;  // besides the handle texts
};
const std::set<std::string> None;
const KindInfo Kinds[] = {{"Connect", 2, Command, &None},           {"Disconnect", 3, Prompt, &None},
                          {"IsConnected", 3, Quick, &None},         {"GetReadTimeout", 2, Quick, &None},
                          {"SetReadTimeout", 4, Quick, &None},      {"Start", 8, Command, &CommandTexts},
                          {"Stop", 6, Command, &CommandTexts},      {"Clear", 5, Command, &CommandTexts},
                          {"GetConfig", 8, Command, &CommandTexts}, {"SetConfig", 5, Command, &CommandTexts},
                          {"TryRead", 12, Reading, &ReadTexts},     {"Read", 12, Reading, &ReadTexts},
                          {"Acquire", 4, Reading, &ReadTexts},      {"GetAcquiredElements", 4, Quick, &ReadTexts},
                          {"GetLastError", 3, Quick, &None},        {"InitConfig/ToSignedPosition", 2, Quick, &None}};

struct Call {
    Kind kind;
    int slot;     // which server's handle
    int handle;   // 0: the slot's current handle, 1: one it had before, 2: never valid (-1 or unknown)
    int number;   // a timeout, a count, a label or a size
    bool null;    // a null pointer where the call takes one
    int pauseMs;  // before the call
};

struct Schedule {
    std::uint64_t seed = 0;
    int slots = 2;
    std::vector<std::vector<Call>> threads;
    int maxDelayMs = 0;
};

Schedule makeSchedule(std::uint64_t seed, int maxDelayMs) {
    Random random(seed);
    Schedule schedule;
    schedule.seed = seed;
    schedule.maxDelayMs = maxDelayMs;
    schedule.threads.resize(static_cast<std::size_t>(2 + pick(random, 3)));
    int totalWeight = 0;
    for (const KindInfo& kind : Kinds) totalWeight += kind.weight;
    for (auto& calls : schedule.threads) {
        for (int n = 4 + pick(random, 10); n > 0; --n) {
            int draw = pick(random, totalWeight);
            int kind = 0;
            while (draw >= Kinds[kind].weight) draw -= Kinds[kind++].weight;
            const int timeouts[] = {-1, 0, 0, 20, 100, 300, 800};
            const int number = kind == SetTimeout ? timeouts[pick(random, 7)] : pick(random, 5000);
            calls.push_back({static_cast<Kind>(kind), pick(random, schedule.slots),
                             chance(random, 88)   ? 0
                             : chance(random, 50) ? 1
                                                  : 2,
                             number, chance(random, 4), chance(random, 30) ? 0 : pick(random, 40)});
        }
    }
    return schedule;
}

// ---- one run of a schedule -----------------------------------------------------------------------------------------

struct Figures {
    std::atomic<long> schedules{0}, calls{0}, events{0}, lateAnswers{0}, cutAnswers{0}, lostAnswers{0}, closes{0},
        stalls{0};
};
Figures figures;
int firstAddress = 100;  // the last byte of the first worker's first address

// A fake server whose script answers in order with seeded faults, numbers its GetConfig answers and streams words while
// started.
class Server {
public:
    Server(const std::string& address, std::uint64_t seed, int maxDelayMs)
        : _random(seed), _maxDelayMs(maxDelayMs), _server(address) {
        _server.setScript([this](const Bytes& frame) { return react(frame); });
        _streamer = std::thread([this, streamSeed = _random()] { stream(streamSeed); });
    }
    ~Server() {
        _stop = true;
        _streamer.join();
    }
    std::uint32_t streamed() const { return _streamed; }
    // The GetConfig frame answered with `version` came in while [begin, end] lasted.
    bool answeredWithin(std::uint8_t version, Clock::time_point begin, Clock::time_point end) {
        const std::lock_guard<std::mutex> lock(_mutex);
        for (const auto& [answered, when] : _getConfigs) {
            if (answered == version && when >= begin && when <= end) return true;
        }
        return false;
    }

private:
    Reaction react(const Bytes& frame) {
        Reaction reaction;
        Bytes payload;
        {
            const std::lock_guard<std::mutex> lock(_mutex);
            _started = frame[1] == StartCode || (_started && frame[1] != StopCode);
            if (frame[1] == SetConfigCode) _config = slice(frame, 2, frame.size());
            if (frame[1] == GetConfigCode) {
                payload = _config;
                payload[0] = _nextVersion;
                _getConfigs.emplace_back(_nextVersion, Clock::now());
                _nextVersion = static_cast<std::uint8_t>(_nextVersion % 255 + 1);
            }
            const int roll = pick(_random, 1000);
            if (roll < 8) {
                ++figures.lostAnswers;
                return chance(_random, 50) ? Reaction::silent() : Reaction::close();
            }
            const Bytes answer = responseFrame(payload);
            reaction.chunks = {answer};
            if (roll < 300) {  // cut anywhere, every byte on its own at times
                ++figures.cutAnswers;
                reaction.chunks.clear();
                const std::size_t step = chance(_random, 30) ? 1 : 1 + static_cast<std::size_t>(pick(_random, 6));
                for (std::size_t at = 0; at < answer.size(); at += step) {
                    reaction.chunks.push_back(slice(answer, at, std::min(answer.size(), at + step)));
                }
                reaction.pause = std::chrono::milliseconds(pick(_random, 4));
            }
            if (roll >= 850) {  // late: around the command's 3 s, or far beyond
                ++figures.lateAnswers;
                reaction.delay =
                    std::chrono::milliseconds(roll < 950 ? 2800 + pick(_random, 700) : pick(_random, _maxDelayMs));
            }
            reaction.closeAfter = roll >= 995;
            figures.closes += reaction.closeAfter ? 1 : 0;
        }
        return reaction;
    }

    void stream(std::uint64_t seed) {
        Random random(seed);
        while (!_stop) {
            bool started = false;
            {
                const std::lock_guard<std::mutex> lock(_mutex);
                started = _started;
            }
            if (started && _streamed < (1U << 24) - 4096) {
                const auto count = static_cast<std::uint32_t>(1 + pick(random, 300));
                const std::uint32_t first = _streamed;
                _streamed = first + count;  // before they can arrive
                _server.send(wordsFrom(first, count));
            }
            if (pick(random, 1000) < 2) {
                ++figures.stalls;
                std::this_thread::sleep_for(std::chrono::milliseconds(100 + pick(random, 600)));
            }
            std::this_thread::sleep_for(std::chrono::microseconds(500 + pick(random, 2500)));
        }
    }

    std::mutex _mutex;
    Random _random;
    int _maxDelayMs;
    bool _started = false;
    Bytes _config = configPayload(6, 0, 0, 0, 0);
    std::uint8_t _nextVersion = 1;
    std::vector<std::pair<std::uint8_t, Clock::time_point>> _getConfigs;
    std::atomic<std::uint32_t> _streamed{0};
    std::atomic<bool> _stop{false};
    FakeServer _server;  // after what its script uses: its serving thread ends first
    std::thread _streamer;
};

class Run {
public:
    Run(const Schedule& schedule, int worker) : _schedule(schedule), _start(Clock::now()) {
        for (int slot = 0; slot < schedule.slots; ++slot) {
            _addresses.push_back("127.0.10." + std::to_string(firstAddress + 4 * worker + slot));
            _servers.push_back(
                std::make_unique<Server>(_addresses.back(), schedule.seed * 31 + slot, schedule.maxDelayMs));
            _seen.emplace_back();
            _handles.emplace_back();
            connect(slot);
        }
    }

    // Runs the threads' calls, then disconnects every handle; returns the first violation ("" if none).
    std::string operator()() {
        std::vector<std::thread> threads;
        for (std::size_t t = 0; t < _schedule.threads.size(); ++t) {
            threads.emplace_back([this, t] {
                for (const Call& call : _schedule.threads[t]) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(call.pauseMs));
                    perform(static_cast<int>(t), call);
                }
            });
        }
        // Every thread ends, or waits in a read without limit, within the sum of its calls' bounds (the watchdog).
        double boundSeconds = 20 + _schedule.maxDelayMs / 1000.0;
        for (const auto& calls : _schedule.threads) {
            for (const Call& call : calls) {
                const bool command =
                    call.kind == Start || call.kind == Stop || call.kind == GetConfig || call.kind == SetConfig;
                boundSeconds += call.kind == Clear || call.kind == Connect ? 6 : command ? 3 : 0.5;
            }
        }
        waitForThreads(after(_start, Slack * boundSeconds), false);
        // The Disconnects end the reads waiting without limit.
        _ending = true;  // no new connections from here on
        const auto disconnected = Clock::now();
        disconnectAll();
        waitForThreads(after(disconnected, 2 * Slack), true);
        for (std::thread& thread : threads) thread.join();
        disconnectAll();  // a Connect that was under way
        return _violation;
    }

    void report(const std::string& what) {
        const std::lock_guard<std::mutex> lock(_logMutex);
        std::fprintf(stderr, "api_explorer: seed %llu: %s\n", static_cast<unsigned long long>(_schedule.seed),
                     what.c_str());
        for (const std::string& line : _log) std::fprintf(stderr, "  %s\n", line.c_str());
        std::fprintf(stderr, "replay: api_explorer --seed %llu --repeat 20\n",
                     static_cast<unsigned long long>(_schedule.seed));
    }

private:
    void disconnectAll() {
        std::vector<int> handles;
        {
            const std::lock_guard<std::mutex> lock(_logMutex);
            for (const auto& issued : _handles) handles.insert(handles.end(), issued.begin(), issued.end());
        }
        for (const int handle : handles) {
            if (oltbDisconnect(handle) != 0) fail("the final Disconnect of " + std::to_string(handle) + " failed");
        }
    }

    // Waits until every thread has ended, or (unless `all`) waits in a call without limit; ends the program when
    // they have not by `limit`.
    void waitForThreads(Clock::time_point limit, bool all) {
        std::unique_lock<std::mutex> lock(_mutex);
        // Reads of a handle run one after another: behind one that waits without limit, all do.
        const auto waiting = [&] {
            std::size_t unbounded = 0;
            for (const auto& [thread, slot] : _reading) unbounded += _slotsWithoutLimit.count(slot);
            return _finished + (all ? 0 : unbounded) == _schedule.threads.size();
        };
        if (_done.wait_until(lock, limit, waiting)) return;
        lock.unlock();
        report(all ? "HANG: calls did not end after the final Disconnects" : "HANG: the schedule did not end in time");
        lock.lock();
        for (const auto& line : _inFlight) std::fprintf(stderr, "  in flight: %s\n", line.c_str());
        std::fflush(stderr);
        std::abort();
    }

    void fail(const std::string& what) {
        const std::lock_guard<std::mutex> lock(_logMutex);
        if (_violation.empty()) _violation = what;
    }

    void connect(int slot) {
        const int handle = oltbConnect(_addresses[slot].c_str());
        const std::lock_guard<std::mutex> lock(_logMutex);
        if (handle > 0) {
            _handles[slot].push_back(handle);
            oltbSetReadTimeout(handle, 300);
        } else if (_handles[slot].empty()) {
            _handles[slot].push_back(987654);  // never issued: every call on it fails with a handle text
        }
    }

    int handleFor(const Call& call) {
        const std::lock_guard<std::mutex> lock(_logMutex);
        const std::vector<int>& issued = _handles[call.slot];
        if (call.handle == 0 || (call.handle == 1 && issued.size() < 2)) return issued.back();
        if (call.handle == 1) return issued[static_cast<std::size_t>(call.number) % (issued.size() - 1)];
        return call.number % 2 == 0 ? -1 - call.number : 987654 + call.number;
    }

    // Every delivered event is a word the server sent, in order within the call and never delivered before.
    void checkEvents(int slot, const oltbTraceEvent* events, std::uint32_t count, bool labels) {
        const std::uint32_t streamed = _servers[slot]->streamed();
        const std::lock_guard<std::mutex> lock(_logMutex);
        std::vector<bool>& seen = _seen[slot];
        for (std::uint32_t i = 0; i < count; ++i) {
            const oltbTraceEvent& e = events[i];
            const auto k = static_cast<std::uint32_t>(e.Timestamp);
            const bool valid =
                e.Timestamp < streamed && !e.Overflow &&
                (labelAt(k) != 0 ? labels && e.Type == oltbEventLabel && e.Value == labelAt(k)
                                 : e.Type == oltbEventSpi0Rx && static_cast<std::uint32_t>(e.Value) == valueAt(k));
            if (!valid && _violation.empty()) {
                _violation = "event " + std::to_string(i) + " of " + std::to_string(count) + " was never sent: stamp " +
                             std::to_string(e.Timestamp) + " type " + std::to_string(e.Type) + " value " +
                             std::to_string(static_cast<std::uint32_t>(e.Value)) + " (" + std::to_string(streamed) +
                             " words sent)";
            }
            if (i > 0 && e.Timestamp <= events[i - 1].Timestamp && _violation.empty())
                _violation = "events out of order";
            if (seen.size() <= k) seen.resize(k + 4096);
            if (seen[k] && _violation.empty()) _violation = "word " + std::to_string(k) + " delivered twice";
            seen[k] = true;
        }
        figures.events += count;
    }

    // One call: its result, its text against the texts it may leave, its duration against its bound.
    void perform(int thread, const Call& call) {
        const int handle = handleFor(call);
        const std::string flight =
            std::to_string(thread) + ": " + Kinds[call.kind].name + " on " + std::to_string(handle);
        const bool reading = Kinds[call.kind].bound == Reading;
        {
            const std::lock_guard<std::mutex> lock(_mutex);
            _inFlight.insert(flight);
            if (call.kind == SetTimeout && call.number <= 0) _slotsWithoutLimit.insert(call.slot);
            if (reading) _reading[thread] = call.slot;
            _done.notify_all();
        }
        std::vector<oltbTraceEvent> events(
            static_cast<std::size_t>(call.kind == GetAcquired ? 1 << 16 : 3 + call.number % 600));
        oltbTraceEvent* const buffer = call.null ? nullptr : events.data();
        const std::uint32_t offset = static_cast<std::uint32_t>(call.number % 3);
        std::uint32_t count = 0;
        bool connected = false;
        int timeout = 0;
        char text[64];
        oltbTraceBufferConfig_Struct config;
        oltbInitConfig(&config);
        config.Spi0Rx = config.Label = true;
        oltbTraceBufferConfig_Struct* const record = call.null ? nullptr : &config;
        const auto begin = Clock::now();
        int result = 0;
        switch (call.kind) {
            case Connect:
                oltbIsConnected(handleFor({Connect, call.slot, 0, 0, false, 0}), &connected);
                // A second client of a fake server would wait in vain, and none comes once the schedule is ending.
                if (call.null)
                    result = oltbConnect(nullptr) > 0 ? 0 : -1;
                else if (!connected && !_ending)
                    connect(call.slot);
                break;
            case Disconnect:
                result = oltbDisconnect(handle);
                break;
            case IsConnected:
                result = oltbIsConnected(handle, call.null ? nullptr : &connected);
                break;
            case GetTimeout:
                result = oltbGetReadTimeout(handle, call.null ? nullptr : &timeout);
                break;
            case SetTimeout:
                result = oltbSetReadTimeout(handle, call.number);
                break;
            case Start:
                result = oltbStart(handle);
                break;
            case Stop:
                result = oltbStop(handle);
                break;
            case Clear:
                result = oltbClear(handle);
                break;
            case SetConfig:
                result = oltbSetConfig(handle, record);
                break;
            case GetConfig:
                result = oltbGetConfig(handle, record);
                if (result == 0 && !_servers[call.slot]->answeredWithin(static_cast<std::uint8_t>(config.Version),
                                                                        begin, Clock::now())) {
                    fail("GetConfig on " + std::to_string(handle) + " got the answer to another frame (version " +
                         std::to_string(config.Version) + ")");
                }
                break;
            case TryRead:
            case Read:
                result = (call.kind == Read ? oltbRead : oltbTryRead)(
                    handle, buffer, offset, static_cast<std::uint32_t>(events.size() - offset), &count);
                if (result == 0) checkEvents(call.slot, events.data() + offset, count, true);
                break;
            case Acquire:
                result = oltbAcquire(handle, 1, 2, call.null ? nullptr : &count);
                break;
            case GetAcquired:  // a series lies between labels 1 and 2, less than a label period apart: it always fits
                result = oltbGetAcquiredElements(handle, buffer, 0, static_cast<std::uint32_t>(events.size()), &count);
                if (result == 0) checkEvents(call.slot, events.data(), count, false);
                break;
            case LastError:
                oltbGetLastError(call.null ? nullptr : text, call.number % 70 - 5);
                break;
            case NoHandle:
                result = call.null ? oltbInitConfig(nullptr) : oltbToSignedPosition(events.data(), 3);
                break;
            case KindCount:
                break;
        }
        check(thread, call, handle, result, begin);
        const std::lock_guard<std::mutex> lock(_mutex);
        _inFlight.erase(_inFlight.find(flight));
        _reading.erase(thread);
        if (&call == &_schedule.threads[thread].back()) ++_finished;
        _done.notify_all();
    }

    // The text a failed call left must be one of those it may leave, and the call must have kept to its bound: reads
    // and commands of one handle run one after another, each within its read timeout (at most 800 ms) or 3 s (a Clear:
    // twice), unless the read timeout was without limit: then the final Disconnects end them.
    void check(int thread, const Call& call, int handle, int result, Clock::time_point begin) {
        const double took = std::chrono::duration<double>(Clock::now() - begin).count();
        char text[512] = "";
        const int length = oltbGetLastErrorLen();
        if (result != 0) oltbGetLastError(text, sizeof text);
        ++figures.calls;
        char line[700];
        std::snprintf(line, sizeof line, "%7.3f s  thread %d: %s on %d -> %d %s(%.3f s)",
                      std::chrono::duration<double>(begin - _start).count(), thread, Kinds[call.kind].name, handle,
                      result, result != 0 ? ("'" + std::string(text) + "' ").c_str() : "", took);
        {
            const std::lock_guard<std::mutex> lock(_logMutex);
            _log.emplace_back(line);
        }
        const KindInfo& kind = Kinds[call.kind];
        const bool allowed = HandleTexts.count(text) || kind.texts->count(text) ||
                             (call.kind == Connect && std::strstr(text, "null not valid"));
        if (result != 0 && !allowed) fail(std::string("a text this call may not leave: ") + line);
        if (result != 0 && length != static_cast<int>(std::strlen(text)) + 2)
            fail(std::string("wrong error length: ") + line);
        const double threads = static_cast<double>(_schedule.threads.size());
        const double bounds[] = {1, 2, 6.5 * threads + 1, 1.5 * threads + 2};
        const std::lock_guard<std::mutex> lock(_mutex);
        if (took > bounds[kind.bound] * Slack && !(kind.bound == Reading && _slotsWithoutLimit.count(call.slot))) {
            fail(std::string("call beyond its bound: ") + line);
        }
    }

    const Schedule& _schedule;
    const Clock::time_point _start;
    std::vector<std::string> _addresses;
    std::vector<std::unique_ptr<Server>> _servers;
    std::mutex _logMutex;  // the log, the violation, the handles, the words seen
    std::vector<std::string> _log;
    std::string _violation;
    std::vector<std::vector<int>> _handles;
    std::vector<std::vector<bool>> _seen;
    std::mutex _mutex;  // calls in flight and finished threads
    std::condition_variable _done;
    std::multiset<std::string> _inFlight;
    std::map<int, int> _reading;       // thread -> slot of the read or acquisition it is inside
    std::set<int> _slotsWithoutLimit;  // slots whose read timeout has been set to 0 or less
    std::size_t _finished = 0;
    std::atomic<bool> _ending{false};
};

// Threads and open descriptors of the process, and the bytes the allocator has handed out.
std::vector<long> processFigures() {
    long threads = 0;
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("Threads:", 0) == 0) threads = std::stol(line.substr(8));
    }
    long descriptors = 0;
    DIR* const directory = ::opendir("/proc/self/fd");
    while (::readdir(directory) != nullptr) ++descriptors;
    ::closedir(directory);
    const struct mallinfo2 allocator = ::mallinfo2();
    return {threads, descriptors, static_cast<long>(allocator.uordblks + allocator.hblkhd)};
}

}  // namespace

int main(int argc, char** argv) {
    double seconds = 25;
    int workers = 3;
    int repeat = 1;
    int maxDelayMs = 9000;
    std::uint64_t firstSeed = std::random_device()() % 1000000000;
    bool single = false;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string option = argv[i];
        const char* value = argv[i + 1];
        if (option == "--seconds") seconds = std::atof(value);
        if (option == "--workers") workers = std::clamp(std::atoi(value), 1, 24);
        if (option == "--repeat") repeat = std::max(1, std::atoi(value));
        if (option == "--max-delay-ms") maxDelayMs = std::max(1, std::atoi(value));
        if (option == "--first-address") firstAddress = std::clamp(std::atoi(value), 1, 250);
        if (option == "--first-seed" || option == "--seed") firstSeed = std::strtoull(value, nullptr, 10);
        if (option == "--seed") single = true;
    }
    if (single) workers = 1;
    workers = std::max(1, std::min(workers, (254 - firstAddress) / 4));
    std::printf("api_explorer: seeds from %llu, %d workers, %s\n", static_cast<unsigned long long>(firstSeed), workers,
                single ? "one schedule" : (std::to_string(seconds) + " s").c_str());
    std::fflush(stdout);
    std::thread([] {}).join();  // a sanitizer starts its own thread with the first one
    const std::vector<long> before = processFigures();
    const auto start = Clock::now();
    std::atomic<bool> failed{false};
    std::vector<std::thread> threads;
    for (int worker = 0; worker < workers; ++worker) {
        threads.emplace_back([&, worker] {
            for (std::uint64_t seed = firstSeed + static_cast<std::uint64_t>(worker), round = 0; !failed;
                 seed += single ? 0 : static_cast<std::uint64_t>(workers), ++round) {
                if (single ? round >= static_cast<std::uint64_t>(repeat)
                           : std::chrono::duration<double>(Clock::now() - start).count() >= seconds)
                    break;
                const Schedule schedule = makeSchedule(seed, maxDelayMs);
                Run run(schedule, worker);
                const std::string violation = run();
                ++figures.schedules;
                if (!violation.empty() && !failed.exchange(true)) run.report(violation);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // the servers' last connections are let go
    ::malloc_trim(0);
    const std::vector<long> after = processFigures();
    std::printf(
        "api_explorer: %ld schedules, %ld calls, %ld events checked; faults: %ld late answers, %ld cut, %ld never "
        "answered, %ld closes, %ld stalls; %s in %.0f s\n",
        figures.schedules.load(), figures.calls.load(), figures.events.load(), figures.lateAnswers.load(),
        figures.cutAnswers.load(), figures.lostAnswers.load(), figures.closes.load(), figures.stalls.load(),
        failed ? "FAILED" : "no violation", std::chrono::duration<double>(Clock::now() - start).count());
    if (!failed && (after[0] != before[0] || after[1] != before[1] ||
                    (AllocatorIsMeaningful && after[2] - before[2] > (4L << 20)))) {
        std::printf("api_explorer: left behind: threads %ld -> %ld, descriptors %ld -> %ld, allocated %ld -> %ld\n",
                    before[0], after[0], before[1], after[1], before[2], after[2]);
        return 1;
    }
    return failed ? 1 : 0;
}
