// Reading: words cut across blocks, pending samples, the wait rules, late correction and failures mid-block.
#include "EventsTestSupport.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace OLVEN::TALIX3::TraceBuffer {
namespace {

using namespace Testing;

constexpr std::uint32_t Period = 1u << 24;

std::vector<oltbTraceEvent> readAll(TraceDecoder& decoder, FakeBlockSource& source, unsigned count) {
    std::vector<oltbTraceEvent> all;
    std::vector<oltbTraceEvent> buffer(count);
    for (int call = 0; call < 1000; ++call) {
        const unsigned n = decoder.TryRead(source, buffer.data(), 0, count, 0);
        if (n == 0) break;
        all.insert(all.end(), buffer.begin(), buffer.begin() + n);
    }
    return all;
}

bool sameEvents(const std::vector<oltbTraceEvent>& a, const std::vector<oltbTraceEvent>& b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (a[i].Timestamp != b[i].Timestamp || a[i].Time != b[i].Time || a[i].Type != b[i].Type ||
            a[i].Overflow != b[i].Overflow || a[i].Value != b[i].Value) {
            return false;
        }
    }
    return true;
}

TEST(TraceReading, WordsCutAnywhereDecodeAsInOneBlock) {
    const std::vector<std::byte> stream = bytesOf({traceWord(oltbEventDac0, 10, 0x00010002, true), timeBaseWord(1),
                                                   traceWord(oltbEventGate, 20, 0xF0F0F0F0),
                                                   traceWord(oltbEventSpi2Rx, 90, 0xDEADBEEF)});
    TraceDecoder whole;
    FakeBlockSource wholeSource;
    wholeSource.blocks.push_back(stream);
    const std::vector<oltbTraceEvent> expected = readAll(whole, wholeSource, 64);
    ASSERT_EQ(expected.size(), 11u);

    const std::vector<std::vector<std::size_t>> cuts = {
        {3}, {7}, {2, 2}, {1, 1, 1, 1, 1, 1, 1, 1, 1}, {8, 3, 5}, {15, 1, 2}, {9, 14, 2}, {31}};
    for (const auto& sizes : cuts) {
        for (unsigned count : {1u, 3u, 64u}) {
            SCOPED_TRACE(::testing::Message() << "first cut " << sizes[0] << ", buffer " << count);
            TraceDecoder decoder;
            FakeBlockSource source;
            source.blocks = cutInto(stream, sizes);
            EXPECT_TRUE(sameEvents(readAll(decoder, source, count), expected));
        }
    }
}

TEST(TraceReading, SamplesThatDidNotFitComeFirstInTheNextCall) {
    TraceDecoder decoder;
    FakeBlockSource source;
    source.blocks.push_back(
        bytesOf({traceWord(oltbEventPortLaserIn1, 0, 0xAAAAAAAA), traceWord(oltbEventSpi0Rx, 200, 9)}));
    oltbTraceEvent events[40]{};
    ASSERT_EQ(decoder.TryRead(source, events, 0, 10, 1000), 10u);
    EXPECT_EQ(decoder.TryRead(source, events, 0, 0, 1000), 0u);  // no room: returns at once, keeps them
    EXPECT_EQ(decoder.pendingCount(), 22u);
    ASSERT_EQ(decoder.TryRead(source, events, 5, 35, 0), 23u);
    for (unsigned i = 0; i < 22; ++i) {
        EXPECT_EQ(events[5 + i].Timestamp, 31u + 10 + i);
        EXPECT_EQ(events[5 + i].Value, static_cast<std::int32_t>(i % 2 == 0 ? 1 : 0));
    }
    EXPECT_EQ(events[27].Value, 9);
}

