// Acquisition: the label window with its end margin, the label rules (end before start, equal numbers, a repeated
// start label, the end label closing a full batch) and the polling of a call without timeout.
#include "tests/events/EventsTestSupport.h"

#include <gtest/gtest.h>

#include <tuple>

namespace OLVEN::TALIX3::TraceBuffer {
namespace {

using namespace oltb::testing;

// Label words are 16-bit words: their stamp is adjusted by 16 ticks.
std::uint64_t labelAt(std::uint32_t tick, std::uint32_t number) {
    return traceWord(oltbEventLabel, tick - 16, number << 16);
}
std::uint64_t valueAt(std::uint32_t tick, std::uint32_t value) { return traceWord(oltbEventSpi0Rx, tick, value); }

TEST(Acquisition, EventsBetweenTheLabelsWithTheEndMarginTimedFromTheStartLabel) {
    TraceDecoder decoder;
    FakeBlockSource source;
    // Before the start label, three events, a foreign label, the end label, then +0.5 us, +1.5 us and later.
    source.blocks.push_back(
        bytesOf({valueAt(100, 1), labelAt(1000, 1), valueAt(1064, 10), valueAt(1128, 11), labelAt(1150, 9),
                 valueAt(1192, 12), labelAt(2000, 2), valueAt(2032, 13), valueAt(2096, 14), valueAt(2100, 15)}));
    std::vector<std::tuple<int, int, double>> got;
    for (const oltbTraceEvent& e : decoder.Acquire(source, 1, 2, 1000)) got.emplace_back(e.Type, e.Value, e.Time);
    const std::vector<std::tuple<int, int, double>> expected = {{oltbEventSpi0Rx, 10, 1.0},
                                                                {oltbEventSpi0Rx, 11, 2.0},
                                                                {oltbEventLabel, 9, 150 / 64.0},
                                                                {oltbEventSpi0Rx, 12, 3.0},
                                                                {oltbEventSpi0Rx, 13, 1032 / 64.0}};
    EXPECT_EQ(got, expected);

    source.blocks.push_back(bytesOf({labelAt(3000, 2), labelAt(3100, 1), valueAt(3200, 1), labelAt(3300, 2)}));
    EXPECT_EQ(failureOf([&] { decoder.Acquire(source, 1, 2, 1000); }), "Expected start label but got end label!");
}

TEST(Acquisition, EqualLabelNumbersNeverEndAndARepeatedStartLabelMovesTheStart) {
    {  // every label of an equal number starts again, none ends: a silent stream then times out
        TraceDecoder decoder;
        FakeBlockSource source;
        source.blocks.push_back(bytesOf({labelAt(100, 3), valueAt(120, 1), labelAt(200, 3), valueAt(220, 2)}));
        EXPECT_EQ(failureOf([&] { decoder.Acquire(source, 3, 3, 20); }),
                  "Nothing received from trace buffer server within the specified timeout");
    }
    TraceDecoder decoder;
    FakeBlockSource source;
    source.blocks.push_back(
        bytesOf({labelAt(100, 1), valueAt(120, 1), labelAt(200, 1), valueAt(220, 2), labelAt(300, 2)}));
    const auto result = decoder.Acquire(source, 1, 2, 0);
    ASSERT_EQ(result.size(), 2U);
    EXPECT_EQ(result[0].Time, 20 / 64.0);
    EXPECT_EQ(result[1].Time, 20 / 64.0);
}

TEST(Acquisition, EndLabelLastInAFullBatchEndsAtOnce) {
    std::vector<std::uint64_t> words = {labelAt(100, 1)};
    for (std::uint32_t i = 0; i < TraceDecoder::_AcquireBatchSize - 2; ++i) words.push_back(valueAt(200 + i, i));
    words.push_back(labelAt(5000, 2));
    words.push_back(valueAt(5010, 77));  // within the margin, but in the next batch
    TraceDecoder decoder;
    FakeBlockSource source;
    source.blocks.push_back(bytesOf(words));
    EXPECT_EQ(decoder.Acquire(source, 1, 2, 1000).size(), TraceDecoder::_AcquireBatchSize - 2);
    oltbTraceEvent rest{};
    ASSERT_EQ(decoder.TryRead(source, &rest, 0, 1, 0), 1U);
    EXPECT_EQ(rest.Value, 77);
}

TEST(Acquisition, AnEventOfTheNextBatchThatBelongsBeforeTheLastIsSortedIn) {
    std::vector<std::uint64_t> words = {labelAt(100, 1)};
    for (std::uint32_t i = 0; i + 1 < TraceDecoder::_AcquireBatchSize; ++i) words.push_back(valueAt(200 + 2 * i, i));
    const std::uint32_t lastTick = 200 + 2 * (TraceDecoder::_AcquireBatchSize - 2);
    words.push_back(valueAt(lastTick - 1, 99999));  // the first event of the second batch, a tick early
    words.push_back(labelAt(lastTick + 100, 2));
    TraceDecoder decoder;
    FakeBlockSource source;
    source.blocks.push_back(bytesOf(words));
    const auto result = decoder.Acquire(source, 1, 2, 20);
    ASSERT_EQ(result.size(), TraceDecoder::_AcquireBatchSize);
    EXPECT_EQ(result[result.size() - 2].Value, 99999);
    EXPECT_EQ(result.back().Timestamp, lastTick);
}

TEST(Acquisition, WithoutTimeoutPollsUntilDataOrALostConnection) {
    {
        TraceDecoder decoder;
        FakeBlockSource source;
        source.beforeWait = [](FakeBlockSource& s) {
            if (s.waitsUs.size() == 5) s.blocks.push_back(bytesOf({labelAt(100, 1), valueAt(110, 1), labelAt(120, 2)}));
        };
        EXPECT_EQ(decoder.Acquire(source, 1, 2, 0).size(), 1U);
        EXPECT_EQ(source.waitsUs, std::vector<std::int64_t>(source.waitsUs.size(), 0));
    }
    TraceDecoder decoder;
    FakeBlockSource source;
    source.beforeWait = [](FakeBlockSource& s) { s.connected = s.waitsUs.size() < 3; };
    EXPECT_EQ(failureOf([&] { decoder.Acquire(source, 1, 2, 0); }),
              "No connection to trace buffer server established.");
    EXPECT_EQ(source.waitsUs.size(), 3U);
}

}  // namespace
}  // namespace OLVEN::TALIX3::TraceBuffer
