// The response-frame scan over received bytes: where a frame is recognised, and the two ways of not finding one
// (plain trace data, or data ending in 0x4D bytes that may begin a frame).
#include "client/ResponseFrameScanner.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace OLVEN::TALIX3::TraceBuffer {
namespace {

using Outcome = ResponseScanOutcome;

struct ScanCase {
    std::string name;
    std::vector<std::uint8_t> data;
    Outcome outcome;
    std::size_t headerStart = 0;
    std::size_t frameEnd = 0;
    std::vector<std::uint8_t> payload;
};

void PrintTo(const ScanCase& c, std::ostream* os) { *os << c.name; }

std::vector<std::uint8_t> largestFrame() {
    std::vector<std::uint8_t> frame{0x4D, 0x4D, 0x4D, 0x4D, 0xFF};
    frame.insert(frame.end(), 255, 0x4D);  // a payload of header bytes is still payload
    frame.insert(frame.end(), {0xB2, 0xB2});
    return frame;
}

const std::vector<ScanCase> ScanCases = {
    {"ResponseBetweenTraceBytes", {0x01, 0x02, 0x4D, 0x4D, 0x4D, 0x4D, 0x02, 0xAA, 0xBB, 0xB2, 0xB2, 0x03},
     Outcome::frameFound, 2, 11, {0xAA, 0xBB}},
    {"EmptyFrame", {0x4D, 0x4D, 0x4D, 0x4D, 0x00, 0xB2, 0xB2}, Outcome::frameFound, 0, 7, {}},
    {"FirstOfTwoFrames", {0x4D, 0x4D, 0x4D, 0x4D, 0x01, 0x07, 0xB2, 0xB2, 0x4D, 0x4D, 0x4D, 0x4D, 0x00, 0xB2, 0xB2},
     Outcome::frameFound, 0, 8, {0x07}},
    {"LargestPayload", largestFrame(), Outcome::frameFound, 0, 262, std::vector<std::uint8_t>(255, 0x4D)},
    // After a failed test the run ends at a byte other than 0x4D, and the next run is tested afresh.
    {"SecondRunAfterFailedOne",
     {0x4D, 0x4D, 0x4D, 0x4D, 0x05, 0x00, 0x4D, 0x4D, 0x4D, 0x4D, 0x00, 0xB2, 0xB2}, Outcome::frameFound, 6, 13, {}},

    {"SplitInsideHeaderRun", {0x01, 0x4D, 0x4D}, Outcome::maybeFrameStart, 0, 0, {}},
    {"SplitAfterWholeHeader", {0x01, 0x4D, 0x4D, 0x4D, 0x4D}, Outcome::maybeFrameStart, 0, 0, {}},
    {"SplitAfterLengthByte", {0x4D, 0x4D, 0x4D, 0x4D, 0x02}, Outcome::noFrame, 0, 0, {}},
    {"SplitInsidePayload", {0x4D, 0x4D, 0x4D, 0x4D, 0x03, 0xAA, 0xBB, 0xCC, 0xB2}, Outcome::noFrame, 0, 0, {}},
    {"SplitInsideEmptyFrameTrailer", {0x4D, 0x4D, 0x4D, 0x4D, 0x00, 0xB2}, Outcome::noFrame, 0, 0, {}},
    // The run reaches four one byte early: the length byte tested is the frame's last 0x4D.
    {"DataByte4DJustBeforeHeader", {0x4D, 0x4D, 0x4D, 0x4D, 0x4D, 0x00, 0xB2, 0xB2}, Outcome::noFrame, 0, 0, {}},
    // Eight 0x4D bytes: tested once at the fourth, where the "length" 0x4D fails; the frame from the fifth on is
    // never tested because the run continues.
    {"FailedTestNotRetriedOnSameRun", {0x4D, 0x4D, 0x4D, 0x4D, 0x4D, 0x4D, 0x4D, 0x4D, 0x00, 0xB2, 0xB2},
     Outcome::noFrame, 0, 0, {}},
    {"WrongTrailer", {0x4D, 0x4D, 0x4D, 0x4D, 0x00, 0xB2, 0xB3, 0x01}, Outcome::noFrame, 0, 0, {}},
    {"ThreeHeaderBytesOnly", {0x4D, 0x4D, 0x4D, 0x00, 0xB2, 0xB2}, Outcome::noFrame, 0, 0, {}},
    {"NoBytes", {}, Outcome::noFrame, 0, 0, {}},
};

class ResponseFrameScannerTest : public ::testing::TestWithParam<ScanCase> {};

TEST_P(ResponseFrameScannerTest, FindsFramesAsTheReaderDoes) {
    const ScanCase& c = GetParam();
    const std::vector<std::byte> data(reinterpret_cast<const std::byte*>(c.data.data()),
                                      reinterpret_cast<const std::byte*>(c.data.data() + c.data.size()));
    const ResponseFrameScan scan = scanForResponseFrame(data.data(), data.size());

    ASSERT_EQ(scan.outcome, c.outcome);
    if (c.outcome != Outcome::frameFound) {
        return;
    }
    EXPECT_EQ(scan.headerStart, c.headerStart);
    EXPECT_EQ(scan.frameEnd, c.frameEnd);
    ASSERT_EQ(scan.payloadLength, c.payload.size());
    ASSERT_LE(scan.payloadStart + scan.payloadLength, data.size());
    for (std::size_t i = 0; i < c.payload.size(); ++i) {
        EXPECT_EQ(std::to_integer<std::uint8_t>(data[scan.payloadStart + i]), c.payload[i]) << "payload byte " << i;
    }
}

INSTANTIATE_TEST_SUITE_P(Cases, ResponseFrameScannerTest, ::testing::ValuesIn(ScanCases),
                         [](const ::testing::TestParamInfo<ScanCase>& caseInfo) { return caseInfo.param.name; });

}  // namespace
}  // namespace OLVEN::TALIX3::TraceBuffer