TEST(TraceReading, WaitRules) {
    oltbTraceEvent events[8]{};
    {  // 0 never waits; Read then reports nothing without failing
        TraceDecoder decoder;
        FakeBlockSource source;
        EXPECT_EQ(decoder.TryRead(source, events, 0, 8, 0), 0u);
        EXPECT_EQ(decoder.Read(source, events, 0, 8, 0), 0u);
        EXPECT_EQ(source.waitsUs, (std::vector<std::int64_t>{0, 0}));
    }
    {  // a silent stream makes Read fail after the timeout; count 0 fails likewise without waiting
        TraceDecoder decoder;
        FakeBlockSource source;
        EXPECT_THROW(
            try { decoder.Read(source, events, 0, 8, 20); } catch (const std::runtime_error& e) {
                EXPECT_STREQ(e.what(), "Nothing received from trace buffer server within the specified timeout");
                throw;
            },
            std::runtime_error);
        EXPECT_EQ(source.waitsUs.front(), 20000);
        source.waitsUs.clear();
        EXPECT_THROW(decoder.Read(source, events, 0, 0, 20), std::runtime_error);
        EXPECT_TRUE(source.waitsUs.empty());
    }
    {  // a block of only a time-base word delivers nothing, so the call waits on for the rest of the timeout
        TraceDecoder decoder;
        FakeBlockSource source;
        source.blocks.push_back(bytesOf({timeBaseWord(2)}));
        source.beforeWait = [](FakeBlockSource& s) {
            if (s.waitsUs.size() == 2) s.blocks.push_back(bytesOf({traceWord(oltbEventSpi0Rx, 5, 1)}));
        };
        ASSERT_EQ(decoder.TryRead(source, events, 0, 8, 1000), 1u);
        EXPECT_EQ(events[0].Timestamp, 2u * Period + 5);
        ASSERT_EQ(source.waitsUs.size(), 3u);  // once something is decoded, only queued blocks are taken
        EXPECT_EQ(source.waitsUs[0], 1000000);
        EXPECT_GT(source.waitsUs[1], 0);
        EXPECT_LE(source.waitsUs[1], 1000000);
        EXPECT_EQ(source.waitsUs[2], 0);
    }
    {  // negative waits without limit
        TraceDecoder decoder;
        FakeBlockSource source;
        source.blocks.push_back(bytesOf({traceWord(oltbEventSpi0Rx, 5, 1)}));
        EXPECT_EQ(decoder.TryRead(source, events, 0, 8, -1), 1u);
        EXPECT_LT(source.waitsUs.front(), 0);
    }
}

TEST(TraceReading, ConnectionAndBufferChecks) {
    TraceDecoder decoder;
    FakeBlockSource source;
    source.blocks.push_back(bytesOf({traceWord(oltbEventSpi0Rx, 5, 1)}));
    oltbTraceEvent events[1]{};
    EXPECT_THROW(
        try { decoder.TryRead(source, nullptr, 0, 1, 0); } catch (const std::runtime_error& e) {
            EXPECT_STREQ(e.what(), "buffer may not be null");
            throw;
        },
        std::runtime_error);
    source.connected = false;
    for (oltbTraceEvent* buffer : {events, static_cast<oltbTraceEvent*>(nullptr)}) {
        try {
            decoder.Read(source, buffer, 0, 1, 0);
            ADD_FAILURE() << "read on a lost connection";
        } catch (const std::runtime_error& e) {
            EXPECT_STREQ(e.what(), "No connection to trace buffer server established.");
        }
    }
    EXPECT_EQ(source.blocks.size(), 1u);
}

