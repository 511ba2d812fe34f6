// Trace words: widths per type, the field split, time bases and origin, late flag, the stamp adjustment and
// splitting into samples.
#include "EventsTestSupport.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <tuple>

namespace OLVEN::TALIX3::TraceBuffer {
namespace {

using namespace Testing;

constexpr std::uint64_t Period = std::uint64_t{1} << 24;

std::string failureOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "no failure";
}

TEST(TraceWords, WidthsOfTheTypesAndTheExactTextForUnsupportedOnes) {
    int supported = 0;
    for (int type = 0; type < 128; ++type) {
        try {
            const unsigned bits = TraceDecoder::getNumberOfBits(static_cast<oltbTraceEventType>(type));
            EXPECT_TRUE(bits == 1 || bits == 2 || bits == 4 || bits == 8 || bits == 16 || bits == 32) << type;
            ++supported;
        } catch (const std::runtime_error& error) {
            EXPECT_EQ(error.what(), "TraceEventType " + std::to_string(type) + " not supported!");
        }
    }
    EXPECT_EQ(supported, 63);
    const std::pair<oltbTraceEventType, unsigned> widths[] = {
        {oltbEventPortA, 16}, {oltbEventPortDHigh, 8}, {oltbEventPortLaserIn, 2}, {oltbEventPortLaserIn0, 1},
        {oltbEventPortLaserOut, 4}, {oltbEventHead0TxX, 32}, {oltbEventLaserPower1_4, 4},
        {oltbEventQuadrature1B, 1}, {oltbEventControlEventChange, 32}, {oltbEventLabel, 16}};
    for (const auto& [type, bits] : widths) EXPECT_EQ(TraceDecoder::getNumberOfBits(type), bits) << type;
    EXPECT_EQ(failureOf([] { TraceDecoder::getNumberOfBits(static_cast<oltbTraceEventType>(200)); }),
              "TraceEventType 200 not supported!");
}

TEST(TraceWords, FieldSplitLeavesTimeAlone) {
    oltbTraceEvent event{};
    event.Time = 7.5;
    TraceDecoder::createPackedEvent(traceWord(oltbEventDac1, 0xABCDEF, 0xFFFFFFFE, true), event);
    EXPECT_EQ(event.Timestamp, 0xABCDEFu);
    EXPECT_EQ(event.Type, oltbEventDac1);
    EXPECT_TRUE(event.Overflow);
    EXPECT_EQ(event.Value, -2);
    EXPECT_EQ(event.Time, 7.5);
}

TEST(TraceWords, TimeBaseWordsSetBaseAndMoveAnEarlyOrigin) {
    TraceDecoder decoder;
    oltbTraceEvent event{};
    bool late = true;
    EXPECT_FALSE(decoder.processEvent(timeBaseWord(5), event, late));
    EXPECT_FALSE(late);
    EXPECT_EQ(decoder.timeBase(), 83886080u);
    EXPECT_EQ(decoder.firstTimestamp(), 67108864u);
    EXPECT_FALSE(decoder.processEvent(timeBaseWord(6), event, late));
    EXPECT_EQ(decoder.previousTimeBase(), 83886080u);
    EXPECT_EQ(decoder.firstTimestamp(), 67108864u);  // a set origin above 2^24 stays

    TraceDecoder early;  // origin taken before the first time-base word moves into the period before it
    ASSERT_TRUE(early.processEvent(traceWord(oltbEventSpi0Rx, 100, 1), event, late));
    EXPECT_EQ(early.firstTimestamp(), 100u);
    early.processEvent(timeBaseWord(2), event, late);
    EXPECT_EQ(early.firstTimestamp(), 100u + Period);
}

TEST(TraceWords, LateFlagNeedsADropOfMoreThan32TicksAndTimesBeforeTheOriginAreNegative) {
    TraceDecoder decoder;
    oltbTraceEvent event{};
    bool late = true;
    decoder.processEvent(traceWord(oltbEventSpi1Rx, 1000, 0), event, late);
    EXPECT_EQ(event.Time, 0.0);  // the first event is the origin
    decoder.processEvent(traceWord(oltbEventSpi1Rx, 968, 0), event, late);
    EXPECT_FALSE(late);
    decoder.processEvent(traceWord(oltbEventSpi1Rx, 1000, 0), event, late);
    decoder.processEvent(traceWord(oltbEventSpi1Rx, 967, 0), event, late);
    EXPECT_TRUE(late);
    EXPECT_EQ(event.Time, -33 / 64.0);
    decoder.processEvent(timeBaseWord(0), event, late);
    decoder.processEvent(traceWord(oltbEventSpi1Rx, 0, 0), event, late);
    EXPECT_FALSE(late);  // the first word after a time-base word is never late
}

TEST(TraceWords, UnsupportedTypeFailsBeforeAnyStateChanges) {
    TraceDecoder decoder;
    oltbTraceEvent events[32]{};
    bool late = false;
    decoder.processEvent(timeBaseWord(4), events[0], late);
    decoder.processEvent(traceWord(oltbEventDac0, 500, 0), events[0], late);
    unsigned next = 0, end = 1;
    decoder.unpackEvents(events[0], events, next, end);
    decoder.processEvent(traceWord(oltbEventGate, 600, 0xF0000000), events[1], late);
    next = 0;
    decoder.unpackEvents(events[1], events, next, end);
    ASSERT_EQ(decoder.pendingCount(), 1u);
    const auto before = std::make_tuple(decoder.timeBase(), decoder.previousTimeBase(),
                                        decoder.lastRelativeTimestamp(), decoder.firstTimestamp());

    EXPECT_EQ(failureOf([&] { decoder.processEvent(traceWord(static_cast<oltbTraceEventType>(27), 9, 0), events[2], late); }),
              "TraceEventType 27 not supported!");
    events[2].Type = static_cast<oltbTraceEventType>(122);
    next = 0;
    EXPECT_EQ(failureOf([&] { decoder.unpackEvents(events[2], events, next, end); }), "TraceEventType 122 not supported!");
    EXPECT_EQ(before, std::make_tuple(decoder.timeBase(), decoder.previousTimeBase(), decoder.lastRelativeTimestamp(),
                                      decoder.firstTimestamp()));
    EXPECT_EQ(decoder.pendingCount(), 1u);
    EXPECT_EQ(next, 0u);
}

struct UnpackCase {
    oltbTraceEventType type;
    std::uint32_t payload;
    std::vector<std::pair<std::uint64_t, std::int32_t>> samples;  // tick offset from the first, value
};

TEST(TraceWords, WordsSplitIntoChangedSamplesWithOverflowOnTheFirstOnly) {
    std::vector<std::pair<std::uint64_t, std::int32_t>> alternating;
    for (std::uint64_t i = 0; i < 32; ++i) alternating.emplace_back(i, i % 2 == 0 ? 1 : 0);
    const UnpackCase cases[] = {
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
    for (const UnpackCase& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.type << " payload 0x" << std::hex << c.payload);
        TraceDecoder decoder;
        oltbTraceEvent word{};
        oltbTraceEvent events[32]{};
        bool late = false;
        decoder.processEvent(timeBaseWord(3), word, late);  // origin 2 * 2^24
        decoder.processEvent(traceWord(c.type, 100, c.payload, true), word, late);
        const std::uint64_t first = 3 * Period + 100 + 32 - TraceDecoder::getNumberOfBits(c.type);
        EXPECT_EQ(word.Timestamp, first);  // e.g. 1-bit words: stamp + 31 + time base
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
    EXPECT_EQ(decoder.unpackEvents(word, events, next, end), 10u);
    ASSERT_EQ(decoder.pendingCount(), 22u);
    for (unsigned i = 0; i < 22; ++i) {
        EXPECT_EQ(decoder.pendingEvents()[i].Timestamp, word.Timestamp + 10 + i);
        EXPECT_EQ(decoder.pendingEvents()[i].Value, static_cast<std::int32_t>(i % 2 == 0 ? 1 : 0));
    }
}

}  // namespace
}  // namespace OLVEN::TALIX3::TraceBuffer
