// Response frames that are malformed, oversized, cut or followed by garbage: a frame the reader cannot recognise
// costs the waiting command its 3 s, never the connection; a recognised one is taken whole; bytes around a frame
// are trace data.
#include "tests/faults/FaultSupport.h"

#include <cstring>

namespace oltb::faults {
namespace {

using oltb::testing::concat;
using oltb::testing::configPayload;
using oltb::testing::FakeServer;
using oltb::testing::kGetConfigCode;
using oltb::testing::kSetConfigCode;
using oltb::testing::kStopCode;
using oltb::testing::makeWord;
using oltb::testing::Reaction;
using oltb::testing::responseFrame;

const Bytes kMarkers = {0x4D, 0x4D, 0x4D, 0x4D};
const Bytes kTrailer = {0xB2, 0xB2};

Reaction rawAnswer(std::vector<Bytes> chunks, const std::chrono::milliseconds pause = 0ms) {
    Reaction reaction;
    reaction.chunks = std::move(chunks);
    reaction.pauseBetweenChunks = pause;
    return reaction;
}

void expectConnectFails(const char* address, const std::string& cause, const double minimumSeconds) {
    const auto start = Clock::now();
    EXPECT_EQ(oltbConnect(address), -1);
    const double elapsed = secondsSince(start);
    EXPECT_EQ(takeLastError(), connectFailure(address, cause));
    EXPECT_GE(elapsed, minimumSeconds);
    EXPECT_LT(elapsed, 6.0);
}

// After an unrecognised answer the connection still works: the next command gets its own answer, and a stream
// started afterwards holds exactly what the server sends.
void expectConnectionStillServes(FakeServer& server, const int handle) {
    EXPECT_EQ(oltbStop(handle), 0) << takeLastError();
    oltbTraceBufferConfig_Struct config;
    EXPECT_EQ(oltbGetConfig(handle, &config), 0) << takeLastError();
    EXPECT_EQ(config.Version, 6u);
    ASSERT_EQ(oltbSetReadTimeout(handle, 2000), 0);
    ASSERT_EQ(oltbStart(handle), 0) << takeLastError();
    server.send(counterWords(500, 16, 64, 64));
    const std::vector<oltbTraceEvent> events = readEvents(handle, 16);
    ASSERT_EQ(events.size(), 16u);
    for (std::size_t i = 0; i < events.size(); ++i) {
        EXPECT_EQ(events[i].Value, static_cast<std::int32_t>(500 + i));
    }
}

void wrongTrailerOnStop() {
    FakeServer server("127.0.3.20");
    server.setReaction(kStopCode, rawAnswer({concat({kMarkers, {0x00, 0xB2, 0x00}})}));
    expectConnectFails("127.0.3.20", kCommandTimeout, 2.9);
}

void sixteenByteConfiguration() {
    FakeServer server("127.0.3.24");
    server.setReaction(kGetConfigCode, Reaction::payloadResponse(Bytes(16, 0x00)));
    expectConnectFails("127.0.3.24", "Illegal message length", 0.0);
}

void emptyConfiguration() {
    FakeServer server("127.0.3.25");
    server.setReaction(kGetConfigCode, Reaction::emptyResponse());
    expectConnectFails("127.0.3.25", "Expected a response message but received nothing!", 0.0);
}

// The length byte says 255, but the trailer follows the 17 bytes actually sent: no frame.
void lengthByteBeyondTheFrame() {
    FakeServer server("127.0.3.21");
    const int handle = oltbConnect("127.0.3.21");
    ASSERT_GT(handle, 0) << takeLastError();
    server.setReactionOnce(kGetConfigCode,
                           rawAnswer({concat({kMarkers, {0xFF}, configPayload(6, 1, 0, 0, 0), kTrailer})}));
    oltbTraceBufferConfig_Struct config;
    std::memset(&config, 0xAB, sizeof config);
    EXPECT_EQ(oltbGetConfig(handle, &config), -1);
    EXPECT_EQ(takeLastError(), kCommandTimeout);
    EXPECT_EQ(config.Version, 0xABABABABu);
    expectConnectionStillServes(server, handle);
    EXPECT_EQ(oltbDisconnect(handle), 0);
}

// A frame that the network cuts behind its length byte is not recognised: its first part is taken for trace data.
void frameCutBehindItsLengthByte() {
    FakeServer server("127.0.3.22");
    const int handle = oltbConnect("127.0.3.22");
    ASSERT_GT(handle, 0) << takeLastError();
    const Bytes frame = responseFrame(configPayload(6, 0, 0, 0, 0));
    server.setReactionOnce(kGetConfigCode, rawAnswer({slice(frame, 0, 5), slice(frame, 5, frame.size())}, 200ms));
    oltbTraceBufferConfig_Struct config;
    EXPECT_EQ(oltbGetConfig(handle, &config), -1);
    EXPECT_EQ(takeLastError(), kCommandTimeout);
    expectConnectionStillServes(server, handle);
    EXPECT_EQ(oltbDisconnect(handle), 0);
}

// 64 KiB of 0x4D bytes instead of an answer: every receive ends in what may begin a frame, until the buffer is
// full. A byte that ends the run follows, so that the next answer is not glued to the flood.
void floodOfMarkerBytes() {
    FakeServer server("127.0.3.23");
    const int handle = oltbConnect("127.0.3.23");
    ASSERT_GT(handle, 0) << takeLastError();
    std::vector<Bytes> flood(16, Bytes(4096, 0x4D));
    flood.push_back({0x00});
    server.setReactionOnce(kGetConfigCode, rawAnswer(flood));
    oltbTraceBufferConfig_Struct config;
    const auto start = Clock::now();
    EXPECT_EQ(oltbGetConfig(handle, &config), -1);
    EXPECT_EQ(takeLastError(), kCommandTimeout);
    EXPECT_LT(secondsSince(start), 6.0);
    expectConnectionStillServes(server, handle);
    EXPECT_EQ(oltbDisconnect(handle), 0);
}

TEST(MalformedFrames, UnrecognisedAnswersCostTheCommandNotTheConnection) {
    runSideBySide({{"wrong trailer on Stop", wrongTrailerOnStop},
                   {"16-byte configuration", sixteenByteConfiguration},
                   {"empty configuration", emptyConfiguration},
                   {"length byte beyond the frame", lengthByteBeyondTheFrame},
                   {"frame cut behind its length byte", frameCutBehindItsLengthByte},
                   {"flood of marker bytes", floodOfMarkerBytes}});
}

TEST(MalformedFrames, LongestFrameIsTakenWholeAndOnlyItsFirstSeventeenBytesAreDecoded) {
    FakeServer server("127.0.3.26");
    const int handle = oltbConnect("127.0.3.26");
    ASSERT_GT(handle, 0) << takeLastError();
    // 255 payload bytes: the configuration, then filler holding a complete empty frame and stray trailer bytes,
    // which must neither end the frame early nor be read as trace data.
    Bytes payload = configPayload(200, 1U << 22, (1U << 0) | (1U << 1), 1U << 9, 1U << 30);
    const Bytes filler = concat({kMarkers, {0x00}, kTrailer, kTrailer, kMarkers});
    while (payload.size() < 255) {
        payload.push_back(filler[payload.size() % filler.size()]);
    }
    server.setReactionOnce(kGetConfigCode, Reaction::payloadResponse(payload));
    server.setReactionOnce(kStopCode, Reaction::payloadResponse(Bytes(255, 0xB2)));

    oltbTraceBufferConfig_Struct config;
    ASSERT_EQ(oltbGetConfig(handle, &config), 0) << takeLastError();
    EXPECT_EQ(config.Version, 200u);
    EXPECT_TRUE(config.Gate);
    EXPECT_TRUE(config.Head0TxX);
    EXPECT_FALSE(config.Head0TxY) << "bit 1 belongs to no signal";
    EXPECT_TRUE(config.LaserPower1_1);
    EXPECT_TRUE(config.Label);
    EXPECT_FALSE(config.PortA);
    EXPECT_FALSE(config.Spi0Rx);
    EXPECT_EQ(oltbStop(handle), 0) << takeLastError();

    ASSERT_EQ(oltbSetReadTimeout(handle, 2000), 0);
    ASSERT_EQ(oltbStart(handle), 0) << takeLastError();
    server.send(counterWords(0, 8, 64, 64));
    const std::vector<oltbTraceEvent> events = readEvents(handle, 8);
    ASSERT_EQ(events.size(), 8u);
    EXPECT_EQ(events[0].Value, 0);
    EXPECT_EQ(events[7].Value, 7);
    oltbTraceEvent extra[8];
    std::uint32_t count = 0;
    ASSERT_EQ(oltbSetReadTimeout(handle, 0), 0);
    EXPECT_EQ(oltbTryRead(handle, extra, 0, 8, &count), 0);
    EXPECT_EQ(count, 0u) << "nothing of the frames reached the stream";
    EXPECT_EQ(oltbDisconnect(handle), 0);
}

TEST(MalformedFrames, BytesBehindAFrameAreTraceData) {
    FakeServer server("127.0.3.27");
    const int handle = oltbConnect("127.0.3.27");
    ASSERT_GT(handle, 0) << takeLastError();
    ASSERT_EQ(oltbSetReadTimeout(handle, 2000), 0);

    // Not started: garbage behind the answer is kept, and discarded by the Start.
    server.setReactionOnce(kGetConfigCode, rawAnswer({concat({responseFrame(configPayload(6, 0, 0, 0, 0)),
                                                              Bytes{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13}})}));
    oltbTraceBufferConfig_Struct config;
    ASSERT_EQ(oltbGetConfig(handle, &config), 0) << takeLastError();
    EXPECT_EQ(config.Version, 6u);
    ASSERT_EQ(oltbStart(handle), 0) << takeLastError();
    server.send(counterWords(0, 10, 64, 64));
    std::vector<oltbTraceEvent> events = readEvents(handle, 10);
    ASSERT_EQ(events.size(), 10u);
    EXPECT_EQ(events[0].Value, 0);
    EXPECT_EQ(events[0].Timestamp, 64u);
    EXPECT_EQ(events[9].Value, 9);

    // Started: a whole word behind the answer takes its place in the stream.
    const oltbTraceBufferConfig_Struct labels = [] {
        oltbTraceBufferConfig_Struct c;
        oltbInitConfig(&c);
        c.Label = true;
        return c;
    }();
    server.setReactionOnce(kSetConfigCode,
                           rawAnswer({concat({responseFrame({}), makeWord(oltbEventSpi1Rx, 64 * 10 + 32, 0xABCDEF)})}));
    ASSERT_EQ(oltbSetConfig(handle, &labels), 0) << takeLastError();
    server.send(counterWords(10, 10, 64 * 11, 64));
    events = readEvents(handle, 11);
    ASSERT_EQ(events.size(), 11u);
    EXPECT_EQ(events[0].Type, oltbEventSpi1Rx);
    EXPECT_EQ(events[0].Value, 0xABCDEF);
    for (std::size_t i = 1; i < events.size(); ++i) {
        EXPECT_EQ(events[i].Type, oltbEventSpi0Rx);
        EXPECT_EQ(events[i].Value, static_cast<std::int32_t>(9 + i));
    }

    // A word of an unsupported type behind the answer fails one read; the next read goes on behind it.
    server.setReactionOnce(kSetConfigCode, rawAnswer({concat({responseFrame({}), makeWord(27, 64 * 20 + 32, 1)})}));
    ASSERT_EQ(oltbSetConfig(handle, &labels), 0) << takeLastError();
    std::uint32_t count = 0;
    EXPECT_EQ(oltbRead(handle, events.data(), 0, 11, &count), -1);
    EXPECT_EQ(takeLastError(), "TraceEventType 27 not supported!");
    server.send(counterWords(20, 10, 64 * 21, 64));
    events = readEvents(handle, 10);
    ASSERT_EQ(events.size(), 10u);
    EXPECT_EQ(events[0].Value, 20);
    EXPECT_EQ(events[9].Value, 29);
    EXPECT_EQ(oltbDisconnect(handle), 0);
}

} // namespace
} // namespace oltb::faults