TEST(TraceReading, LateEventsOfThisCallMoveBackAPeriod) {
    const std::vector<std::byte> stream =
        bytesOf({timeBaseWord(1), timeBaseWord(2), traceWord(oltbEventSpi0Rx, 16777200, 1),
                 traceWord(oltbEventSpi0Rx, 16, 2)});
    {
        TraceDecoder decoder;
        FakeBlockSource source;
        source.blocks.push_back(stream);
        oltbTraceEvent events[2]{};
        ASSERT_EQ(decoder.TryRead(source, events, 0, 2, 0), 2u);
        EXPECT_EQ(events[0].Timestamp, 33554416u);
        EXPECT_EQ(events[0].Time, (33554416.0 - Period) / 64);
        EXPECT_EQ(events[1].Timestamp, 33554448u);
    }
    {  // delivered by an earlier call: stays where it was
        TraceDecoder decoder;
        FakeBlockSource source;
        source.blocks.push_back(stream);
        oltbTraceEvent events[2]{};
        ASSERT_EQ(decoder.TryRead(source, events, 0, 1, 0), 1u);
        ASSERT_EQ(decoder.TryRead(source, events, 1, 1, 0), 1u);
        EXPECT_EQ(events[0].Timestamp, 50331632u);
        EXPECT_EQ(events[1].Timestamp, 33554448u);
    }
}

TEST(TraceReading, OutOfOrderWordsOfOneBlockAreSorted) {
    TraceDecoder decoder;
    FakeBlockSource source;
    source.blocks.push_back(bytesOf({traceWord(oltbEventGate, 100, 0x0000FFFF), traceWord(oltbEventSpi0Rx, 140, 7)}));
    oltbTraceEvent events[3]{};
    ASSERT_EQ(decoder.TryRead(source, events, 0, 3, 0), 3u);
    EXPECT_EQ(events[0].Timestamp, 131u);
    EXPECT_EQ(events[1].Timestamp, 140u);
    EXPECT_EQ(events[2].Timestamp, 147u);
}

TEST(TraceReading, UnsupportedWordIsConsumedAndReadingContinuesAfterIt) {
    TraceDecoder decoder;
    FakeBlockSource source;
    const auto bad = static_cast<oltbTraceEventType>(27);
    std::vector<std::byte> stream = bytesOf({traceWord(oltbEventSpi0Rx, 1, 1), traceWord(bad, 2, 0),
                                             traceWord(oltbEventSpi0Rx, 3, 3), traceWord(bad, 4, 0),
                                             traceWord(oltbEventSpi0Rx, 5, 5)});
    source.blocks = cutInto(stream, {20, 8});  // both the third and the fourth word straddle a cut
    oltbTraceEvent event{};
    for (int expectedValue : {1, 0, 3, 0, 5}) {
        if (expectedValue == 0) {
            try {
                decoder.TryRead(source, &event, 0, 1, 0);
                ADD_FAILURE() << "unsupported word accepted";
            } catch (const std::runtime_error& e) {
                EXPECT_STREQ(e.what(), "TraceEventType 27 not supported!");
            }
        } else {
            ASSERT_EQ(decoder.TryRead(source, &event, 0, 1, 0), 1u);
            EXPECT_EQ(event.Value, expectedValue);
        }
    }
}

TEST(TraceReading, UsedUpBlocksAreHandedBackAndClearKeepsOnlyTheOrigin) {
    TraceDecoder decoder;
    FakeBlockSource source;
    std::vector<std::byte> stream = bytesOf({timeBaseWord(3), traceWord(oltbEventSpi0Rx, 5, 1)});
    stream.resize(12);  // the second word's first half only
    source.blocks = cutInto(stream, {8});
    oltbTraceEvent events[4]{};
    EXPECT_EQ(decoder.TryRead(source, events, 0, 4, 0), 0u);
    EXPECT_EQ(source.recycledBlocks, 1u);
    decoder.clear();
    EXPECT_EQ(decoder.timeBase(), 0u);
    EXPECT_EQ(decoder.firstTimestamp(), 2u * Period);
    source.blocks.push_back(bytesOf({traceWord(oltbEventSpi0Rx, 9, 1)}));  // the carried half is gone
    ASSERT_EQ(decoder.TryRead(source, events, 0, 4, 0), 1u);
    EXPECT_EQ(events[0].Timestamp, 9u);
}

}  // namespace
}  // namespace OLVEN::TALIX3::TraceBuffer
