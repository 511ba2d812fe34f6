// Fuzz target: received trace bytes through the decoder, cut into blocks as the network would cut them, read into
// arrays of every size at every offset, or collected by acquisitions. The input is a 20-byte plan, then the stream:
//   byte 0        bits 0..1 operation: 2 acquisition, otherwise reading; bits 2..4 scale the block lengths
//   bytes 1, 2    start and end label of the acquisition
//   byte 3        reads made before the acquisition, so that it starts with pending samples (0..7)
//   bytes 4..11   block lengths, used in turn (all 0: one block)
//   bytes 12..15  array counts, bytes 16..19 array offsets (0..31), used in turn
// Each array holds exactly offset + count events, so a write past it is a heap overflow; the slots next to the ones
// a call reports must still hold the pattern they were filled with.
#include "fuzz/FuzzCheck.h"

#include "events/EventMessages.h"
#include "events/TraceDecoder.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using OLVEN::TALIX3::TraceBuffer::BlockSource;
using OLVEN::TALIX3::TraceBuffer::TraceDecoder;
namespace Messages = OLVEN::TALIX3::TraceBuffer::EventMessages;

constexpr unsigned char Untouched = 0xA5;

struct StreamUsedUp {};

// The blocks in order. Once they are used up, an acquisition's source reports the connection as gone (and its second
// empty wait in a row ends the acquisition at once instead of letting it time out).
class RecordedBlocks final : public BlockSource {
public:
    RecordedBlocks(std::vector<std::vector<std::byte>> blocks, const TraceDecoder& decoder)
        : _blocks(std::move(blocks)), _decoder(decoder) {}
    bool waitBlock(std::vector<std::byte>& block, std::int64_t timeoutUs) override {
        if (_next < _blocks.size()) {
            block = std::move(_blocks[_next++]);
            return true;
        }
        if (endsWhenUsedUp && timeoutUs > 0 && ++_emptyWaits > 1) throw StreamUsedUp{};
        return false;
    }
    bool isConnected() const override {
        _emptyWaits = 0;
        return !endsWhenUsedUp || !usedUp();
    }
    bool usedUp() const {
        return _next == _blocks.size() && !_decoder.hasUndecodedBytes() && _decoder.pendingCount() == 0;
    }
    bool endsWhenUsedUp = false;

private:
    std::vector<std::vector<std::byte>> _blocks;
    const TraceDecoder& _decoder;
    std::size_t _next = 0;
    mutable unsigned _emptyWaits = 0;
};

// A delivered event has a supported type, and a sample of an n-bit signal fits in n bits.
void checkEvent(const oltbTraceEvent& event) {
    FUZZ_CHECK(event.Type != oltbEventTimeBase);
    unsigned bits = 0;
    try {
        bits = TraceDecoder::getNumberOfBits(event.Type);
    } catch (const std::runtime_error&) {
        FUZZ_CHECK(!"an event of an unsupported type was delivered");
    }
    if (bits < 32) FUZZ_CHECK(static_cast<std::uint32_t>(event.Value) < (1U << bits));
}

bool isUnsupportedType(const std::string& text) {
    return text.rfind(Messages::UnsupportedTypePrefix, 0) == 0 &&
           text.size() > std::strlen(Messages::UnsupportedTypeSuffix) &&
           text.compare(text.size() - std::strlen(Messages::UnsupportedTypeSuffix), std::string::npos,
                        Messages::UnsupportedTypeSuffix) == 0;
}

// One TryRead without waiting into an array of exactly offset + count events.
void readOnce(TraceDecoder& decoder, RecordedBlocks& source, unsigned offset, unsigned count) {
    if (offset + count == 0) return;  // no array to read into (an empty vector's data() is null)
    std::vector<oltbTraceEvent> array(offset + count);
    std::memset(static_cast<void*>(array.data()), Untouched, sizeof(oltbTraceEvent) * array.size());
    const auto untouched = [&](unsigned slot) {
        const auto* bytes = reinterpret_cast<const unsigned char*>(&array[slot]);
        return std::all_of(bytes, bytes + sizeof(oltbTraceEvent), [](unsigned char b) { return b == Untouched; });
    };
    try {
        const unsigned delivered = decoder.TryRead(source, array.data(), offset, count, 0);
        FUZZ_CHECK(delivered <= count);
        for (unsigned i = 0; i < delivered; ++i) checkEvent(array[offset + i]);
        if (offset > 0) FUZZ_CHECK(untouched(offset - 1));
        if (delivered < count) FUZZ_CHECK(untouched(offset + delivered));
    } catch (const std::runtime_error& error) {
        FUZZ_CHECK(isUnsupportedType(error.what()));  // an unsupported word ends the call; reading goes on after it
    }
    FUZZ_CHECK(decoder.pendingCount() <= 32);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 20) return 0;
    const std::uint8_t* const lengths = data + 4;
    const bool oneBlock = std::all_of(lengths, lengths + 8, [](std::uint8_t l) { return l == 0; });
    std::vector<std::vector<std::byte>> blocks;
    for (std::size_t position = 20, i = 0; position < size; ++i) {
        const std::size_t length =
            oneBlock ? size - position
                     : std::min<std::size_t>(size - position, lengths[i % 8] << std::min((data[0] >> 2) & 7U, 6U));
        const auto* first = reinterpret_cast<const std::byte*>(data + position);
        blocks.emplace_back(first, first + length);
        position += length;
    }
    TraceDecoder decoder;
    RecordedBlocks source(std::move(blocks), decoder);
    const auto offset = [data](unsigned call) { return data[16 + call % 4] & 31U; };
    const auto count = [data](unsigned call) { return unsigned{data[12 + call % 4]}; };
    if ((data[0] & 3U) != 2) {
        // Every call with a count above 0 delivers a sample or uses up bytes; the bound only ends all-zero counts.
        for (unsigned call = 0; call < 8 * size + 64 && !source.usedUp(); ++call) {
            readOnce(decoder, source, offset(call), count(call));
        }
        return 0;
    }
    for (unsigned call = 0; call < (data[3] & 7U); ++call) readOnce(decoder, source, offset(call), count(call));
    source.endsWhenUsedUp = true;
    // After a failure the next acquisition goes on behind it; each uses up at least one word.
    for (unsigned acquisition = 0; acquisition < 16; ++acquisition) {
        try {
            for (const oltbTraceEvent& event : decoder.Acquire(source, data[1], data[2], 1)) {
                checkEvent(event);
                const auto number = static_cast<std::uint16_t>(event.Value);
                FUZZ_CHECK(event.Type != oltbEventLabel || (number != data[1] && number != data[2]));
            }
        } catch (const StreamUsedUp&) {
            return 0;
        } catch (const std::runtime_error& error) {
            const std::string text = error.what();
            if (text == Messages::NoConnection) return 0;
            FUZZ_CHECK(isUnsupportedType(text) || text == Messages::EndLabelBeforeStart ||
                       text == Messages::NothingReceived);
        }
        FUZZ_CHECK(decoder.pendingCount() <= 32);
    }
    return 0;
}
