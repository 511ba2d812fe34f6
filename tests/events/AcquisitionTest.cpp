// Acquisition: label rules only the decoder sees (equal numbers, a repeated start label, the end label closing a
// full batch) and the polling of a call without timeout.
#include "EventsTestSupport.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace OLVEN::TALIX3::TraceBuffer {
namespace {

using namespace Testing;

// Label words are 16-bit words: their stamp is adjusted by 16 ticks.
std::uint64_t labelAt(std::uint32_t tick, std::uint32_t number) { return traceWord(oltbEventLabel, tick - 16, number << 16); }
std::uint64_t valueAt(std::uint32_t tick, std::uint32_t value) { return traceWord(oltbEventSpi0Rx, tick, value); }

std::string acquireFailure(TraceDecoder& decoder, FakeBlockSource& source, unsigned short start, unsigned short end,
                           int timeoutMs) {
    try {
        decoder.Acquire(source, start, end, timeoutMs);
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "no failure";
}

TEST(Acquisition, EqualLabelNumbersNeverEndAndARepeatedStartLabelMovesTheStart) {
    {  // every label of an equal number starts again, none ends: a silent stream then times out
        TraceDecoder decoder;
        FakeBlockSource source;
        source.blocks.push_back(bytesOf({labelAt(100, 3), valueAt(120, 1), labelAt(200, 3), valueAt(220, 2)}));
        EXPECT_EQ(acquireFailure(decoder, source, 3, 3, 20),
                  "Nothing received from trace buffer server within the specified timeout");
    }
    TraceDecoder decoder;
    FakeBlockSource source;
    source.blocks.push_back(
        bytesOf({labelAt(100, 1), valueAt(120, 1), labelAt(200, 1), valueAt(220, 2), labelAt(300, 2)}));
    const std::vector<oltbTraceEvent> result = decoder.Acquire(source, 1, 2, 0);
    ASSERT_EQ(result.size(), 2u);
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
    ASSERT_EQ(decoder.TryRead(source, &rest, 0, 1, 0), 1u);
    EXPECT_EQ(rest.Value, 77);
}

TEST(Acquisition, WithoutTimeoutPollsUntilDataOrALostConnection) {
    {
        TraceDecoder decoder;
        FakeBlockSource source;
        source.beforeWait = [](FakeBlockSource& s) {
            if (s.waitsUs.size() == 5) s.blocks.push_back(bytesOf({labelAt(100, 1), valueAt(110, 1), labelAt(120, 2)}));
        };
        EXPECT_EQ(decoder.Acquire(source, 1, 2, 0).size(), 1u);
        EXPECT_EQ(source.waitsUs, std::vector<std::int64_t>(source.waitsUs.size(), 0));
    }
    TraceDecoder decoder;
    FakeBlockSource source;
    source.beforeWait = [](FakeBlockSource& s) { s.connected = s.waitsUs.size() < 3; };
    EXPECT_EQ(acquireFailure(decoder, source, 1, 2, 0), "No connection to trace buffer server established.");
    EXPECT_EQ(source.waitsUs.size(), 3u);
    EXPECT_EQ(acquireFailure(decoder, source, 1, 2, 0), "No connection to trace buffer server established.");
    EXPECT_EQ(source.waitsUs.size(), 3u);
}

}  // namespace
}  // namespace OLVEN::TALIX3::TraceBuffer
