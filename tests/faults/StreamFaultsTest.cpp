// Faults of the stream: answers that are late, oversized, cut or followed by garbage (bytes around one are trace
// data), a receive buffer that ends in markers, and a server that sends far faster than the application reads.
// (Commands among 0x4D runs in the stream, from several threads, are the explorer's, tests/explorer.)
#include "tests/support/FakeServer.h"
#include "tests/support/TestSupport.h"

#include <malloc.h>

#include <fstream>
#include <numeric>

namespace {

using namespace oltb::testing;

// A SetConfig answered as `answer` says while tracing: the command succeeds, and the words the server sends afterwards
// arrive whole, once, behind those sent with the answer.
void expectAnswerAndStreamIntact(const char* address, Reaction answer,
                                 std::vector<std::int32_t> valuesWithAnswer = {}) {
    FakeServer server(address);
    const int handle = oltbConnect(address);
    ASSERT_GT(handle, 0) << takeLastError();
    ASSERT_EQ(oltbStart(handle), 0) << takeLastError();
    server.setReactionOnce(SetConfigCode, std::move(answer));
    oltbTraceBufferConfig_Struct config;
    oltbInitConfig(&config);
    EXPECT_EQ(oltbSetConfig(handle, &config), 0) << takeLastError();
    server.send(counterWords(500, 16, 64 * 600, 64));
    for (std::int32_t value = 500; value < 516; ++value) valuesWithAnswer.push_back(value);
    std::vector<std::int32_t> values;
    for (const oltbTraceEvent& event : readEvents(handle, valuesWithAnswer.size())) values.push_back(event.Value);
    EXPECT_EQ(values, valuesWithAnswer);
    EXPECT_EQ(oltbDisconnect(handle), 0);
}

TEST(Answers, FoundBehindMarkerBytesOrCut) {
    const Bytes frame = responseFrame({});
    runSideBySide({
        {"behind a word ending in 0x4D",
         [&] {
             expectAnswerAndStreamIntact(
                 "127.0.3.20",
                 {{concat({makeWord(oltbEventSpi0Rx, 64, 0x4D000001), frame, makeWord(oltbEventSpi0Rx, 128, 2)})}},
                 {0x4D000001, 2});
         }},
        {"cut behind its length byte",
         [&] {
             expectAnswerAndStreamIntact("127.0.3.22", {{slice(frame, 0, 5), slice(frame, 5, 7)}, 200ms});
         }},
    });
}

// While tracing, GetConfig k is answered delays[k] ms after the answer before it (the server answers in order) with
// version 101 + k and four counting words behind it; then a GetConfig answered at once must get version 200. Each
// call gets its own answer or the timeout (0), and every word arrives once, in order: no answer is taken as a trace
// word, however late it comes.
void expectOwnAnswers(const char* address, std::vector<int> delaysMs, const std::vector<int>& versions) {
    FakeServer server(address);
    const int handle = oltbConnect(address);
    ASSERT_GT(handle, 0) << takeLastError();
    ASSERT_EQ(oltbStart(handle), 0) << takeLastError();
    delaysMs.push_back(0);
    for (std::size_t k = 0; k < delaysMs.size(); ++k) {
        const auto version = static_cast<std::uint8_t>(k + 1 < delaysMs.size() ? 101 + k : 200);
        const Bytes words =
            counterWords(static_cast<std::uint32_t>(4 * k), 4, static_cast<std::uint32_t>(64 * (4 * k + 1)), 64);
        server.setReactionOnce(GetConfigCode, {{concat({responseFrame(configPayload(version, 0, 0, 0, 0)), words})},
                                               0ms,
                                               std::chrono::milliseconds(delaysMs[k])});
    }
    std::vector<int> got;
    for (std::size_t k = 0; k < delaysMs.size(); ++k) {
        oltbTraceBufferConfig_Struct config;
        const bool answered = oltbGetConfig(handle, &config) == 0;
        EXPECT_EQ(takeLastError(), answered ? "" : CommandTimeout);
        got.push_back(answered ? static_cast<int>(config.Version) : 0);
    }
    std::vector<int> expected = versions;
    expected.push_back(200);
    EXPECT_EQ(got, expected);
    std::vector<std::int32_t> values;
    for (const oltbTraceEvent& event : readEvents(handle, 4 * delaysMs.size())) values.push_back(event.Value);
    std::vector<std::int32_t> counted(4 * delaysMs.size());
    std::iota(counted.begin(), counted.end(), 0);
    EXPECT_EQ(values, counted);
    EXPECT_EQ(oltbDisconnect(handle), 0);
}

TEST(Answers, EachCommandGetsItsOwnAnswerHoweverLateTheOnesBeforeIt) {
    runSideBySide({
        {"late, together with the next one's",
         [] {
             expectOwnAnswers("127.0.10.3", {3300, 0}, {0, 102});
         }},
        {"two late, 1 s apart",
         [] {
             expectOwnAnswers("127.0.10.4", {4000, 1000}, {0, 102});
         }},
        {"two late together, after both gave up",
         [] {
             expectOwnAnswers("127.0.10.5", {6500, 0}, {0, 0});
         }},
        {"two late 1 s apart, after both gave up",
         [] {
             expectOwnAnswers("127.0.10.6", {6500, 1000}, {0, 0});
         }},
    });
}

TEST(Answers, LongestFrameIsTakenWholeAndBytesAroundAnswersAreTraceData) {
    FakeServer server("127.0.3.26");
    const int handle = oltbConnect("127.0.3.26");
    ASSERT_GT(handle, 0) << takeLastError();
    // 255 payload bytes: the configuration, then filler holding a complete empty frame and stray trailer bytes,
    // which must neither end the frame early nor be read as trace data. Garbage behind it is dropped by the Start.
    Bytes payload = configPayload(200, 1U << 22, (1U << 0) | (1U << 1), 1U << 9, 1U << 30);
    const Bytes filler = {0x4D, 0x4D, 0x4D, 0x4D, 0x00, 0xB2, 0xB2, 0xB2, 0xB2, 0x4D, 0x4D, 0x4D, 0x4D};
    while (payload.size() < 255) payload.push_back(filler[payload.size() % filler.size()]);
    server.setReactionOnce(GetConfigCode, {{concat({responseFrame(payload), Bytes{1, 2, 3, 4, 5}})}});
    oltbTraceBufferConfig_Struct config;
    ASSERT_EQ(oltbGetConfig(handle, &config), 0) << takeLastError();
    EXPECT_EQ(config.Version, 200U);
    EXPECT_TRUE(config.Gate && config.Head0TxX && config.LaserPower1_1 && config.Label);
    EXPECT_FALSE(config.Head0TxY || config.PortA || config.Spi0Rx);
    ASSERT_EQ(oltbStart(handle), 0) << takeLastError();
    // Started: a whole word behind an answer takes its place in the stream; an unsupported one fails one read.
    oltbInitConfig(&config);
    server.setReactionOnce(SetConfigCode, {{concat({responseFrame({}), makeWord(oltbEventSpi1Rx, 640, 0xABCDEF)})}});
    ASSERT_EQ(oltbSetConfig(handle, &config), 0) << takeLastError();
    server.setReactionOnce(SetConfigCode, {{concat({responseFrame({}), makeWord(27, 704, 1)})}});
    ASSERT_EQ(oltbSetConfig(handle, &config), 0) << takeLastError();
    EXPECT_EQ(readEvents(handle, 1).at(0).Value, 0xABCDEF);
    std::uint32_t count = 0;
    oltbTraceEvent event;
    EXPECT_EQ(oltbRead(handle, &event, 0, 1, &count), -1);
    EXPECT_EQ(takeLastError(), "TraceEventType 27 not supported!");
    server.send(counterWords(20, 10, 64 * 21, 64));
    EXPECT_EQ(readEvents(handle, 10).at(0).Value, 20);
    EXPECT_EQ(oltbDisconnect(handle), 0);
}

constexpr std::uint32_t MarkerPayload = 0x4D4D4D4D;  // the first four bytes of a response frame

// Exactly one receive buffer (16384 bytes) of words ending in 4D 4D 4D 4D while a SetConfig waits, then the answer:
// the buffer has no room for the rest of a frame, so it is trace data, and the answer in the next receive is found.
TEST(CommandsDuringStream, FullReceiveBufferEndingInMarkersIsTraceData) {
    FakeServer server("127.0.3.48");
    const int handle = oltbConnect("127.0.3.48");
    ASSERT_GT(handle, 0) << takeLastError();
    ASSERT_EQ(oltbSetReadTimeout(handle, 2000), 0);
    ASSERT_EQ(oltbStart(handle), 0) << takeLastError();
    constexpr std::uint32_t Words = 16384 / 8;
    server.setReactionOnce(
        SetConfigCode,
        Reaction{{concat({counterWords(0, Words - 1, 64, 64), makeWord(oltbEventSpi0Rx, 64 * Words, MarkerPayload)}),
                  responseFrame({})},
                 100ms});
    oltbTraceBufferConfig_Struct config;
    oltbInitConfig(&config);
    ASSERT_EQ(oltbSetConfig(handle, &config), 0) << takeLastError();
    const std::vector<oltbTraceEvent> events = readEvents(handle, Words);
    ASSERT_EQ(events.size(), Words);
    for (std::uint32_t j = 0; j + 1 < Words; ++j) ASSERT_EQ(events[j].Value, static_cast<std::int32_t>(j));
    EXPECT_EQ(static_cast<std::uint32_t>(events[Words - 1].Value), MarkerPayload);
    EXPECT_EQ(oltbDisconnect(handle), 0);
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool ResidentSizeIsMeaningful = false;  // quarantined frees and shadow memory
#else
constexpr bool ResidentSizeIsMeaningful = true;
#endif
constexpr std::uint32_t BacklogWords = ResidentSizeIsMeaningful ? 4U << 20 : 1U << 20;  // 32 MiB

// The resident size as it is (nothing trimmed here: the library must hand freed memory back itself), and the bytes
// the allocator has handed out.
long residentKb() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
    }
    return -1;
}

