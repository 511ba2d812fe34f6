// Fuzz target: received trace bytes through the decoder, cut into blocks as the network would cut them, read into
// arrays of every size at every offset. The input is a 20-byte plan followed by the stream:
//   byte 0        bits 0..1 operation: 0 reading (TryRead), 1 decoding installed blocks (takeBlock +
//                 splitAndUnpack), 2 acquisition; bits 2..4 scale the block lengths (shift left 0..6)
//   bytes 1, 2    start and end label of the acquisition
//   byte 3        reading calls made before the acquisition, so that it starts with pending samples and a
//                 partly decoded block (0..7)
//   bytes 4..11   block lengths, used in turn (0 gives an empty block)
//   bytes 12..15  array counts, used in turn
//   bytes 16..19  array offsets (0..31), used in turn
// Each of the four arrays holds exactly offset + count events, so a write past it is a heap overflow; before every
// call it is filled with a pattern, and afterwards the slots next to the ones the call reports (before the offset,
// after the last delivered event) must still hold it.
#include "FuzzCheck.h"

#include "events/EventMessages.h"
#include "events/TraceDecoder.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

using OLVEN::TALIX3::TraceBuffer::BlockSource;
using OLVEN::TALIX3::TraceBuffer::TraceDecoder;
namespace EventMessages = OLVEN::TALIX3::TraceBuffer::EventMessages;

constexpr std::size_t PlanSize = 20;
constexpr unsigned MaxPendingSamples = 32;
constexpr unsigned char Untouched = 0xA5;

enum class Operation { reading, decodingBlocks, acquisition };

struct Plan {
    Operation operation;
    unsigned lengthShift;
    unsigned short startLabel;
    unsigned short endLabel;
    unsigned readsBeforeAcquisition;
    const std::uint8_t* blockLengths;  // 8
    const std::uint8_t* counts;        // 4
    const std::uint8_t* offsets;       // 4

    explicit Plan(const std::uint8_t* bytes)
        : operation(static_cast<Operation>((bytes[0] & 3U) % 3)),
          lengthShift(std::min((bytes[0] >> 2) & 7U, 6U)),
          startLabel(bytes[1]),
          endLabel(bytes[2]),
          readsBeforeAcquisition(bytes[3] & 7U),
          blockLengths(bytes + 4),
          counts(bytes + 12),
          offsets(bytes + 16) {}

    unsigned count(unsigned i) const { return counts[i]; }
    unsigned offset(unsigned i) const { return offsets[i] & 31U; }
};

// Thrown by the source instead of letting an acquisition poll a stream that has nothing more to give.
struct StreamUsedUp {};

// The received blocks, handed out in order. Once they are used up (taken, decoded and their pending samples
// delivered) the source reports the connection as gone, which ends an acquisition after its pass. Acquisitions run
// with a read timeout of 1 ms (with 0, a pass that decodes nothing pauses 1 ms); such a pass polls again, and its
// second empty poll since the last connection check ends the acquisition at once instead of letting it spin out
// the millisecond.
class RecordedBlocks final : public BlockSource {
public:
    RecordedBlocks(std::vector<std::vector<std::byte>> blocks, const TraceDecoder& decoder)
        : _blocks(std::move(blocks)), _decoder(decoder) {}

    bool waitBlock(std::vector<std::byte>& block, std::int64_t timeoutUs) override {
        if (_next < _blocks.size()) {
            block = std::move(_blocks[_next++]);
            return true;
        }
        if (_endsWhenUsedUp && timeoutUs > 0 && ++_emptyWaits > 1) throw StreamUsedUp{};
        return false;
    }

    bool isConnected() const override {
        _emptyWaits = 0;
        return !_endsWhenUsedUp || !usedUp();
    }

