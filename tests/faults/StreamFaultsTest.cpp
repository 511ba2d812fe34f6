// Faults of the stream itself: trace data full of 0x4D runs while commands wait for their answers, a server that
// sends far faster than the application reads, and connections ending beside one that streams.
#include "tests/faults/FaultSupport.h"

#include <malloc.h>

#include <atomic>
#include <iostream>
#include <random>

namespace oltb::faults {
namespace {

using oltb::testing::FakeServer;
using oltb::testing::packWord;

// Word j of the marker stream. Even words carry the payload 4D 4D 4D 4D, the first four bytes of a response frame,
// odd words count. Every stamp ends in the byte 0x01, so the byte behind each 4D run, taken as a frame length, is
// 1 and never reaches a real frame's trailer: the data holds no false frame, and every word must arrive.
constexpr std::uint32_t kMarkerPayload = 0x4D4D4D4D;
std::uint32_t markerStreamStamp(const std::uint32_t j) { return 1 + 256 * j; }
std::uint32_t markerStreamValue(const std::uint32_t j) { return j % 2 == 0 ? kMarkerPayload : j; }

Bytes markerStreamWords(const std::uint32_t first, const std::uint32_t count) {
    Bytes bytes;
    for (std::uint32_t j = first; j < first + count; ++j) {
        const std::uint64_t word = packWord(kCounterType, markerStreamStamp(j), markerStreamValue(j));
        for (int b = 0; b < 8; ++b) {
            bytes.push_back(static_cast<std::uint8_t>(word >> (8 * b)));
        }
    }
    return bytes;
}

TEST(CommandsDuringStream, MarkerRunsInTheDataNeitherHideAnswersNorCostAWord) {
    FakeServer server("127.0.3.40");
    const int handle = oltbConnect("127.0.3.40");
    ASSERT_GT(handle, 0) << takeLastError();
    ASSERT_EQ(oltbSetReadTimeout(handle, 5000), 0);
    ASSERT_EQ(oltbStart(handle), 0) << takeLastError();

    constexpr std::uint32_t kWords = 60000; // stamps stay below 2^24
    std::atomic<bool> streamed{false};
    // The server answers between whole words, as the card does; each batch ends with a counting word, so no
    // answer follows a 0x4D byte directly.
    std::thread streamer([&] {
        std::mt19937 random(40);
        std::uint32_t next = 0;
        while (next < kWords) {
            const std::uint32_t count = std::min<std::uint32_t>(2 * (1 + random() % 128), kWords - next);
            server.send(markerStreamWords(next, count));
            next += count;
            std::this_thread::sleep_for(1ms);
        }
        streamed = true;
    });
    std::atomic<int> commands{0};
    std::thread commander([&] {
        oltbTraceBufferConfig_Struct config;
        oltbInitConfig(&config);
        for (int k = 0; !streamed && k < 5000; ++k) {
            config.Label = k % 2 == 0;
            config.Gate = k % 3 == 0;
            EXPECT_EQ(oltbSetConfig(handle, &config), 0) << takeLastError();
            oltbTraceBufferConfig_Struct fetched;
            ASSERT_EQ(oltbGetConfig(handle, &fetched), 0) << takeLastError();
            EXPECT_EQ(fetched.Label, config.Label);
            EXPECT_EQ(fetched.Gate, config.Gate);
            commands += 2;
        }
    });

    const std::vector<oltbTraceEvent> events = readEvents(handle, kWords);
    streamer.join();
    commander.join();
    ASSERT_EQ(events.size(), kWords);
    for (std::uint32_t j = 0; j < kWords; ++j) {
        ASSERT_EQ(events[j].Type, oltbEventSpi0Rx) << "word " << j;
        ASSERT_EQ(static_cast<std::uint32_t>(events[j].Value), markerStreamValue(j)) << "word " << j;
        ASSERT_EQ(events[j].Timestamp, markerStreamStamp(j)) << "word " << j;
    }
    EXPECT_GE(commands, 20) << "commands must have waited while the stream ran";
    std::cout << commands << " commands answered within a stream of " << kWords << " words, half of them 4D runs\n";
    EXPECT_EQ(oltbDisconnect(handle), 0);
}

TEST(CommandsDuringStream, FullReceiveBufferEndingInMarkersIsTraceData) {
    FakeServer server("127.0.3.48");
    const int handle = oltbConnect("127.0.3.48");
    ASSERT_GT(handle, 0) << takeLastError();
    ASSERT_EQ(oltbSetReadTimeout(handle, 2000), 0);
    ASSERT_EQ(oltbStart(handle), 0) << takeLastError();
    // While the SetConfig waits: exactly one receive buffer (16384 bytes) of words, the last carrying 4D 4D 4D 4D,
    // then, a little later, the answer. The buffer has no room for the rest of a frame, so it is trace data, and
    // the answer that follows in a fresh receive is found.
    constexpr std::uint32_t kWords = 16384 / 8;
    Bytes words = counterWords(0, kWords - 1, 64, 64);
    const Bytes last = oltb::testing::makeWord(kCounterType, 64 * kWords, kMarkerPayload);
    words.insert(words.end(), last.begin(), last.end());
    oltb::testing::Reaction reaction;
    reaction.chunks = {words, oltb::testing::responseFrame({})};
    reaction.pauseBetweenChunks = 100ms;
    server.setReactionOnce(oltb::testing::kSetConfigCode, reaction);
    oltbTraceBufferConfig_Struct config;
    oltbInitConfig(&config);
    ASSERT_EQ(oltbSetConfig(handle, &config), 0) << takeLastError();
    const std::vector<oltbTraceEvent> events = readEvents(handle, kWords);
    ASSERT_EQ(events.size(), kWords);
    for (std::uint32_t j = 0; j + 1 < kWords; ++j) {
        ASSERT_EQ(events[j].Value, static_cast<std::int32_t>(j));
    }
    EXPECT_EQ(static_cast<std::uint32_t>(events[kWords - 1].Value), kMarkerPayload);
    EXPECT_EQ(events[kWords - 1].Timestamp, 64u * kWords);
    EXPECT_EQ(oltbDisconnect(handle), 0);
}

// The backlog of a reader that does not read: 4 Mi counting words (32 MiB), stamps 1, 2, 3, ... (a quarter of it
// under the sanitizers, which decode far slower and whose resident sizes are not looked at).
constexpr std::uint32_t kBacklogWords = kResidentSizeIsMeaningful ? 4U << 20 : 1U << 20;
constexpr long kBacklogKb = kBacklogWords * 8L / 1024;

long residentKbAfterTrim() {
    // Freed blocks go back to the allocator's arenas first; trimming hands them to the system, so that the resident
    // size shows what the library still holds.
    ::malloc_trim(0);
    return readProcessFigures().residentKb;
}

// Sends the backlog and returns once the connection's reader has received all of it: the answer to a GetConfig
// sent afterwards comes behind the last word.
void sendBacklog(FakeServer& server, const int handle) {
    constexpr std::uint32_t kWordsPerSend = 128U << 10;
    for (std::uint32_t first = 0; first < kBacklogWords; first += kWordsPerSend) {
        server.send(counterWords(first, kWordsPerSend, first + 1, 1));
    }
    oltbTraceBufferConfig_Struct config;
    ASSERT_EQ(oltbGetConfig(handle, &config), 0) << takeLastError();
}

TEST(SlowReader, BacklogIsKeptWholeAcrossAStopAndReleasedOnceRead) {
    FakeServer server("127.0.3.42");
    const int handle = oltbConnect("127.0.3.42");
    ASSERT_GT(handle, 0) << takeLastError();
    ASSERT_EQ(oltbSetReadTimeout(handle, 5000), 0);
    ASSERT_EQ(oltbStart(handle), 0) << takeLastError();
    const long baselineKb = residentKbAfterTrim();
    sendBacklog(server, handle);
    const long backlogKb = readProcessFigures().residentKb;
    if (kResidentSizeIsMeaningful) {
        EXPECT_GE(backlogKb - baselineKb, kBacklogKb * 7 / 8) << "the received words are held in memory";
    }

    // A Stop ends the stream but keeps what was received; all of it is read afterwards, once and in order.
    ASSERT_EQ(oltbStop(handle), 0) << takeLastError();
    std::vector<oltbTraceEvent> buffer(65536);
    std::uint32_t expected = 0;
    for (int reads = 0; expected < kBacklogWords && reads < 1000; ++reads) {
        std::uint32_t count = 0;
        ASSERT_EQ(oltbRead(handle, buffer.data(), 0, static_cast<std::uint32_t>(buffer.size()), &count), 0)
            << takeLastError() << " after " << expected << " words";
        for (std::uint32_t i = 0; i < count; ++i, ++expected) {
            ASSERT_EQ(static_cast<std::uint32_t>(buffer[i].Value), expected);
            ASSERT_EQ(buffer[i].Timestamp, expected + 1u);
        }
    }
    EXPECT_EQ(expected, kBacklogWords);
    ASSERT_EQ(oltbSetReadTimeout(handle, 0), 0);
    std::uint32_t count = 1;
    EXPECT_EQ(oltbTryRead(handle, buffer.data(), 0, 16, &count), 0);
    EXPECT_EQ(count, 0u);
    const long afterKb = residentKbAfterTrim();
    std::cout << "resident: " << baselineKb << " kB before, " << backlogKb << " kB with a backlog of " << kBacklogKb
              << " kB, " << afterKb << " kB after reading it\n";
    if (kResidentSizeIsMeaningful) {
        EXPECT_LT(afterKb - baselineKb, 8 * 1024);
    }
    EXPECT_EQ(oltbDisconnect(handle), 0);
}

TEST(SlowReader, ClearDiscardsTheBacklogAndItsMemory) {
    FakeServer server("127.0.3.41");
    const int handle = oltbConnect("127.0.3.41");
    ASSERT_GT(handle, 0) << takeLastError();
    ASSERT_EQ(oltbStart(handle), 0) << takeLastError();
    const long baselineKb = residentKbAfterTrim();
    sendBacklog(server, handle);
    const long backlogKb = readProcessFigures().residentKb;
    if (kResidentSizeIsMeaningful) {
        EXPECT_GE(backlogKb - baselineKb, kBacklogKb * 7 / 8);
    }

    ASSERT_EQ(oltbClear(handle), 0) << takeLastError();
    const long afterKb = residentKbAfterTrim();
    std::cout << "resident: " << baselineKb << " kB before, " << backlogKb << " kB with a backlog of " << kBacklogKb
              << " kB, " << afterKb << " kB after oltbClear\n";
    if (kResidentSizeIsMeaningful) {
        EXPECT_LT(afterKb - baselineKb, 8 * 1024);
    }
    std::vector<oltbTraceEvent> buffer(16);
    std::uint32_t count = 1;
    ASSERT_EQ(oltbSetReadTimeout(handle, 0), 0);
    EXPECT_EQ(oltbTryRead(handle, buffer.data(), 0, 16, &count), 0);
    EXPECT_EQ(count, 0u) << "nothing of the backlog is left";

    // The restarted stream holds exactly what the server sends after the clear.
    ASSERT_EQ(oltbSetReadTimeout(handle, 2000), 0);
    server.send(counterWords(7000, 16, 64, 64));
    const std::vector<oltbTraceEvent> events = readEvents(handle, 16);
    ASSERT_EQ(events.size(), 16u);
    EXPECT_EQ(events[0].Value, 7000);
    EXPECT_EQ(events[15].Value, 7015);
    EXPECT_EQ(oltbDisconnect(handle), 0);
}

TEST(Neighbours, EndingIdleConnectionsLeavesAStreamingOneIntact) {
    FakeServer streaming("127.0.3.43");
    std::vector<std::unique_ptr<FakeServer>> idleServers;
    const std::vector<std::string> idleAddresses = {"127.0.3.44", "127.0.3.45", "127.0.3.46", "127.0.3.47"};
    for (const std::string& address : idleAddresses) {
        idleServers.push_back(std::make_unique<FakeServer>(address));
    }
    const int handle = oltbConnect("127.0.3.43");
    ASSERT_GT(handle, 0) << takeLastError();
    // Polled without waiting: a waiting read that starts on the remains of a block waits its whole timeout for the
    // next one, which at the end of the stream never comes.
    ASSERT_EQ(oltbSetReadTimeout(handle, 0), 0);
    ASSERT_EQ(oltbStart(handle), 0) << takeLastError();

    constexpr int kRounds = 6;
    constexpr std::uint32_t kBatch = 1024;
    constexpr std::uint32_t kMostWords = 8U << 20;
    std::atomic<int> rounds{0};
    std::atomic<std::uint32_t> sent{0};
    std::atomic<bool> streamed{false};
    std::atomic<bool> abandoned{false}; // the reading side has finished, or given up
    std::thread streamer([&] {
        const auto deadline = Clock::now() + 20s;
        while ((rounds < kRounds || sent < 100000) && sent < kMostWords && !abandoned && Clock::now() < deadline) {
            streaming.send(counterWords(sent, kBatch, sent + 1, 1));
            sent += kBatch;
            std::this_thread::sleep_for(1ms);
        }
        streamed = true;
    });
    // Idle neighbours come and go: some never started, some started with unread data queued.
    std::thread neighbours([&] {
        for (int round = 0; round < kRounds && !streamed && !abandoned; ++round) {
            for (std::size_t i = 0; i < idleServers.size(); ++i) {
                const int idle = oltbConnect(idleAddresses[i].c_str());
                ASSERT_GT(idle, 0) << takeLastError();
                if ((round + static_cast<int>(i)) % 2 == 0) {
                    ASSERT_EQ(oltbStart(idle), 0) << takeLastError();
                    idleServers[i]->send(counterWords(0, 4096, 1, 1));
                }
                const auto start = Clock::now();
                EXPECT_EQ(oltbDisconnect(idle), 0);
                EXPECT_LT(secondsSince(start), 1.0) << "disconnect returns promptly";
            }
            ++rounds;
        }
    });

    std::vector<oltbTraceEvent> buffer(65536);
    std::uint32_t expected = 0;
    const auto deadline = Clock::now() + 30s;
    bool intact = true;
    while (intact && Clock::now() < deadline) {
        const bool finished = streamed; // read before `sent`: then `sent` is final when `finished` holds
        if (expected >= sent) {
            if (finished) {
                break;
            }
            std::this_thread::sleep_for(1ms);
            continue;
        }
        std::uint32_t count = 0;
        if (oltbTryRead(handle, buffer.data(), 0, static_cast<std::uint32_t>(buffer.size()), &count) != 0) {
            ADD_FAILURE() << takeLastError() << " after " << expected << " words";
            break;
        }
        if (count == 0) {
            std::this_thread::sleep_for(1ms);
        }
        for (std::uint32_t i = 0; i < count && intact; ++i, ++expected) {
            intact = static_cast<std::uint32_t>(buffer[i].Value) == expected && buffer[i].Timestamp == expected + 1u;
            EXPECT_TRUE(intact) << "word " << expected << ": value " << buffer[i].Value << ", stamp "
                                << buffer[i].Timestamp;
        }
    }
    abandoned = true;
    streamer.join();
    neighbours.join();
    EXPECT_EQ(expected, sent.load());
    EXPECT_EQ(rounds, kRounds);
    std::cout << expected << " words streamed intact while " << rounds * idleAddresses.size()
              << " idle connections ended beside them\n";
    EXPECT_EQ(oltbDisconnect(handle), 0);
}

} // namespace
} // namespace oltb::faults
