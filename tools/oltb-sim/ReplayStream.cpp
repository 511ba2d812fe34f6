// Re-encoding a capture into the card's words: events are read into a queue per signal, packed into words once
// every event their ticks could cover has been read, and handed out once no word still to come can have an
// earlier field tick.
#include "tools/oltb-sim/ReplayStream.h"

#include "tools/oltb-sim/JobStream.h"
#include "tools/oltb/CaptureReader.h"
#include "tools/oltb/Outputs.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <memory>
#include <string>

namespace oltb::sim {
namespace {

// Events may come up to this many ticks behind the latest one before them: a client sorts the samples of its words
// by tick, and words of narrow signals carry samples up to 31 ticks after their field tick. A capture written by
// oltb is in time order; a later event earlier than this is refused when the capture is checked.
constexpr std::uint64_t OrderSlackTicks = 64;
constexpr std::uint64_t StreamGridTicks = 640;  // streams start on this grid, passes are spaced on it
constexpr std::uint64_t WindowAlignmentTicks = 32;
constexpr std::size_t BatchEvents = 4096;
constexpr std::uint32_t LabelShift = 16;
constexpr std::int64_t LowestPosition = -524288;  // the range of a 20-bit two's-complement position
constexpr std::int64_t HighestPosition = 524287;

bool isHeadPositionType(const std::uint32_t type) noexcept {
    return type >= 32 && type <= 60 && sampleWidthBits(type) == 32;
}

bool isXChannel(const std::uint32_t type) noexcept { return (type - 32) % 8 == 0; }

// The value of `event` as its word carries it; false with the reason when it cannot travel in one.
bool toWireValue(const oltbTraceEvent& event, const bool signedPositions, std::uint32_t& wire, std::string& reason) {
    const auto type = static_cast<std::uint32_t>(event.Type);
    const unsigned width = sampleWidthBits(type);
    const std::int64_t value = event.Value;
    if (width == 0) {
        reason = "event type " + std::to_string(type) + " is no signal";
        return false;
    }
    if (isHeadPositionType(type) && signedPositions) {
        // A client shows positions sign-extended from 20 bits, X negated: undo both.
        const std::int64_t onWire = isXChannel(type) ? -value : value;
        if (onWire < LowestPosition || onWire > HighestPosition) {
            reason = "position " + std::to_string(value) + " lies outside the 20-bit range of the head";
            return false;
        }
        wire = JobStream::rawPosition(value, isXChannel(type));
        return true;
    }
    if (width < 32 && (value < 0 || value >= (std::int64_t{1} << width))) {
        reason = "value " + std::to_string(value) + " does not fit the signal's " + std::to_string(width) + " bit" +
                 (width == 1 ? "" : "s");
        return false;
    }
    wire = static_cast<std::uint32_t>(event.Value);
    return true;
}

std::string describeEvent(const std::uint64_t number, const oltbTraceEvent& event) {
    const oltb::cli::SignalInfo* signal = oltb::cli::findSignalByType(event.Type);
    return "event " + std::to_string(number) + " (" + (signal != nullptr ? signal->name : "?") + " at tick " +
           std::to_string(event.Timestamp) + ")";
}

std::unique_ptr<oltb::cli::CaptureReader> openCapture(const std::string& path) {
#ifndef OLTB_WITH_HDF5
    if (oltb::cli::formatOfFileName(path) == oltb::cli::OutputFormat::H5) {
        throw ReplayError(path + ": this oltb-sim was built without HDF5 (install libhdf5-dev and build again)");
    }
#endif
    return std::make_unique<oltb::cli::CaptureReader>(path);
}

}  // namespace

ReplayCapture scanCapture(const std::string& path) {
    ReplayCapture capture;
    capture.path = path;
    try {
        const auto reader = openCapture(path);
        capture.signedPositions = reader->info().signedPositions;
        std::array<bool, 128> seen{};
        std::vector<oltbTraceEvent> batch(BatchEvents);
        std::uint64_t highest = 0;
        while (const std::size_t count = reader->read(batch.data(), batch.size())) {
            for (std::size_t i = 0; i < count; ++i) {
                const oltbTraceEvent& event = batch[i];
                ++capture.events;
                std::uint32_t wire = 0;
                std::string reason;
                if (!toWireValue(event, capture.signedPositions, wire, reason)) {
                    throw ReplayError(path + ": " + describeEvent(capture.events, event) + ": " + reason);
                }
                if (event.Timestamp + OrderSlackTicks < highest) {
                    throw ReplayError(path + ": " + describeEvent(capture.events, event) + ": lies " +
                                      std::to_string(highest - event.Timestamp) +
                                      " ticks before an event in front of it; the events are not in time order");
                }
                highest = std::max(highest, event.Timestamp);
                capture.firstTick =
                    capture.events == 1 ? event.Timestamp : std::min(capture.firstTick, event.Timestamp);
                seen[static_cast<std::size_t>(event.Type)] = true;
            }
        }
        capture.lastTick = highest;
        for (std::uint32_t type = 0; type < seen.size(); ++type) {
            if (seen[type]) {
                capture.types.push_back(type);
            }
        }
    } catch (const ReplayError&) {
        throw;
    } catch (const std::exception& error) {
        throw ReplayError(error.what());  // the reader's text names the file and, for a CSV, the line
    }
    if (capture.events == 0) {
        throw ReplayError(path + ": the capture holds no events");
    }
    return capture;
}

ReplayStream::ReplayStream(ReplayCapture capture, const bool repeat, const std::uint64_t pauseTicks)
    : _capture(std::move(capture)), _repeat(repeat), _pauseTicks(pauseTicks), _queues(128) {
    _batch.resize(BatchEvents);
}

ReplayStream::~ReplayStream() = default;

bool ReplayStream::later(const Word& a, const Word& b) noexcept {
    return a.fieldTick != b.fieldTick ? a.fieldTick > b.fieldTick : a.order > b.order;
}

void ReplayStream::start(const std::uint64_t startTick, const SignalSelection& selection) {
    _startTick = startTick;
    _selection = selection;
    _encoder.restart();
    _exhausted = false;
    _pass = 0;
    _opened = false;  // the file is opened by the first generate(), after Start has been answered
    // The first event comes 32 to 63 ticks after the stream's start, so that the field ticks of narrow words (up to
    // 31 ticks before their first sample) do not precede the time base; each event keeps its place in a 32-tick
    // window. startTick lies on the 640-tick grid.
    _shift = startTick + WindowAlignmentTicks - (_capture.firstTick - _capture.firstTick % WindowAlignmentTicks);
}

void ReplayStream::beginPass() {
    _opened = true;
    _endOfFile = false;
    _highestTick = _capture.firstTick + _shift;
    for (const std::uint32_t type : _capture.types) {
        _queues[type].clear();
    }
    _heap.clear();
    _ready.clear();
    try {
        _reader = openCapture(_capture.path);
        prepare();
    } catch (const std::exception& error) {
        fail(error);
    }
}

void ReplayStream::fail(const std::exception& error) {
    std::fprintf(stderr, "oltb-sim: the replay stopped: %s\n", error.what());
    _reader.reset();
    _ready.clear();
    _exhausted = true;
}

std::uint64_t ReplayStream::nextTick() const {
    if (!_opened) {
        return _startTick;
    }
    if (!_ready.empty()) {
        return _ready.front().fieldTick;
    }
    return _capture.lastTick + _shift + 1;  // exhausted: the clock stands after the last event
}

void ReplayStream::prepare() {
    while (_ready.empty() && !_exhausted) {
        packReadyWords();
        const std::uint64_t bound = lowestFutureFieldTick();
        while (!_heap.empty() && _heap.front().fieldTick <= bound) {
            std::pop_heap(_heap.begin(), _heap.end(), later);
            _ready.push_back(_heap.back());
            _heap.pop_back();
        }
        if (!_ready.empty()) {
            return;
        }
        if (_endOfFile) {
            if (!_repeat) {
                _exhausted = true;
                _reader.reset();
                return;
            }
            // The next pass starts its first event the pause after this pass's last one, on the stream's grid.
            const std::uint64_t span = _capture.lastTick - _capture.firstTick + 2 * WindowAlignmentTicks + _pauseTicks;
            _shift += (span + StreamGridTicks - 1) / StreamGridTicks * StreamGridTicks;
            ++_pass;
            _endOfFile = false;
            _highestTick = _capture.firstTick + _shift;
            _reader = openCapture(_capture.path);
            continue;
        }
        readBatch();
    }
}

void ReplayStream::readBatch() {
    const std::size_t count = _reader->read(_batch.data(), _batch.size());
    if (count == 0) {
        _endOfFile = true;
        return;
    }
    const bool signedPositions = _reader->info().signedPositions;
    for (std::size_t i = 0; i < count; ++i) {
        const oltbTraceEvent& event = _batch[i];
        Pending pending{event.Timestamp + _shift, 0, event.Overflow};
        std::string reason;
        if (!toWireValue(event, signedPositions, pending.value, reason) ||
            pending.tick + OrderSlackTicks < _highestTick ||
            !std::binary_search(_capture.types.begin(), _capture.types.end(), static_cast<std::uint32_t>(event.Type))) {
            throw ReplayError(_capture.path + ": the file changed since the server started");
        }
        std::deque<Pending>& queue = _queues[static_cast<std::size_t>(event.Type)];
        if (queue.empty() || queue.back().tick <= pending.tick) {
            queue.push_back(pending);
        } else {
            const auto place = std::upper_bound(queue.begin(), queue.end(), pending.tick,
                                                [](std::uint64_t tick, const Pending& p) { return tick < p.tick; });
            queue.insert(place, pending);
        }
        _highestTick = std::max(_highestTick, pending.tick);
    }
}

void ReplayStream::packReadyWords() {
    for (const std::uint32_t type : _capture.types) {
        std::deque<Pending>& queue = _queues[type];
        const std::uint64_t window = 32 / sampleWidthBits(type);
        // Events still unread lie at or after _highestTick - OrderSlackTicks: a word is complete once they cannot
        // fall into its window.
        while (!queue.empty() && (_endOfFile || _highestTick >= queue.front().tick + window + OrderSlackTicks)) {
            packWord(type, queue);
        }
    }
}

void ReplayStream::packWord(const std::uint32_t type, std::deque<Pending>& events) {
    const Pending first = events.front();
    events.pop_front();
    const unsigned width = sampleWidthBits(type);
    Word word{fieldTickOf(type, first.tick), _wordsMade++, type, first.value, first.overflow};
    if (type == oltbEventLabel) {
        word.payload = (first.value << LabelShift) | static_cast<std::uint32_t>((_pass + 1) & 0xFFFF);
    } else if (width < 32) {
        std::array<std::uint32_t, 32> samples{};
        std::uint32_t current = first.value;
        bool ended = false;
        samples[0] = current;
        for (unsigned i = 1; i < 32 / width; ++i) {
            if (!ended && !events.empty() && events.front().tick <= first.tick + i) {
                const Pending& next = events.front();
                if (next.tick == first.tick + i && next.value != current && !next.overflow) {
                    current = next.value;
                    events.pop_front();
                } else {
                    ended = true;  // this event starts the next word
                }
            }
            samples[i] = current;
        }
        word.payload = packSamples(width, samples.data());
    }
    _heap.push_back(word);
    std::push_heap(_heap.begin(), _heap.end(), later);
}

std::uint64_t ReplayStream::lowestFutureFieldTick() const {
    std::uint64_t bound = UINT64_MAX;
    if (!_endOfFile) {
        constexpr std::uint64_t Reach = OrderSlackTicks + WindowAlignmentTicks;
        bound = _highestTick > Reach ? _highestTick - Reach : 0;
    }
    for (const std::uint32_t type : _capture.types) {
        if (!_queues[type].empty()) {
            bound = std::min(bound, fieldTickOf(type, _queues[type].front().tick));
        }
    }
    return bound;
}

void ReplayStream::generate(const std::uint64_t horizonTick, const std::size_t maxWords,
                            std::vector<std::uint64_t>& out) {
    if (_startTick >= horizonTick) {
        return;
    }
    if (!_opened) {
        beginPass();
    }
    if (!_encoder.hasTimeBase()) {
        _encoder.ensureTimeBase(out, _startTick);  // every stream opens with its time base
    }
    // Words of signals the client did not select count too, so that a call ends soon whatever is selected.
    for (std::size_t handled = 0; handled < maxWords && !_ready.empty(); ++handled) {
        const Word word = _ready.front();
        if (word.fieldTick >= horizonTick) {
            return;
        }
        _ready.pop_front();
        if (_selection.isTraced(word.type)) {
            _encoder.append(out, word.fieldTick, word.type, word.payload, word.overflow);
        }
        if (_ready.empty()) {
            try {
                prepare();
            } catch (const std::exception& error) {
                fail(error);
            }
        }
    }
}

}  // namespace oltb::sim
