// The response-frame scan over received bytes: where a frame is recognised (also behind trace bytes 0x4D), and the
// two ways of not finding one: plain trace data, or the beginning of a frame whose end has not arrived.
#include "client/ResponseFrameScanner.h"

#include <gtest/gtest.h>

#include <vector>

namespace OLVEN::TALIX3::TraceBuffer {
namespace {

using Outcome = ResponseScanOutcome;

struct ScanCase {
    const char* name;
    std::vector<std::uint8_t> data;
    Outcome outcome;
    std::size_t start;  // frameFound: header start; maybeFrameStart: candidate start
    std::size_t end;    // frameFound: frame end
    int wordPosition = NoWordGrid;
};

std::vector<std::uint8_t> largestFrame() {
    std::vector<std::uint8_t> frame{0x4D, 0x4D, 0x4D, 0x4D, 0xFF};
    frame.insert(frame.end(), 255, 0x4D);  // a payload of header bytes is still payload
    frame.insert(frame.end(), {0xB2, 0xB2});
    return frame;
}

TEST(ResponseFrameScanner, FindsFramesAsTheReaderDoes) {
    const ScanCase cases[] = {
        {"between trace bytes",
         {0x01, 0x02, 0x4D, 0x4D, 0x4D, 0x4D, 0x02, 0xAA, 0xBB, 0xB2, 0xB2, 0x03},
         Outcome::frameFound,
         2,
         11},
        {"empty frame", {0x4D, 0x4D, 0x4D, 0x4D, 0x00, 0xB2, 0xB2}, Outcome::frameFound, 0, 7},
        {"first of two",
         {0x4D, 0x4D, 0x4D, 0x4D, 0x01, 0x07, 0xB2, 0xB2, 0x4D, 0x4D, 0x4D, 0x4D, 0x00, 0xB2, 0xB2},
         Outcome::frameFound,
         0,
         8},
        {"largest payload", largestFrame(), Outcome::frameFound, 0, 262},
        {"behind a trace byte 0x4D", {0x4D, 0x4D, 0x4D, 0x4D, 0x4D, 0x00, 0xB2, 0xB2}, Outcome::frameFound, 1, 8},
        {"at the end of a long run",
         {0x4D, 0x4D, 0x4D, 0x4D, 0x4D, 0x4D, 0x4D, 0x4D, 0x00, 0xB2, 0xB2},
         Outcome::frameFound,
         4,
         11},
        {"after a failed run",
         {0x4D, 0x4D, 0x4D, 0x4D, 0x05, 0x00, 0x4D, 0x4D, 0x4D, 0x4D, 0x00, 0xB2, 0xB2},
         Outcome::frameFound,
         6,
         13},
        {"cut inside the header", {0x01, 0x4D, 0x4D}, Outcome::maybeFrameStart, 1, 0},
        {"cut behind the header", {0x01, 0x4D, 0x4D, 0x4D, 0x4D}, Outcome::maybeFrameStart, 1, 0},
        {"cut behind the length byte", {0x4D, 0x4D, 0x4D, 0x4D, 0x02}, Outcome::maybeFrameStart, 0, 0},
        {"cut inside the payload",
         {0x07, 0x4D, 0x4D, 0x4D, 0x4D, 0x03, 0xAA, 0xBB, 0xCC, 0xB2},
         Outcome::maybeFrameStart,
         1,
         0},
        {"cut inside a trailer", {0x4D, 0x4D, 0x4D, 0x4D, 0x00, 0xB2}, Outcome::maybeFrameStart, 0, 0},
        {"wrong trailer", {0x4D, 0x4D, 0x4D, 0x4D, 0x00, 0xB2, 0xB3, 0x01}, Outcome::noFrame, 0, 0},
        {"three header bytes only", {0x4D, 0x4D, 0x4D, 0x00, 0xB2, 0xB2}, Outcome::noFrame, 0, 0},
        {"no bytes", {}, Outcome::noFrame, 0, 0},
        // A word's payload 4D 4D 4D 4D, the next word's first byte (12) pointing at a real answer's trailer.
        {"inside a word, pointing at the trailer of one at a word",
         {0x01, 0x02, 0x03, 0x60, 0x4D, 0x4D, 0x4D, 0x4D, 0x0C, 0x00, 0x00, 0x60,
          0x01, 0x02, 0x03, 0x04, 0x4D, 0x4D, 0x4D, 0x4D, 0x00, 0xB2, 0xB2},
         Outcome::frameFound,
         16,
         23,
         0},
        {"off the words, nothing else",
         {0x01, 0x4D, 0x4D, 0x4D, 0x4D, 0x00, 0xB2, 0xB2, 0x03},
         Outcome::frameFound,
         1,
         8,
         0},
        {"off the words, one may still come",
         {0x01, 0x4D, 0x4D, 0x4D, 0x4D, 0x00, 0xB2, 0xB2, 0x4D},
         Outcome::maybeFrameStart,
         1,
         0,
         0},
    };
    for (const ScanCase& c : cases) {
        const ResponseFrameScan scan =
            scanForResponseFrame(reinterpret_cast<const std::byte*>(c.data.data()), c.data.size(), c.wordPosition);
        EXPECT_EQ(scan.outcome, c.outcome) << c.name;
        if (c.outcome == Outcome::frameFound) {
            EXPECT_EQ(scan.headerStart, c.start) << c.name;
            EXPECT_EQ(scan.frameEnd, c.end) << c.name;
            EXPECT_EQ(scan.payloadStart, c.start + 5) << c.name;
            EXPECT_EQ(scan.payloadLength, c.end - c.start - 7) << c.name;
        } else if (c.outcome == Outcome::maybeFrameStart) {
            EXPECT_EQ(scan.candidateStart, c.start) << c.name;
        }
    }
}

}  // namespace
}  // namespace OLVEN::TALIX3::TraceBuffer
