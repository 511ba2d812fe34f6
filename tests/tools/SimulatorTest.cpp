// The simulator's pure parts, its words decoded by the library's own decoder: word packing with the stamp adjustment
// and time-base words, the job stream whatever the batching, and command frames cut anywhere by TCP.
#include "CommandFrames.h"
#include "JobStream.h"
#include "WordEncoder.h"
#include "events/TraceDecoder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>

namespace oltbsim {
namespace {

using OLVEN::TALIX3::TraceBuffer::TraceDecoder;

std::vector<oltbTraceEvent> decode(const std::vector<std::uint64_t>& words, std::uint64_t timeBase = 0) {
    TraceDecoder decoder;
    std::vector<oltbTraceEvent> events;
    oltbTraceEvent word{};
    oltbTraceEvent samples[32];
    bool late = false;
    if (timeBase != 0) decoder.processEvent(packWord(0, kTimeBaseType, static_cast<std::uint32_t>(timeBase >> 24)), word, late);
    for (const std::uint64_t w : words) {
        unsigned next = 0, end = 32;
        if (decoder.processEvent(w, word, late)) decoder.unpackEvents(word, samples, next, end);
        events.insert(events.end(), samples, samples + next);
    }
    return events;
}

TEST(WordEncoder, FieldsAndSamplesLandInTheirBits) {
    EXPECT_EQ(packWord(0x123456, 32, 0xDEADBEEF), 0xDEADBEEF20123456U);
    EXPECT_EQ(packWord(0x1FFFFFF, 126, 0x00050007, true), 0x00050007FEFFFFFFU) << "field taken modulo 2^24";
    std::uint32_t alternating[32];
    for (unsigned i = 0; i < 32; ++i) alternating[i] = (i + 1) % 2;
    EXPECT_EQ(packSamples(1, alternating), 0xAAAAAAAAU);
    const std::uint32_t nibbles[8] = {1, 2, 3, 4, 5, 6, 7, 0x1F};  // the last is cut to 4 bits
    EXPECT_EQ(packSamples(4, nibbles), 0x1234567FU);
    const std::uint32_t halves[2] = {0x1234, 0xABCD};
    EXPECT_EQ(packSamples(16, halves), 0x1234ABCDU);
}

// For every width the client's adjustment +(32 - n) brings the first sample back to its tick, also just behind a
// time-base boundary; a time-base word opens the stream and every new period, and again after a restart.
TEST(WordEncoder, FirstSampleLandsOnItsTickAcrossTimeBases) {
    for (const std::uint32_t type : {oltbEventHead0TxX, oltbEventPortA, oltbEventPortDHigh, oltbEventLaserPower4,
                                     oltbEventLaserPower2, oltbEventGate}) {
        for (const std::uint64_t tick : {std::uint64_t{5000}, 3 * kTicksPerTimeBase, 3 * kTicksPerTimeBase + 7,
                                         3 * kTicksPerTimeBase - 1}) {
            WordEncoder encoder;
            std::vector<std::uint64_t> words;
            std::uint32_t samples[32] = {1};
            encoder.append(words, fieldTickOf(type, tick), type, packSamples(sampleWidthBits(type), samples));
            const std::vector<oltbTraceEvent> events = decode(words);
            ASSERT_FALSE(events.empty());
            EXPECT_EQ(events.front().Timestamp, tick) << "type " << type;
            EXPECT_EQ(events.front().Value, 1);
        }
    }
    WordEncoder encoder;
    std::vector<std::uint64_t> words;
    const std::uint64_t ticks[] = {59 * kTicksPerTimeBase + 100, 60 * kTicksPerTimeBase - 1, 60 * kTicksPerTimeBase,
                                   62 * kTicksPerTimeBase + 5};  // a silent period is skipped
    for (std::uint32_t i = 0; i < 4; ++i) encoder.append(words, ticks[i], oltbEventSpi0Rx, i);
    EXPECT_EQ(words.size(), 7U) << "time bases 59, 60 and 62";
    const std::vector<oltbTraceEvent> events = decode(words);
    for (std::size_t i = 0; i < 4; ++i) EXPECT_EQ(events.at(i).Timestamp, ticks[i]);
    encoder.restart();
    words.clear();
    encoder.append(words, 62 * kTicksPerTimeBase + 9, oltbEventSpi0Rx, 5);
    EXPECT_EQ(words.size(), 2U) << "a restarted stream opens with its time base again";
}

SignalSelection selectionOf(std::initializer_list<std::uint32_t> types) {
    SignalSelection selection;
    for (const std::uint32_t type : types) selection.setTraced(type, true);
    return selection;
}

TEST(JobStream, BatchingDoesNotChangeTheStreamAndANewSignalFirstShowsItsState) {
    constexpr std::uint64_t kStart = 1000000000;  // the default card clock, a multiple of 640
    const MarkingJob job;
    const SignalSelection selection = selectionOf({oltbEventHead0TxX, oltbEventHead0RxX, oltbEventHead1TxX,
                                                   oltbEventGate, oltbEventLaserPower2, oltbEventPortA, oltbEventLabel});
    const std::uint64_t until = kStart + job.jobEndTick() + 5000;
    JobStream whole(job);
    whole.start(kStart, selection);
    std::vector<std::uint64_t> wholeWords;
    whole.generate(until, SIZE_MAX, wholeWords);
    JobStream batched(job);
    batched.start(kStart, selection);
    std::vector<std::uint64_t> pieces;
    for (std::size_t batch = 1, horizon = kStart; batched.nextTick() < until; batch = batch % 37 + 1) {
        horizon = std::min<std::uint64_t>(until, horizon + 3001);
        batched.generate(horizon, batch, pieces);
    }
    EXPECT_EQ(pieces, wholeWords);

    JobStream stream(job);
    stream.start(kStart, selectionOf({oltbEventHead0TxX}));
    const std::uint64_t busyTick = kStart + job.jobStartTick() + 10 * 640;
    std::vector<std::uint64_t> words;
    stream.generate(busyTick, SIZE_MAX, words);
    stream.select(selectionOf({oltbEventHead0TxX, oltbEventPortLaserOut1}));
    words.clear();
    stream.generate(busyTick + 640, SIZE_MAX, words);
    std::vector<oltbTraceEvent> busy = decode(words, (busyTick >> 24) << 24);
    busy.erase(std::remove_if(busy.begin(), busy.end(), [](const oltbTraceEvent& e) { return e.Type != oltbEventPortLaserOut1; }),
               busy.end());
    ASSERT_EQ(busy.size(), 1U);
    EXPECT_EQ(busy.front().Value, 1) << "the job runs";
    EXPECT_EQ(busy.front().Timestamp, busyTick + 31);
}

TEST(CommandFrameReader, ReassemblesFramesFedOneByteAtATimeAndSkipsStrayBytes) {
    std::vector<std::uint8_t> stream = {0x01, 0x02, 0x03, 0x4D, 0x81};
    stream.resize(3 + kCommandFrameSize, 0x5A);
    stream.insert(stream.end(), {0x4D, 0x82});
    stream.resize(3 + 2 * kCommandFrameSize, 0);
    stream.push_back(0x07);
    CommandFrameReader reader;
    std::vector<std::string> reads;
    for (const std::uint8_t byte : stream) {
        reader.feed(&byte, 1);
        for (CommandRead read = reader.next(); read.outcome != CommandReadOutcome::needMoreData; read = reader.next()) {
            reads.push_back(read.outcome == CommandReadOutcome::frame
                                ? "frame " + std::to_string(read.frame.code) + " " + std::to_string(read.frame.payload[16])
                                : "skipped " + std::to_string(read.skipped));
        }
    }
    EXPECT_EQ(reads, (std::vector<std::string>{"skipped 1", "skipped 1", "skipped 1", "frame 129 90", "frame 130 0", "skipped 1"}));
}

}  // namespace
}  // namespace oltbsim
