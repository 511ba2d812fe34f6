// Packing of trace words: field layout, samples, the timestamp adjustment and time-base words, checked by decoding
// with the client's rules.
#include "StreamDecoder.h"
#include "WordEncoder.h"

#include <gtest/gtest.h>

namespace oltbsim {
namespace {

using test::StreamDecoder;

TEST(WordEncoder, FieldsLandInTheirBits) {
    struct Case {
        std::uint32_t field, type, payload;
        bool overflow;
        std::uint64_t word;
    };
    const Case cases[] = {
        {0x123456, 32, 0xDEADBEEF, false, 0xDEADBEEF20123456},
        {0xFFFFFF, 126, 0x00050007, true, 0x00050007FEFFFFFF},
        {0x1000001, 22, 1, false, 0x0000000116000001},  // field taken modulo 2^24
        {0, 127, 59, false, 0x0000003B7F000000},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(packWord(c.field, c.type, c.payload, c.overflow), c.word) << "type " << c.type;
    }
}

TEST(WordEncoder, FirstSampleGoesToTheMostSignificantBits) {
    std::uint32_t alternating[32];
    for (unsigned i = 0; i < 32; ++i) {
        alternating[i] = (i + 1) % 2;
    }
    EXPECT_EQ(packSamples(1, alternating), 0xAAAAAAAAu);
    const std::uint32_t nibbles[8] = {1, 2, 3, 4, 5, 6, 7, 0x1F};  // the last is cut to 4 bits
    EXPECT_EQ(packSamples(4, nibbles), 0x1234567Fu);
    const std::uint32_t halves[2] = {0x1234, 0xABCD};
    EXPECT_EQ(packSamples(16, halves), 0x1234ABCDu);
    const std::uint32_t whole[1] = {0x89ABCDEF};
    EXPECT_EQ(packSamples(32, whole), 0x89ABCDEFu);
}

// For every width the client's adjustment +(32 - n) must bring the first sample back to the intended tick, also
// when that tick lies just behind a time-base boundary.
TEST(WordEncoder, FieldTickPlusAdjustmentGivesTheFirstSampleTick) {
    for (const std::uint32_t type : {oltbEventHead0TxX, oltbEventPortA, oltbEventPortDHigh, oltbEventLaserPower4,
                                     oltbEventLaserPower2, oltbEventGate}) {
        for (const std::uint64_t firstSample : {std::uint64_t{5000}, 3 * kTicksPerTimeBase,
                                                3 * kTicksPerTimeBase + 7, 3 * kTicksPerTimeBase - 1}) {
            WordEncoder encoder;
            std::vector<std::uint64_t> words;
            std::uint32_t samples[32] = {1};
            encoder.append(words, fieldTickOf(type, firstSample), type,
                           packSamples(sampleWidthBits(type), samples));
            StreamDecoder decoder;
            decoder.feed(words);
            ASSERT_FALSE(decoder.events.empty());
            EXPECT_EQ(decoder.events.front().tick, firstSample) << "type " << type;
            EXPECT_EQ(decoder.events.front().value, 1u);
        }
    }
}

TEST(WordEncoder, TimeBaseWordOpensTheStreamAndEveryNewPeriod) {
    WordEncoder encoder;
    std::vector<std::uint64_t> words;
    const std::uint64_t start = 59 * kTicksPerTimeBase + 100;
    encoder.append(words, start, oltbEventSpi0Rx, 0);
    encoder.append(words, start + 10, oltbEventSpi0Rx, 1);
    encoder.append(words, 60 * kTicksPerTimeBase - 1, oltbEventSpi0Rx, 2);
    encoder.append(words, 60 * kTicksPerTimeBase, oltbEventSpi0Rx, 3);
    encoder.append(words, 62 * kTicksPerTimeBase + 5, oltbEventSpi0Rx, 4);  // a silent period is skipped

    StreamDecoder decoder;
    decoder.feed(words);
    EXPECT_EQ(decoder.timeBasePayloads, (std::vector<std::uint64_t>{59, 60, 62}));
    EXPECT_EQ(words.size(), 8u);
    const std::vector<std::uint64_t> expected = {start, start + 10, 60 * kTicksPerTimeBase - 1,
                                                 60 * kTicksPerTimeBase, 62 * kTicksPerTimeBase + 5};
    ASSERT_EQ(decoder.events.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(decoder.events[i].tick, expected[i]);
        EXPECT_EQ(decoder.events[i].value, i);
    }

    encoder.restart();
    words.clear();
    encoder.append(words, 62 * kTicksPerTimeBase + 9, oltbEventSpi0Rx, 5);
    EXPECT_EQ(words.size(), 2u) << "a restarted stream opens with its time base again";
}

}  // namespace
}  // namespace oltbsim
