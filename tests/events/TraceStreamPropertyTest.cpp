// A long generated stream of mixed widths, with a time-base word at every 2^24 ticks, cut into random blocks
// and read with random buffer sizes: every event arrives exactly once with its stamp, time and value.
#include "EventsTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <tuple>

namespace OLVEN::TALIX3::TraceBuffer {
namespace {

using namespace Testing;

struct GeneratedStream {
    std::vector<std::byte> bytes;
    std::vector<oltbTraceEvent> expected;  // in stream order
};

// `spaced`: every word starts after the last possible sample of the one before, so the stream is in time order
// as it comes. Otherwise words only keep their stamps from going backwards and their samples overlap.
GeneratedStream generateStream(std::mt19937_64& random, std::size_t wordCount, bool spaced) {
    const oltbTraceEventType types[] = {oltbEventSpi0Rx, oltbEventHead1TxY, oltbEventDac0, oltbEventPortA,
                                        oltbEventPortDHigh, oltbEventLaserPower4, oltbEventPortLaserIn,
                                        oltbEventGate, oltbEventQuadrature0A, oltbEventLabel};
    auto below = [&random](std::uint64_t limit) { return random() % limit; };
    std::vector<std::uint64_t> words;
    GeneratedStream stream;
    // Absolute stamp before the width adjustment. The stream opens with a time-base word (period 1), so the first
    // event becomes the time origin and later time-base words leave it alone.
    std::uint64_t stamp = (std::uint64_t{1} << 24) + 1000;
    std::uint64_t period = 0;
    std::uint64_t nextFree = 0;
    std::uint64_t origin = 0;
    for (std::size_t k = 0; k < wordCount; ++k) {
        const oltbTraceEventType type = types[below(std::size(types))];
        const unsigned bits = TraceDecoder::getNumberOfBits(type);
        const std::uint64_t adjustment = 32 - bits;
        stamp += below(600);
        if (spaced && stamp + adjustment < nextFree) stamp = nextFree - adjustment;
        if (stamp >> 24 != period) {
            period = stamp >> 24;
            words.push_back(timeBaseWord(static_cast<std::uint32_t>(period)));
        }
        std::uint32_t payload = static_cast<std::uint32_t>(random());
        if (bits < 32 && below(2) == 0) {  // mostly steady samples with a few changes
            payload = below(2) == 0 ? 0u : ~0u;
            for (unsigned flips = static_cast<unsigned>(below(4)); flips > 0; --flips) payload ^= ~0u >> below(32);
        }
        const bool overflow = below(16) == 0;
        words.push_back(traceWord(type, static_cast<std::uint32_t>(stamp), payload, overflow));

        const std::uint64_t first = stamp + adjustment;
        if (origin == 0) origin = first;
        const unsigned samples = type == oltbEventLabel ? 1 : 32 / bits;
        std::uint32_t previous = 0;
        for (unsigned i = 0; i < samples; ++i) {
            const std::uint32_t value =
                bits == 32 ? payload : (payload >> (32 - bits * (i + 1))) & ((1u << bits) - 1);
            if (i == 0 || value != previous) {
                const double time = static_cast<double>(static_cast<std::int64_t>(first + i - origin)) / 64;
                stream.expected.push_back(
                    {first + i, time, type, overflow && i == 0, static_cast<std::int32_t>(value)});
            }
            previous = value;
        }
        nextFree = first + (bits == 32 ? 1 : 32);
    }
    stream.bytes = bytesOf(words);
    return stream;
}

std::vector<oltbTraceEvent> readInRandomPieces(const GeneratedStream& stream, std::mt19937_64& random) {
    FakeBlockSource source;
    for (std::size_t position = 0; position < stream.bytes.size();) {
        const std::size_t limit = random() % 4 == 0 ? 16 : 16384;
        const std::size_t size = std::min<std::size_t>(1 + random() % limit, stream.bytes.size() - position);
        source.blocks.emplace_back(stream.bytes.begin() + position, stream.bytes.begin() + position + size);
        position += size;
    }
    TraceDecoder decoder;
    std::vector<oltbTraceEvent> delivered;
    std::vector<oltbTraceEvent> buffer(5000);
    const std::size_t callLimit = stream.expected.size() + source.blocks.size() + 10;
    for (std::size_t call = 0; call < callLimit; ++call) {
        const unsigned count = static_cast<unsigned>(random() % 3 == 0 ? 1 + random() % 40 : 1 + random() % 5000);
        const unsigned n = decoder.TryRead(source, buffer.data(), 0, count, 0);
        EXPECT_LE(n, count);
        delivered.insert(delivered.end(), buffer.begin(), buffer.begin() + n);
        if (n == 0 && source.blocks.empty() && decoder.pendingCount() == 0 && !decoder.hasUndecodedBytes()) break;
    }
    return delivered;
}

auto keyOf(const oltbTraceEvent& e) { return std::make_tuple(e.Timestamp, e.Type, e.Value, e.Overflow, e.Time); }

TEST(TraceStreamProperty, EveryEventArrivesOnceInTimeOrderWhateverTheCuts) {
    for (std::uint64_t seed : {1u, 2u, 3u}) {
        SCOPED_TRACE(seed);
        std::mt19937_64 random(seed);
        const GeneratedStream stream = generateStream(random, 200000, true);
        ASSERT_GT(stream.expected.back().Timestamp, 3u << 24);
        const std::vector<oltbTraceEvent> delivered = readInRandomPieces(stream, random);
        ASSERT_EQ(delivered.size(), stream.expected.size());
        for (std::size_t i = 0; i < delivered.size(); ++i) {
            ASSERT_EQ(keyOf(delivered[i]), keyOf(stream.expected[i])) << "event " << i;
        }
    }
}

TEST(TraceStreamProperty, OverlappingWordsLoseAndDuplicateNothing) {
    for (std::uint64_t seed : {4u, 5u}) {
        SCOPED_TRACE(seed);
        std::mt19937_64 random(seed);
        GeneratedStream stream = generateStream(random, 60000, false);
        std::vector<oltbTraceEvent> delivered = readInRandomPieces(stream, random);
        const auto byKey = [](const oltbTraceEvent& a, const oltbTraceEvent& b) { return keyOf(a) < keyOf(b); };
        std::sort(delivered.begin(), delivered.end(), byKey);
        std::sort(stream.expected.begin(), stream.expected.end(), byKey);
        ASSERT_EQ(delivered.size(), stream.expected.size());
        for (std::size_t i = 0; i < delivered.size(); ++i) {
            ASSERT_EQ(keyOf(delivered[i]), keyOf(stream.expected[i])) << "event " << i;
        }
    }
}

}  // namespace
}  // namespace OLVEN::TALIX3::TraceBuffer
