// The streams as a client decodes them: the marking job's words must reproduce the job (positions, gate, laser
// lines, labels) at the right ticks across time-base boundaries, in field-tick order, whatever the batching.
#include "CounterStream.h"
#include "JobStream.h"
#include "StreamDecoder.h"

#include <gtest/gtest.h>

#include <map>
#include <set>

namespace oltbsim {
namespace {

using test::DecodedEvent;
using test::signedPosition;
using test::StreamDecoder;

constexpr std::uint64_t kStart = 1000000000;  // the default card clock, a multiple of 640

SignalSelection selectionOf(std::initializer_list<std::uint32_t> types) {
    SignalSelection selection;
    for (const std::uint32_t type : types) {
        selection.setTraced(type, true);
    }
    return selection;
}

std::vector<std::uint64_t> generateAll(TraceSource& source, const std::uint64_t untilTick) {
    std::vector<std::uint64_t> words;
    source.generate(untilTick, SIZE_MAX, words);
    return words;
}

// Absolute field ticks of the data words, to check the order the stream is written in.
std::vector<std::uint64_t> fieldTicks(const std::vector<std::uint64_t>& words) {
    std::vector<std::uint64_t> ticks;
    std::uint64_t base = 0;
    for (const std::uint64_t word : words) {
        if (((word >> 24) & 0x7F) == kTimeBaseType) {
            base = (word >> 32) << 24;
        } else {
            ticks.push_back(base + (word & 0xFFFFFF));
        }
    }
    return ticks;
}

class JobStreamTest : public ::testing::Test {
protected:
    const MarkingJob job;
    JobStream stream{job};
    const SignalSelection selection =
        selectionOf({oltbEventHead0TxX, oltbEventHead0TxY, oltbEventHead0RxX, oltbEventHead1TxX, oltbEventGate,
                     oltbEventLaserPower2, oltbEventPortA, oltbEventLabel});
};

TEST_F(JobStreamTest, DecodedStreamReproducesTheJobAcrossTimeBases) {
    stream.start(kStart, selection);
    const std::uint64_t until = kStart + job.cycleTicks() + job.jobEndTick() + 1000;
    const std::vector<std::uint64_t> words = generateAll(stream, until);
    StreamDecoder decoder;
    decoder.feed(words);

    const std::vector<std::uint64_t> ticks = fieldTicks(words);
    EXPECT_TRUE(std::is_sorted(ticks.begin(), ticks.end()));
    EXPECT_EQ(decoder.lateWords, 0u);
    ASSERT_FALSE(decoder.timeBasePayloads.empty());
    EXPECT_EQ(decoder.timeBasePayloads.front(), kStart >> 24);
    EXPECT_EQ(decoder.timeBasePayloads.back(), (until - 1) >> 24);
    for (std::size_t i = 1; i < decoder.timeBasePayloads.size(); ++i) {
        EXPECT_EQ(decoder.timeBasePayloads[i], decoder.timeBasePayloads[i - 1] + 1);
    }

    std::set<std::uint32_t> types;
    for (const DecodedEvent& e : decoder.events) {
        types.insert(e.type);
    }
    EXPECT_EQ(types, (std::set<std::uint32_t>{oltbEventHead0TxX, oltbEventHead0TxY, oltbEventHead0RxX,
                                              oltbEventHead1TxX, oltbEventGate, oltbEventLaserPower2,
                                              oltbEventPortA, oltbEventLabel}));

    // Positions: every sample, signed and un-negated as a client converts them.
    const auto positionsOk = [&](std::uint32_t type, unsigned head, bool actual, bool isX) {
        std::size_t count = 0;
        for (const DecodedEvent& e : decoder.ofType(type)) {
            const std::uint64_t sinceStart = e.tick - kStart;
            EXPECT_EQ(sinceStart % MarkingJob::kSamplePeriodTicks, 0u);
            const auto cycleTick = static_cast<std::int64_t>(sinceStart % job.cycleTicks());
            const Position3 p = actual ? job.actual(head, cycleTick) : job.commanded(head, cycleTick);
            if (signedPosition(e.value, isX) != (isX ? p.x : p.y)) {
                ADD_FAILURE() << "type " << type << " at tick " << e.tick;
                return;
            }
            ++count;
        }
        EXPECT_EQ(count, (until - kStart + MarkingJob::kSamplePeriodTicks - 1) / MarkingJob::kSamplePeriodTicks);
    };
    positionsOk(oltbEventHead0TxX, 0, false, true);
    positionsOk(oltbEventHead0TxY, 0, false, false);
    positionsOk(oltbEventHead0RxX, 0, true, true);
    positionsOk(oltbEventHead1TxX, 1, false, true);

    // Narrow signals: the state when the stream starts, then exactly the job's changes in both runs.
    for (const std::uint32_t type : {oltbEventGate, oltbEventLaserPower2, oltbEventPortA}) {
        const std::vector<DecodedEvent> events = decoder.ofType(type);
        ASSERT_FALSE(events.empty());
        EXPECT_EQ(events.front().value, 0u);
        EXPECT_EQ(events.front().tick, kStart + 32 - sampleWidthBits(type));
        std::vector<std::pair<std::uint64_t, std::uint32_t>> expected;
        for (std::uint64_t run = 0; run < 2; ++run) {
            for (const SignalChange& change : job.changesOf(type)) {
                const std::uint64_t tick = kStart + run * job.cycleTicks() + change.tick;
                if (tick < until) {
                    expected.emplace_back(tick, change.value);
                }
            }
        }
        std::vector<std::pair<std::uint64_t, std::uint32_t>> changes;
        std::uint32_t previous = events.front().value;
        for (std::size_t i = 1; i < events.size(); ++i) {
            if (events[i].value != previous) {
                changes.emplace_back(events[i].tick, events[i].value);
            }
            previous = events[i].value;
        }
        EXPECT_EQ(changes, expected) << "type " << type;
    }

    // Labels: numbers and ticks, and the run counter in the lower half of the word.
    std::vector<std::pair<std::uint64_t, std::uint32_t>> labels;
    for (const DecodedEvent& e : decoder.ofType(oltbEventLabel)) {
        labels.emplace_back(e.tick, e.value);
    }
    std::vector<std::pair<std::uint64_t, std::uint32_t>> expectedLabels;
    for (std::uint64_t run = 0; run < 2; ++run) {
        for (const Label& label : job.labels()) {
            const std::uint64_t tick = kStart + run * job.cycleTicks() + label.tick;
            if (tick < until) {
                expectedLabels.emplace_back(tick, label.number);
            }
        }
    }
    EXPECT_EQ(labels, expectedLabels);
    std::vector<std::uint32_t> runs;
    for (const std::uint64_t word : words) {
        if (((word >> 24) & 0x7F) == oltbEventLabel) {
            runs.push_back(static_cast<std::uint32_t>(word >> 32) & 0xFFFF);
        }
    }
    EXPECT_EQ(runs.front(), 1u);
    EXPECT_EQ(runs.back(), 2u);
}

TEST_F(JobStreamTest, BatchingAndHorizonsDoNotChangeTheStream) {
    stream.start(kStart, selection);
    const std::uint64_t until = kStart + job.jobEndTick() + 5000;
    const std::vector<std::uint64_t> whole = generateAll(stream, until);

    JobStream batched(job);
    batched.start(kStart, selection);
    std::vector<std::uint64_t> pieces;
    std::uint64_t horizon = kStart;
    std::size_t batch = 1;
    while (batched.nextTick() < until) {
        horizon = std::min(until, horizon + 3001);
        batched.generate(horizon, batch, pieces);
        batch = batch % 37 + 1;
    }
    EXPECT_EQ(pieces, whole);
    EXPECT_GE(batched.nextTick(), until);
}

TEST_F(JobStreamTest, NewlySelectedSignalFirstShowsItsCurrentState) {
    stream.start(kStart, selectionOf({oltbEventHead0TxX}));
    const std::uint64_t busyTick = kStart + job.jobStartTick() + 10 * 640;
    std::vector<std::uint64_t> words = generateAll(stream, busyTick);
    stream.select(selectionOf({oltbEventHead0TxX, oltbEventPortLaserOut1}));
    words.clear();
    stream.generate(busyTick + 640, SIZE_MAX, words);
    StreamDecoder decoder;
    decoder.timeBase = (busyTick >> 24) << 24;
    decoder.feed(words);
    const std::vector<DecodedEvent> busy = decoder.ofType(oltbEventPortLaserOut1);
    ASSERT_EQ(busy.size(), 1u);
    EXPECT_EQ(busy.front().value, 1u) << "the job runs";
    EXPECT_EQ(busy.front().tick, busyTick + 31);
}

TEST(CounterStream, CountsOneValuePerStepAcrossTimeBasesWhateverTheBatches) {
    CounterStream counter(64);
    const std::uint64_t start = 60 * kTicksPerTimeBase - 64 * 1000;  // crosses a time base after 1000 words
    counter.start(start, SignalSelection{});
    std::vector<std::uint64_t> words;
    for (std::size_t batch = 1; words.size() < 300000; batch = batch * 3 % 8191 + 1) {
        counter.generate(kNoHorizon, batch, words);
    }
    StreamDecoder decoder;
    decoder.feed(words);
    EXPECT_EQ(decoder.timeBasePayloads.front(), 59u);
    EXPECT_EQ(decoder.timeBasePayloads[1], 60u);
    for (std::size_t i = 0; i < decoder.events.size(); ++i) {
        const DecodedEvent& e = decoder.events[i];
        if (e.value != i || e.tick != start + 64 * i || e.type != oltbEventSpi0Rx) {
            FAIL() << "word " << i << ": value " << e.value << " tick " << e.tick;
        }
    }
    EXPECT_EQ(counter.nextTick(), start + 64 * decoder.events.size());

    words.clear();
    counter.generate(counter.nextTick() + 64 * 10, SIZE_MAX, words);
    EXPECT_EQ(words.size(), 10u) << "a horizon limits the words to the ticks below it";

    counter.start(counter.nextTick(), SignalSelection{});
    words.clear();
    counter.generate(kNoHorizon, 2, words);
    ASSERT_EQ(words.size(), 3u) << "a new stream opens with its time base";
    EXPECT_EQ(words[1] >> 32, 0u) << "and counts from 0 again";
}

}  // namespace
}  // namespace oltbsim
