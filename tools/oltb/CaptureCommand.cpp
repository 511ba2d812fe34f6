// "oltb capture": starts tracing, reads until the limit (duration, number of events) or Ctrl-C, stops, and keeps
// everything read. A lost connection also ends the capture: what was read is written and summarised before the
// failure is reported. A duration is counted twice: in the trace's own time, so that the capture holds exactly the
// first S seconds of trace (the library hands over what arrived in the last read slice, which may reach past them,
// and a server faster than real time, as a simulator with --max-rate, gives them sooner), and on the wall clock, so
// that a server that falls silent or streams slowly cannot hold the capture for longer than S seconds.
//
// A reading thread takes the events from the library as they arrive and queues them in batches; this thread writes
// them. So the capture knows at every moment how fast the stream arrives and how fast it is written, and its
// progress line shows a writer that falls behind while the events wait (before memory grows much). The queue holds
// at most QueueEvents: beyond that the reading thread waits, and the stream waits in the library.
#include "tools/oltb/CommandOptions.h"
#include "tools/oltb/CommandSupport.h"
#include "tools/oltb/Commands.h"
#include "tools/oltb/Errors.h"
#include "tools/oltb/Interrupt.h"
#include "tools/oltb/Progress.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

namespace oltb::cli {

namespace {

// Short enough that Ctrl-C and the end of the duration are noticed promptly, long enough not to spin; also how
// long the writing thread waits for a batch before it redraws the progress line.
constexpr int ReadSliceMs = 200;
constexpr std::uint32_t BatchEvents = 4096;
// A read that finds less than a batch waits this long before the next: at the card's rate a block arrives about
// once a millisecond, and taking each on its own would wake both threads a thousand times a second.
constexpr auto ReadPause = std::chrono::milliseconds(10);
// 64 MiB of events, over 1.5 s of the card's busiest stream.
constexpr std::uint64_t QueueEvents = 2 * 1024 * 1024;
constexpr double TicksPerMicrosecond = 64.0;

using Batch = std::vector<oltbTraceEvent>;

// Batches from the reading thread to the writing one, and used ones back for reuse.
class BatchQueue {
public:
    // A batch to fill, with room for BatchEvents; waits while the queue is full, unless `stopping` is set.
    std::optional<Batch> emptyBatch(const std::atomic<bool>& stopping) {
        std::unique_lock<std::mutex> lock(_mutex);
        _roomOrStop.wait(lock, [&] { return _queuedEvents < QueueEvents || stopping.load(); });
        if (_queuedEvents >= QueueEvents) {
            return std::nullopt;
        }
        Batch batch;
        if (!_spare.empty()) {
            batch = std::move(_spare.back());
            _spare.pop_back();
        }
        batch.resize(BatchEvents);
        return batch;
    }
    void push(Batch&& batch) {
        {
            const std::lock_guard<std::mutex> lock(_mutex);
            _arrived += batch.size();
            _queuedEvents += batch.size();
            _full.push_back(std::move(batch));
        }
        _filled.notify_one();
    }
    // No more batches will come.
    void close() {
        {
            const std::lock_guard<std::mutex> lock(_mutex);
            _closed = true;
        }
        _filled.notify_one();
    }
    // Wakes a reading thread that waits for room, so that it sees `stopping`.
    void wakeReader() {
        { const std::lock_guard<std::mutex> lock(_mutex); }  // a reader between its test and its wait gets the call
        _roomOrStop.notify_all();
    }

    // The next batch; nothing once the queue is closed and empty, or when `limit` passes first (`timedOut`).
    std::optional<Batch> next(std::chrono::milliseconds limit, bool& timedOut) {
        std::unique_lock<std::mutex> lock(_mutex);
        timedOut = !_filled.wait_for(lock, limit, [&] { return !_full.empty() || _closed; });
        if (_full.empty()) {
            return std::nullopt;
        }
        Batch batch = std::move(_full.front());
        _full.pop_front();
        return batch;
    }
    void giveBack(Batch&& batch) {
        {
            const std::lock_guard<std::mutex> lock(_mutex);
            _queuedEvents -= batch.size();
            _spare.push_back(std::move(batch));
        }
        _roomOrStop.notify_one();
    }
    // Drops what is queued (nothing more is written).
    void discard() {
        const std::lock_guard<std::mutex> lock(_mutex);
        _full.clear();
        _queuedEvents = 0;
        _roomOrStop.notify_all();
    }

    CaptureCounts counts(std::uint64_t written) {
        const std::lock_guard<std::mutex> lock(_mutex);
        return CaptureCounts{_arrived, written, _arrived - written, _queuedEvents >= QueueEvents};
    }

private:
    std::mutex _mutex;
    std::condition_variable _filled;
    std::condition_variable _roomOrStop;
    std::deque<Batch> _full;
    std::vector<Batch> _spare;
    std::uint64_t _queuedEvents = 0;
    std::uint64_t _arrived = 0;
    bool _closed = false;
};

// The reading thread: reads until the limit, Ctrl-C, `stopping` or a failure, then closes the queue.
class Reader {
public:
    Reader(Connection& connection, const CaptureOptions& options, BatchQueue& queue)
        : _connection(connection), _options(options), _queue(queue), _thread([this] { run(); }) {}
    ~Reader() { stop(); }

