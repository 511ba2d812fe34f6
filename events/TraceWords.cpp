// Trace words: the bits-per-sample table, the public word decoding members and the decoder's state handling.
// The per-word code itself lives in TraceWordsInline.h, shared with the reading loop.
#include "events/EventMessages.h"
#include "events/TraceDecoder.h"
#include "events/TraceWordsInline.h"

#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

namespace OLVEN::TALIX3::TraceBuffer {

namespace {
constexpr unsigned PendingCapacity = TraceDecoder::_numPayloadBits;  // the most samples one word yields
}

TraceDecoder::TraceDecoder() : _pendingEvents(PendingCapacity) {}

void TraceWordDecoding::throwUnsupportedType(long long type) {
    throw std::runtime_error(std::string(EventMessages::UnsupportedTypePrefix) + std::to_string(type) +
                             EventMessages::UnsupportedTypeSuffix);
}

unsigned TraceDecoder::getNumberOfBits(oltbTraceEventType type) {
    const long long value = static_cast<std::underlying_type_t<oltbTraceEventType>>(type);
    if (value >= 0 && value < static_cast<long long>(TraceWordDecoding::BitsPerSample.size())) {
        const unsigned bits = TraceWordDecoding::BitsPerSample[static_cast<std::size_t>(value)];
        if (bits != 0) return bits;
    }
    TraceWordDecoding::throwUnsupportedType(value);
}

void TraceDecoder::createPackedEvent(std::uint64_t word, oltbTraceEvent& event) noexcept {
    TraceWordDecoding::splitFields(word, event);
}

bool TraceDecoder::processEvent(std::uint64_t word, oltbTraceEvent& event, bool& late) {
    TraceWordClock clock = loadClock();
    unsigned bits = 0;
    const bool isEvent = TraceWordDecoding::decodeWord(clock, word, event, late, bits);
    storeClock(clock);
    return isEvent;
}

unsigned TraceDecoder::unpackEvents(const oltbTraceEvent& event, oltbTraceEvent* events, unsigned& next,
                                    unsigned& end) {
    const unsigned bits = getNumberOfBits(event.Type);
    oltbTraceEvent* out = events + next;
    const unsigned stored =
        TraceWordDecoding::storeSamples(event, bits, out, events + end, _pendingEvents.data(), _pendingCount);
    next += stored;
    return stored;
}

void TraceDecoder::clear() noexcept {
    _timeBase = 0;
    _previousTimeBase = 0;
    _lastRelativeTimestamp = 0;
    _partialWord = 0;
    _partialBits = 0;
    _currentBlock.clear();
    _blockPosition = 0;
    _pendingCount = 0;
}

void TraceDecoder::takeBlock(std::vector<std::byte>&& block) noexcept {
    _currentBlock = std::move(block);
    _blockPosition = 0;
}

}  // namespace OLVEN::TALIX3::TraceBuffer
