// The command side of the simulator: frames cut anywhere by TCP, resynchronisation, response frames, the
// configuration payload, and the simulated overflows.
#include "CommandFrames.h"
#include "OverflowInjector.h"
#include "SignalSelection.h"
#include "WordEncoder.h"

#include <gtest/gtest.h>

namespace oltbsim {
namespace {

std::vector<std::uint8_t> commandFrame(const std::uint8_t code, const std::uint8_t fill = 0) {
    std::vector<std::uint8_t> frame(kCommandFrameSize, fill);
    frame[0] = 0x4D;
    frame[1] = code;
    return frame;
}

TEST(CommandFrameReader, ReassemblesFramesFedOneByteAtATime) {
    std::vector<std::uint8_t> stream = commandFrame(0x81, 0x5A);
    const auto second = commandFrame(0x82);
    stream.insert(stream.end(), second.begin(), second.end());

    CommandFrameReader reader;
    std::vector<CommandFrame> frames;
    for (const std::uint8_t byte : stream) {
        reader.feed(&byte, 1);
        for (CommandRead read = reader.next(); read.outcome != CommandReadOutcome::needMoreData;
             read = reader.next()) {
            ASSERT_EQ(read.outcome, CommandReadOutcome::frame);
            frames.push_back(read.frame);
        }
    }
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(frames[0].code, 0x81);
    EXPECT_EQ(frames[0].payload[0], 0x5A);
    EXPECT_EQ(frames[0].payload[16], 0x5A);
    EXPECT_EQ(frames[1].code, 0x82);
    EXPECT_EQ(reader.bufferedBytes(), 0u);
}

TEST(CommandFrameReader, SkipsToTheNextFrameStartAndReportsTheCount) {
    std::vector<std::uint8_t> stream = {0x01, 0x02, 0x03};
    const auto frame = commandFrame(0x10);
    stream.insert(stream.end(), frame.begin(), frame.end());
    stream.push_back(0x07);

    CommandFrameReader reader;
    reader.feed(stream.data(), stream.size());
    CommandRead read = reader.next();
    ASSERT_EQ(read.outcome, CommandReadOutcome::skippedBytes);
    EXPECT_EQ(read.skipped, 3u);
    read = reader.next();
    ASSERT_EQ(read.outcome, CommandReadOutcome::frame);
    EXPECT_EQ(read.frame.code, 0x10);
    read = reader.next();
    ASSERT_EQ(read.outcome, CommandReadOutcome::skippedBytes) << "a trailing stray byte is skipped as well";
    EXPECT_EQ(read.skipped, 1u);
    EXPECT_EQ(reader.next().outcome, CommandReadOutcome::needMoreData);
}

TEST(ResponseFrame, HasHeaderLengthPayloadAndTrailer) {
    std::vector<std::uint8_t> out = {0xEE};  // appended behind what is queued
    appendResponseFrame(out, nullptr, 0);
    EXPECT_EQ(out, (std::vector<std::uint8_t>{0xEE, 0x4D, 0x4D, 0x4D, 0x4D, 0x00, 0xB2, 0xB2}));
    const std::uint8_t payload[2] = {0x06, 0x01};
    out.clear();
    appendResponseFrame(out, payload, 2, ResponseShape::brokenTrailer);
    EXPECT_EQ(out, (std::vector<std::uint8_t>{0x4D, 0x4D, 0x4D, 0x4D, 0x02, 0x06, 0x01, 0xB2, 0x00}));
}

TEST(SignalSelection, PayloadPutsGroupThreeBeforeGroupTwoAndDropsUndefinedBits) {
    const std::uint8_t everything[17] = {0x06, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                                         0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    const SignalSelection all = SignalSelection::fromPayload(everything);
    const std::array<std::uint8_t, 17> expected = {0x06, 0xFF, 0xFF, 0xFF, 0x07, 0x15, 0x15, 0x15, 0x15,
                                                   0xFF, 0x03, 0x00, 0x4B, 0xFF, 0x03, 0x00, 0x00};
    EXPECT_EQ(all.toPayload(), expected);

    SignalSelection some;
    some.setTraced(oltbEventPortA, true);
    some.setTraced(oltbEventHead0TxX, true);
    some.setTraced(oltbEventLaserPower0_16, true);
    some.setTraced(oltbEventSpi0Rx, true);
    const std::array<std::uint8_t, 17> four = {0x06, 1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0};
    EXPECT_EQ(some.toPayload(), four);
    EXPECT_EQ(SignalSelection::fromPayload(four.data()), some);
    EXPECT_TRUE(some.isTraced(oltbEventSpi0Rx));
    EXPECT_FALSE(some.isTraced(oltbEventSpi1Rx));
    some.setTraced(oltbEventHead0TxX + 1, true);  // an odd head bit names no signal
    EXPECT_FALSE(some.isTraced(oltbEventHead0TxX + 1));
}

TEST(OverflowInjector, LosesWordsAfterEachOverflowAndFlagsTheNextButSparesTimeBases) {
    std::vector<std::uint64_t> words;
    for (std::uint32_t value = 0; value < 12; ++value) {
        words.push_back(packWord(value, oltbEventSpi0Rx, value));
        if (value == 4) {
            words.push_back(packWord(0, kTimeBaseType, 7));
        }
    }
    OverflowInjector injector(3, 2);
    injector.apply(words);
    // Kept 0 1 2, lost 3 4 (the time base stays), kept 5 (flagged) 6 7, lost 8 9, kept 10 (flagged) 11.
    std::vector<std::uint32_t> values;
    std::vector<std::uint32_t> flagged;
    unsigned timeBases = 0;
    for (const std::uint64_t word : words) {
        if (((word >> 24) & 0x7F) == kTimeBaseType) {
            ++timeBases;
            EXPECT_EQ(word & 0x80000000, 0u);
            continue;
        }
        values.push_back(static_cast<std::uint32_t>(word >> 32));
        if ((word & 0x80000000) != 0) {
            flagged.push_back(static_cast<std::uint32_t>(word >> 32));
        }
    }
    EXPECT_EQ(timeBases, 1u);
    EXPECT_EQ(values, (std::vector<std::uint32_t>{0, 1, 2, 5, 6, 7, 10, 11}));
    EXPECT_EQ(flagged, (std::vector<std::uint32_t>{5, 10}));
}

}  // namespace
}  // namespace oltbsim