    bool usedUp() const {
        return _next == _blocks.size() && !_decoder.hasUndecodedBytes() && _decoder.pendingCount() == 0;
    }
    void endWhenUsedUp() { _endsWhenUsedUp = true; }

private:
    std::vector<std::vector<std::byte>> _blocks;
    const TraceDecoder& _decoder;
    std::size_t _next = 0;
    mutable unsigned _emptyWaits = 0;
    bool _endsWhenUsedUp = false;
};

std::vector<std::vector<std::byte>> cutIntoBlocks(const Plan& plan, const std::uint8_t* stream, std::size_t size) {
    const bool allLengthsZero = std::all_of(plan.blockLengths, plan.blockLengths + 8, [](auto l) { return l == 0; });
    std::vector<std::vector<std::byte>> blocks;
    std::size_t position = 0;
    for (unsigned i = 0; position < size; ++i) {
        const std::size_t length =
            allLengthsZero ? size : std::min<std::size_t>(size - position, plan.blockLengths[i % 8] << plan.lengthShift);
        const auto* first = reinterpret_cast<const std::byte*>(stream + position);
        blocks.emplace_back(first, first + length);
        position += length;
    }
    return blocks;
}

bool isUnsupportedType(const std::runtime_error& error) {
    const std::string text = error.what();
    const std::string prefix = EventMessages::UnsupportedTypePrefix;
    const std::string suffix = EventMessages::UnsupportedTypeSuffix;
    return text.size() > prefix.size() + suffix.size() && text.compare(0, prefix.size(), prefix) == 0 &&
           text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// A delivered event has a supported type, and a sample of an n-bit signal fits in n bits.
void checkDeliveredEvent(const oltbTraceEvent& event) {
    FUZZ_CHECK(event.Type != oltbEventTimeBase);
    unsigned bits = 0;
    try {
        bits = TraceDecoder::getNumberOfBits(event.Type);
    } catch (const std::runtime_error&) {
        FUZZ_CHECK(!"an event of an unsupported type was delivered");
    }
    if (bits < 32) FUZZ_CHECK(static_cast<std::uint32_t>(event.Value) < (1U << bits));
}

// An array of exactly offset + count events, used by every call with this offset and count.
class CallerArray {
public:
    CallerArray(unsigned offset, unsigned count)
        : _offset(offset), _count(count), _events(new oltbTraceEvent[offset + count]) {}

    unsigned offset() const { return _offset; }
    unsigned count() const { return _count; }
    // The array for the next call, every slot holding the Untouched pattern.
    oltbTraceEvent* prepare() {
        std::memset(static_cast<void*>(_events.get()), Untouched, sizeof(oltbTraceEvent) * (_offset + _count));
        return _events.get();
    }

    // After a call that reported `delivered` events: they fit, are well formed, and the slot before them and
    // the one after them were not written.
    void checkDelivered(unsigned delivered) const {
        FUZZ_CHECK(delivered <= _count);
        for (unsigned i = 0; i < delivered; ++i) checkDeliveredEvent(_events[_offset + i]);
        if (_offset > 0) FUZZ_CHECK(isUntouched(_offset - 1));
        if (delivered < _count) FUZZ_CHECK(isUntouched(_offset + delivered));
    }

private:
    bool isUntouched(unsigned slot) const {
        const auto* bytes = reinterpret_cast<const unsigned char*>(_events.get() + slot);
        return std::all_of(bytes, bytes + sizeof(oltbTraceEvent), [](auto b) { return b == Untouched; });
    }

    unsigned _offset;
    unsigned _count;
    std::unique_ptr<oltbTraceEvent[]> _events;
};

// The plan's four arrays, used in turn; `minimumCount` raises the counts below it.
std::vector<CallerArray> arraysOf(const Plan& plan, unsigned minimumCount) {
    std::vector<CallerArray> arrays;
    for (unsigned i = 0; i < 4; ++i) arrays.emplace_back(plan.offset(i), std::max(minimumCount, plan.count(i)));
    return arrays;
}

// One TryRead without waiting; an unsupported word ends the call and reading goes on after it.
void readOnce(TraceDecoder& decoder, RecordedBlocks& source, CallerArray& array) {
    try {
        array.checkDelivered(decoder.TryRead(source, array.prepare(), array.offset(), array.count(), 0));
    } catch (const std::runtime_error& error) {
        FUZZ_CHECK(isUnsupportedType(error));
    }
    FUZZ_CHECK(decoder.pendingCount() <= MaxPendingSamples);
}

void readAll(TraceDecoder& decoder, RecordedBlocks& source, const Plan& plan, std::size_t streamSize) {
    std::vector<CallerArray> arrays = arraysOf(plan, 0);
    // Every call with a count above 0 delivers a sample or uses up stream bytes, so this bound is never what
    // ends reading the stream; it only ends plans whose counts are all 0.
    const std::size_t maxCalls = 8 * streamSize + 64;
    for (unsigned call = 0; call < maxCalls && !source.usedUp(); ++call) readOnce(decoder, source, arrays[call % 4]);
}

void decodeBlocks(TraceDecoder& decoder, std::vector<std::vector<std::byte>> blocks, const Plan& plan) {
    std::vector<CallerArray> arrays = arraysOf(plan, 1);
    unsigned call = 0;
    for (std::vector<std::byte>& block : blocks) {
        decoder.takeBlock(std::move(block));
        while (decoder.hasUndecodedBytes()) {
            CallerArray& array = arrays[call++ % 4];
            try {
                array.checkDelivered(decoder.splitAndUnpack(array.prepare(), array.offset(), array.count()));
            } catch (const std::runtime_error& error) {
                FUZZ_CHECK(isUnsupportedType(error));
            }
            FUZZ_CHECK(decoder.pendingCount() <= MaxPendingSamples);
        }
    }
}

void acquire(TraceDecoder& decoder, RecordedBlocks& source, const Plan& plan) {
    std::vector<CallerArray> arrays = arraysOf(plan, 0);
    for (unsigned call = 0; call < plan.readsBeforeAcquisition; ++call) readOnce(decoder, source, arrays[call % 4]);
    source.endWhenUsedUp();
    // After a failure the next acquisition goes on behind it, as an application's would. Each uses up at least one
    // word; the bound keeps a stream full of unsupported words from costing a 4096-event batch per word.
    for (unsigned acquisition = 0; acquisition < 16; ++acquisition) {
        try {
            const std::vector<oltbTraceEvent> events = decoder.Acquire(source, plan.startLabel, plan.endLabel, 1);
            for (const oltbTraceEvent& event : events) {
                checkDeliveredEvent(event);
                // The bounding labels themselves are never part of the result.
                if (event.Type == oltbEventLabel) {
                    const auto number = static_cast<std::uint16_t>(event.Value);
                    FUZZ_CHECK(number != plan.startLabel && number != plan.endLabel);
                }
            }
        } catch (const StreamUsedUp&) {
            return;
        } catch (const std::runtime_error& error) {
            const std::string text = error.what();
            if (text == EventMessages::NoConnection) return;
            FUZZ_CHECK(isUnsupportedType(error) || text == EventMessages::EndLabelBeforeStart ||
                       text == EventMessages::NothingReceived);
        }
        FUZZ_CHECK(decoder.pendingCount() <= MaxPendingSamples);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < PlanSize) return 0;
    const Plan plan(data);
    const std::uint8_t* const stream = data + PlanSize;
    const std::size_t streamSize = size - PlanSize;

    TraceDecoder decoder;
    std::vector<std::vector<std::byte>> blocks = cutIntoBlocks(plan, stream, streamSize);
    switch (plan.operation) {
    case Operation::decodingBlocks:
        decodeBlocks(decoder, std::move(blocks), plan);
        break;
    case Operation::reading: {
        RecordedBlocks source(std::move(blocks), decoder);
        readAll(decoder, source, plan, streamSize);
        break;
    }
    case Operation::acquisition: {
        RecordedBlocks source(std::move(blocks), decoder);
        acquire(decoder, source, plan);
        break;
    }
    }
    return 0;
}
