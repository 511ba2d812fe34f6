// Trace words: widths per type, the field split, time bases and origin, the late flag, the stamp adjustment and the
// splitting into samples.
#include "tests/events/EventsTestSupport.h"

#include <gtest/gtest.h>

#include <tuple>

namespace OLVEN::TALIX3::TraceBuffer {
namespace {

using namespace oltb::testing;

TEST(TraceWords, WidthsOfTheTypesAndTheExactTextForUnsupportedOnes) {
    int supported = 0;
    for (int type = 0; type < 128; ++type) {
        const std::string failure =
            failureOf([&] { supported += TraceDecoder::getNumberOfBits(static_cast<oltbTraceEventType>(type)) > 0; });
        if (failure != "no failure") {
            EXPECT_EQ(failure, "TraceEventType " + std::to_string(type) + " not supported!");
        }
    }
    EXPECT_EQ(supported, 63);
    const std::pair<oltbTraceEventType, unsigned> widths[] = {
        {oltbEventPortA, 16},        {oltbEventPortDHigh, 8},    {oltbEventPortLaserIn, 2},
        {oltbEventPortLaserIn0, 1},  {oltbEventPortLaserOut, 4}, {oltbEventHead0TxX, 32},
        {oltbEventLaserPower1_4, 4}, {oltbEventQuadrature1B, 1}, {oltbEventControlEventChange, 32},
        {oltbEventLabel, 16}};
    for (const auto& [type, bits] : widths) EXPECT_EQ(TraceDecoder::getNumberOfBits(type), bits) << type;

    oltbTraceEvent event{};
    event.Time = 7.5;
    TraceDecoder::createPackedEvent(traceWord(oltbEventDac1, 0xABCDEF, 0xFFFFFFFE, true), event);
    EXPECT_EQ(std::make_tuple(event.Timestamp, event.Type, event.Overflow, event.Value, event.Time),
              std::make_tuple(std::uint64_t{0xABCDEF}, oltbEventDac1, true, -2, 7.5));
}

TEST(TraceWords, TimeBaseWordsSetBaseAndMoveAnEarlyOrigin) {
    TraceDecoder decoder;
    oltbTraceEvent event{};
    bool late = true;
    EXPECT_FALSE(decoder.processEvent(timeBaseWord(5), event, late));
    EXPECT_FALSE(late);
    EXPECT_EQ(decoder.timeBase(), 83886080U);
    EXPECT_EQ(decoder.firstTimestamp(), 67108864U);
    decoder.processEvent(timeBaseWord(6), event, late);
    EXPECT_EQ(decoder.previousTimeBase(), 83886080U);
    EXPECT_EQ(decoder.firstTimestamp(), 67108864U) << "an origin above 2^24 stays";

    TraceDecoder early;  // an origin taken before the first time-base word moves into the period before it
    ASSERT_TRUE(early.processEvent(traceWord(oltbEventSpi0Rx, 100, 1), event, late));
    early.processEvent(timeBaseWord(2), event, late);
    EXPECT_EQ(early.firstTimestamp(), 100U + Period);
}

TEST(TraceWords, LateFlagNeedsADropOfMoreThan32TicksAndTimesBeforeTheOriginAreNegative) {
    TraceDecoder decoder;
    oltbTraceEvent event{};
    bool late = true;
    decoder.processEvent(traceWord(oltbEventSpi1Rx, 1000, 0), event, late);
    EXPECT_EQ(event.Time, 0.0) << "the first event is the origin";
    decoder.processEvent(traceWord(oltbEventSpi1Rx, 968, 0), event, late);
    EXPECT_FALSE(late);
    decoder.processEvent(traceWord(oltbEventSpi1Rx, 1000, 0), event, late);
    decoder.processEvent(traceWord(oltbEventSpi1Rx, 967, 0), event, late);
    EXPECT_TRUE(late);
    EXPECT_EQ(event.Time, -33 / 64.0);
    decoder.processEvent(timeBaseWord(0), event, late);
    decoder.processEvent(traceWord(oltbEventSpi1Rx, 0, 0), event, late);
    EXPECT_FALSE(late) << "the first word after a time-base word is never late";
}

TEST(TraceWords, UnsupportedTypeFailsBeforeAnyStateChanges) {
    TraceDecoder decoder;
    oltbTraceEvent events[32]{};
    bool late = false;
    decoder.processEvent(timeBaseWord(4), events[0], late);
    decoder.processEvent(traceWord(oltbEventGate, 600, 0xF0000000), events[1], late);
    unsigned next = 0, end = 1;
    decoder.unpackEvents(events[1], events, next, end);
    ASSERT_EQ(decoder.pendingCount(), 1U);
    const auto state = [&] {
        return std::make_tuple(decoder.timeBase(), decoder.previousTimeBase(), decoder.lastRelativeTimestamp(),
                               decoder.firstTimestamp(), decoder.pendingCount());
    };
    const auto before = state();
    EXPECT_EQ(
        failureOf([&] { decoder.processEvent(traceWord(static_cast<oltbTraceEventType>(27), 9, 0), events[2], late); }),
        "TraceEventType 27 not supported!");
    events[2].Type = static_cast<oltbTraceEventType>(122);
    next = 0;
    EXPECT_EQ(failureOf([&] { decoder.unpackEvents(events[2], events, next, end); }),
              "TraceEventType 122 not supported!");
    EXPECT_EQ(state(), before);
    EXPECT_EQ(next, 0U);
}

TEST(TraceWords, WordsSplitIntoChangedSamplesWithOverflowOnTheFirstOnly) {
    struct Case {
        oltbTraceEventType type;
        std::uint32_t payload;
        std::vector<std::pair<std::uint64_t, std::int32_t>> samples;  // tick after the first, value
    };
    std::vector<std::pair<std::uint64_t, std::int32_t>> alternating;
    for (std::uint64_t i = 0; i < 32; ++i) alternating.emplace_back(i, i % 2 == 0 ? 1 : 0);
    const Case cases[] = {
        {oltbEventPortLaserIn0, 0xFFFFFFFF, {{0, 1}}},
        {oltbEventPortLaserIn0, 0xAAAAAAAA, alternating},
        {oltbEventFps, 0, {{0, 0}}},
        {oltbEventDac0, 0x12341234, {{0, 0x1234}}},
        {oltbEventDac0, 0x12345678, {{0, 0x1234}, {1, 0x5678}}},
        {oltbEventLabel, 0x00050007, {{0, 5}}},
        {oltbEventLaserPower8, 0x01010202, {{0, 1}, {2, 2}}},
        {oltbEventLaserPower4, 0x12345678, {{0, 1}, {1, 2}, {2, 3}, {3, 4}, {4, 5}, {5, 6}, {6, 7}, {7, 8}}},
        {oltbEventPortLaserIn, 0xC0000003, {{0, 3}, {1, 0}, {15, 3}}},
        {oltbEventHead1RxZ, 0xFFFFFFFF, {{0, -1}}}};
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.type << " payload 0x" << std::hex << c.payload);
        TraceDecoder decoder;
        oltbTraceEvent word{};
        oltbTraceEvent events[32]{};
        bool late = false;
        decoder.processEvent(timeBaseWord(3), word, late);  // origin 2 * 2^24
        decoder.processEvent(traceWord(c.type, 100, c.payload, true), word, late);
        const std::uint64_t first = 3 * Period + 100 + 32 - TraceDecoder::getNumberOfBits(c.type);
        EXPECT_EQ(word.Timestamp, first);
        EXPECT_EQ(word.Time, static_cast<double>(first - 2 * Period) / 64.0);
        EXPECT_EQ(decoder.lastRelativeTimestamp(), first - 3 * Period);
        unsigned next = 0, end = 32;
        ASSERT_EQ(decoder.unpackEvents(word, events, next, end), c.samples.size());
        ASSERT_EQ(next, c.samples.size());
        for (std::size_t i = 0; i < c.samples.size(); ++i) {
            EXPECT_EQ(events[i].Timestamp, first + c.samples[i].first);
            EXPECT_EQ(events[i].Time, word.Time + static_cast<double>(c.samples[i].first) / 64.0);
            EXPECT_EQ(events[i].Value, c.samples[i].second);
            EXPECT_EQ(events[i].Type, c.type);
            EXPECT_EQ(events[i].Overflow, i == 0);
        }
    }
}

TEST(TraceWords, SamplesBeyondTheEndGoToThePendingStoreInOrder) {
    TraceDecoder decoder;
    oltbTraceEvent word{};
    oltbTraceEvent events[10]{};
    bool late = false;
    decoder.processEvent(traceWord(oltbEventQuadrature0A, 7, 0xAAAAAAAA), word, late);
    unsigned next = 0, end = 10;
    EXPECT_EQ(decoder.unpackEvents(word, events, next, end), 10U);
    ASSERT_EQ(decoder.pendingCount(), 22U);
    for (unsigned i = 0; i < 22; ++i) {
        EXPECT_EQ(decoder.pendingEvents()[i].Timestamp, word.Timestamp + 10 + i);
        EXPECT_EQ(decoder.pendingEvents()[i].Value, static_cast<std::int32_t>(i % 2 == 0 ? 1 : 0));
    }
}

}  // namespace
}  // namespace OLVEN::TALIX3::TraceBuffer
