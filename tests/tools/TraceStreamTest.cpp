// The job stream: the same words whatever the batching, and a newly selected signal opening with its state.
#include "JobStream.h"
#include "StreamDecoder.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace oltbsim {
namespace {

using test::DecodedEvent;
using test::StreamDecoder;

constexpr std::uint64_t kStart = 1000000000;  // the default card clock, a multiple of 640

std::vector<std::uint64_t> generateAll(TraceSource& source, const std::uint64_t untilTick) {
    std::vector<std::uint64_t> words;
    source.generate(untilTick, SIZE_MAX, words);
    return words;
}

SignalSelection selectionOf(std::initializer_list<std::uint32_t> types) {
    SignalSelection selection;
    for (const std::uint32_t type : types) {
        selection.setTraced(type, true);
    }
    return selection;
}

class JobStreamTest : public ::testing::Test {
protected:
    const MarkingJob job;
    JobStream stream{job};
    const SignalSelection selection =
        selectionOf({oltbEventHead0TxX, oltbEventHead0TxY, oltbEventHead0RxX, oltbEventHead1TxX, oltbEventGate,
                     oltbEventLaserPower2, oltbEventPortA, oltbEventLabel});
};

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

}  // namespace
}  // namespace oltbsim