    // Ends reading (at the latest after a read slice) and waits for the thread.
    void stop() {
        _stopping = true;
        _queue.wakeReader();
        if (_thread.joinable()) {
            _thread.join();
        }
    }
    const std::optional<std::string>& failure() const { return _failure; }

private:
    void run() {
        const auto start = std::chrono::steady_clock::now();
        std::uint64_t read = 0;
        std::optional<std::uint64_t> origin;
        const double durationUs = _options.durationSeconds * 1e6;
        bool durationReached = false;
        while (!_stopping && !interruptRequested() && !durationReached) {
            if (_options.maxEvents > 0 && read >= _options.maxEvents) {
                break;
            }
            const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
            if (_options.durationSeconds > 0.0 && elapsed.count() >= _options.durationSeconds) {
                break;
            }
            std::optional<Batch> batch = _queue.emptyBatch(_stopping);
            if (!batch) {
                break;
            }
            std::uint32_t wanted = BatchEvents;
            if (_options.maxEvents > 0) {
                wanted = static_cast<std::uint32_t>(std::min<std::uint64_t>(wanted, _options.maxEvents - read));
            }
            std::uint32_t count = 0;
            try {
                count = _connection.tryRead(batch->data(), wanted);
            } catch (const ServerError& error) {
                _failure = error.what();
                break;
            }
            batch->resize(count);
            if (count > 0) {
                if (!_options.raw) {
                    oltbToSignedPosition(batch->data(), count);
                }
                // Time 0 of a capture is its first event (the library counts from the connection's reference).
                if (!origin) {
                    origin = batch->front().Timestamp;
                }
                for (oltbTraceEvent& event : *batch) {
                    event.Time =
                        static_cast<double>(static_cast<std::int64_t>(event.Timestamp - *origin)) / TicksPerMicrosecond;
                }
                if (_options.durationSeconds > 0.0 && batch->back().Time >= durationUs) {
                    // Events come in time order: the first at or past the duration ends the capture, without it.
                    const auto beyond =
                        std::find_if(batch->begin(), batch->end(),
                                     [durationUs](const oltbTraceEvent& e) { return e.Time >= durationUs; });
                    batch->erase(beyond, batch->end());
                    durationReached = true;
                }
                read += batch->size();
                _queue.push(std::move(*batch));
            }
            if (count < wanted && !_stopping) {
                std::this_thread::sleep_for(ReadPause);
            }
        }
        _queue.close();
    }

    Connection& _connection;
    const CaptureOptions& _options;
    BatchQueue& _queue;
    std::atomic<bool> _stopping{false};
    std::optional<std::string> _failure;
    std::thread _thread;  // last: starts once everything it uses is there
};

int runCapture(const CaptureOptions& options) {
    const auto wanted = parseWantedSignals(options.signals);
    Outputs outputs(options.outputs);
    outputs.open();
    try {
        const auto discard = [&outputs] { outputs.discard(); };
        std::unique_ptr<Connection> connection;
        std::vector<const SignalInfo*> signals;
        runInterruptibly(
            [&] {
                connection = connectTo(options.host);
                signals = chooseSignals(*connection, wanted, false);
            },
            discard);
        if (signals.empty()) {
            throw UsageError("the server traces no signal; choose some with --signals");
        }
        SeriesInfo info;
        info.signals = signals;
        info.signedPositions = !options.raw;
        info.timeZero = VcdTimeZero::FirstEvent;
        info.vcd = options.vcd;
        info.host = options.host;
        info.startTimeUtc = utcNowIso8601();
        outputs.begin(info);
        runInterruptibly(
            [&] {
                connection->setReadTimeout(ReadSliceMs);
                connection->start();
            },
            discard);

        Summary summary;
        Progress progress(progressWanted(options.quiet), stderr);
        BatchQueue queue;
        std::optional<std::string> failure;
        {
            Reader reader(*connection, options, queue);
            for (;;) {
                bool timedOut = false;
                std::optional<Batch> batch = queue.next(std::chrono::milliseconds(ReadSliceMs), timedOut);
                if (batch) {
                    summary.add(batch->data(), batch->size());
                    try {
                        outputs.write(batch->data(), batch->size());
                    } catch (const OutputError&) {
                        // The other files are finished with what was written; the failure is reported after.
                        reader.stop();
                        queue.giveBack(std::move(*batch));
                        queue.discard();
                        break;
                    }
                    queue.giveBack(std::move(*batch));
                } else if (!timedOut) {
                    break;  // the reading thread has ended and everything it read is written
                }
                progress.updateCapture(queue.counts(summary.totalEvents()));
            }
            reader.stop();
            failure = reader.failure();
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
        finishAndReport(outputs, summary);
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

}  // namespace

Command addCaptureCommand(CLI::App& app) {
    auto options = std::make_shared<CaptureOptions>();
    CaptureOptions& capture = *options;
    CLI::App* command =
        app.add_subcommand("capture", "trace until the duration, the number of events or Ctrl-C, then stop");
    addTraceOptions(*command, capture.host, capture.signals, capture.outputs, capture.raw, capture.quiet);
    addVcdOptions(*command, capture.vcd);
    auto* durationOption = command
                               ->add_option("-d,--duration", capture.durationSeconds,
                                            "seconds to trace: the first S seconds of the trace, ending S "
                                            "seconds after the start at the latest")
                               ->check(positiveNumberOf("seconds"));
    auto* eventsOption =
        command->add_option("-n,--events", capture.maxEvents, "events to read")->check(positiveNumberOf("events"));
    durationOption->excludes(eventsOption);

    return {command, [options] { return runCapture(*options); }};
}

}  // namespace oltb::cli
