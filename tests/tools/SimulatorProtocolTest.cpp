// The command side of the simulator: frames cut anywhere by TCP, and resynchronisation on stray bytes.
#include "CommandFrames.h"

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

}  // namespace
}  // namespace oltbsim