long allocatedKb() {
    const struct mallinfo2 allocator = ::mallinfo2();
    return static_cast<long>((allocator.uordblks + allocator.hblkhd) / 1024);
}

// Sends the backlog in pieces of 13 KiB, as a paced stream arrives, to a reader that keeps up with the receiving but
// not with the decoding; once a GetConfig sent afterwards is answered, the reader has received all of it.
void sendBacklog(FakeServer& server, int handle) {
    constexpr std::uint32_t Piece = 1640;
    for (std::uint32_t first = 0; first < BacklogWords; first += Piece) {
        server.send(counterWords(first, std::min(Piece, BacklogWords - first), first + 1, 1));
    }
    oltbTraceBufferConfig_Struct config;
    ASSERT_EQ(oltbGetConfig(handle, &config), 0) << takeLastError();
}

// A Stop keeps what was received; all of it is read afterwards, once and in order. A Clear discards it, and so does a
// Disconnect. The backlog costs little more than its bytes, and each way its memory goes back to the system.
TEST(SlowReader, BacklogIsKeptAcrossAStopOrDiscardedAndItsMemoryGoesBack) {
    FakeServer server("127.0.3.42");
    const int handle = oltbConnect("127.0.3.42");
    ASSERT_GT(handle, 0) << takeLastError();
    ASSERT_EQ(oltbSetReadTimeout(handle, 5000), 0);
    ASSERT_EQ(oltbStart(handle), 0) << takeLastError();
    const long baselineKb = residentKb();
    const long allocatedBeforeKb = allocatedKb();
    sendBacklog(server, handle);
    const long backlogKb = BacklogWords / 128;
    const long heldKb = allocatedKb() - allocatedBeforeKb;
    EXPECT_TRUE(!ResidentSizeIsMeaningful || (heldKb >= backlogKb * 7 / 8 && heldKb <= backlogKb * 11 / 10))
        << heldKb << " KiB held for " << backlogKb << " KiB";
    ASSERT_EQ(oltbStop(handle), 0) << takeLastError();
    std::vector<oltbTraceEvent> buffer(65536);
    std::uint32_t expected = 0;
    for (int reads = 0; expected < BacklogWords && reads < 1000; ++reads) {
        std::uint32_t count = 0;
        ASSERT_EQ(oltbRead(handle, buffer.data(), 0, static_cast<std::uint32_t>(buffer.size()), &count), 0)
            << takeLastError() << " after " << expected << " words";
        for (std::uint32_t i = 0; i < count; ++i, ++expected) {
            ASSERT_EQ(static_cast<std::uint32_t>(buffer[i].Value), expected);
            ASSERT_EQ(buffer[i].Timestamp, expected + 1U);
        }
    }
    EXPECT_EQ(expected, BacklogWords);
    EXPECT_TRUE(!ResidentSizeIsMeaningful || residentKb() - baselineKb < 8 * 1024) << "after reading it";

    ASSERT_EQ(oltbStart(handle), 0) << takeLastError();
    sendBacklog(server, handle);
    ASSERT_EQ(oltbClear(handle), 0) << takeLastError();
    EXPECT_TRUE(!ResidentSizeIsMeaningful || residentKb() - baselineKb < 8 * 1024) << "after the clear";
    server.send(counterWords(7000, 16, 64, 64));
    const std::vector<oltbTraceEvent> events = readEvents(handle, 16);
    ASSERT_EQ(events.size(), 16U);
    EXPECT_EQ(events[0].Value, 7000) << "nothing of the backlog is left";
    sendBacklog(server, handle);
    EXPECT_EQ(oltbDisconnect(handle), 0);
    EXPECT_TRUE(!ResidentSizeIsMeaningful || residentKb() - baselineKb < 8 * 1024) << "after the disconnect";
}

}  // namespace
