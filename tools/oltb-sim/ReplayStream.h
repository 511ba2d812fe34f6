// Serves a capture that oltb wrote (.csv or .h5) as the card would stream it. The capture holds decoded events;
// the replay packs them back into trace words that decode into the same events:
//   - a 32-bit signal (positions, SPI, event changes): one word per event; signed head positions go back to their
//     raw 20-bit form, X channels negated;
//   - a label: one word per event, the number in the upper half, the pass of the replay (1, 2, ...) in the lower;
//   - an n-bit signal: a word starts at an event and covers the 32 / n ticks from there. A client reports the
//     first sample of every word and after it only changes, so each tick without an event repeats the value
//     before it. The word ends early (the rest repeating its last value) where an event could not be told apart
//     by a client: one that repeats the value before it, one at a tick already covered, or one with the
//     overflow flag, which a client sees only on a word's first sample. A capture of the card starts its words
//     on the 32 / n-tick windows, and the replay keeps each event's place in a 32-tick window, so such words come
//     back as they were.
// Words go out in the order of their field ticks, behind the time-base words the encoder adds. The capture is
// read a batch at a time and only a few dozen ticks ahead of the words handed out, so memory does not grow with
// the file; each Start reads it again from its beginning.
#pragma once

#include "tools/oltb-sim/TraceSource.h"
#include "tools/oltb-sim/WordEncoder.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace oltb::cli {
class CaptureReader;
}

namespace oltb::sim {

// A capture that cannot be replayed; the text names the file and what is wrong.
class ReplayError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// What a replay serves, found by reading the whole capture once before the server listens.
struct ReplayCapture {
    std::string path;
    bool signedPositions = true;
    std::vector<std::uint32_t> types;  // event types with at least one event, in ascending order
    std::uint64_t events = 0;
    std::uint64_t firstTick = 0;  // smallest and largest tick of the capture
    std::uint64_t lastTick = 0;
};

// Reads `path` and checks that every event can be re-encoded: a value that fits its signal, events in time order.
// Throws ReplayError, with the reader's text for a file that is no capture of oltb or cannot be read.
ReplayCapture scanCapture(const std::string& path);

class ReplayStream final : public TraceSource {
public:
    // With `repeat` the capture runs again and again, each pass `pauseTicks` after the end of the one before;
    // otherwise the stream ends after one pass and stays silent until the next Start.
    ReplayStream(ReplayCapture capture, bool repeat, std::uint64_t pauseTicks);
    ~ReplayStream() override;

    void start(std::uint64_t startTick, const SignalSelection& selection) override;
    void select(const SignalSelection& selection) override { _selection = selection; }
    void generate(std::uint64_t horizonTick, std::size_t maxWords, std::vector<std::uint64_t>& out) override;
    // The field tick of the next word; after the last pass, the tick after the last event.
    std::uint64_t nextTick() const override;
    bool exhausted() const override { return _exhausted; }

    const ReplayCapture& capture() const noexcept { return _capture; }

private:
    struct Pending {  // an event of the capture not yet packed, its tick already moved to the stream's clock
        std::uint64_t tick;
        std::uint32_t value;  // as it goes on the wire
        bool overflow;
    };
    struct Word {
        std::uint64_t fieldTick;
        std::uint64_t order;  // keeps words of equal field ticks in the order they were made
        std::uint32_t type;
        std::uint32_t payload;
        bool overflow;
    };

    // Heap order: the word with the smallest field tick on top.
    static bool later(const Word& a, const Word& b) noexcept;
    void beginPass();
    void prepare();
    void readBatch();
    void packReadyWords();
    void packWord(std::uint32_t type, std::deque<Pending>& events);
    std::uint64_t lowestFutureFieldTick() const;
    void fail(const std::exception& error);

    ReplayCapture _capture;
    bool _repeat;
    std::uint64_t _pauseTicks;

    SignalSelection _selection;
    WordEncoder _encoder;
    std::uint64_t _startTick = 0;
    std::uint64_t _shift = 0;  // added to the capture's ticks (modulo 2^64)
    std::uint64_t _pass = 0;
    bool _exhausted = false;
    bool _opened = false;  // the pass has begun: the file is open

    std::unique_ptr<oltb::cli::CaptureReader> _reader;
    std::vector<oltbTraceEvent> _batch;
    bool _endOfFile = false;
    std::uint64_t _highestTick = 0;            // highest stream tick read in this pass
    std::vector<std::deque<Pending>> _queues;  // per event type
    std::vector<Word> _heap;                   // words made, smallest field tick on top
    std::deque<Word> _ready;                   // words no later word can precede, in stream order
    std::uint64_t _wordsMade = 0;
};

}  // namespace oltb::sim
