// The fake server against a plain POSIX client socket: frame reassembly, default and scripted
// answers, closing, serving clients one after another, and a prompt shutdown.
#include "tests/support/FakeServer.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <thread>

namespace oltb::testing {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

class TestClient {
public:
    explicit TestClient(const std::string& address) : _fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in server{};
        server.sin_family = AF_INET;
        server.sin_port = htons(kTraceBufferPort);
        ::inet_pton(AF_INET, address.c_str(), &server.sin_addr);
        const int on = 1;
        ::setsockopt(_fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        if (::connect(_fd, reinterpret_cast<const sockaddr*>(&server), sizeof server) != 0) {
            ::close(_fd);
            throw std::runtime_error("test client cannot connect to " + address);
        }
    }
    ~TestClient() { close(); }
    TestClient(const TestClient&) = delete;
    TestClient& operator=(const TestClient&) = delete;

    void send(const Bytes& bytes) {
        ASSERT_EQ(::send(_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    }
    void send(const Bytes& bytes, std::size_t from, std::size_t to) {
        send(Bytes(bytes.begin() + static_cast<std::ptrdiff_t>(from), bytes.begin() + static_cast<std::ptrdiff_t>(to)));
    }

    /// Up to `count` bytes, fewer if the stream ends or the timeout passes first.
    Bytes receive(std::size_t count, std::chrono::milliseconds timeout = 2s) {
        Bytes bytes;
        receiveInto(bytes, count, timeout);
        return bytes;
    }

    /// Everything until the server closes the connection; `ended` tells whether it did in time.
    Bytes receiveUntilEnd(bool& ended, std::chrono::milliseconds timeout = 2s) {
        Bytes bytes;
        ended = receiveInto(bytes, SIZE_MAX, timeout);
        return bytes;
    }

    void close() {
        if (_fd >= 0) {
            ::close(_fd);
            _fd = -1;
        }
    }

private:
    // Returns true when the stream ended.
    bool receiveInto(Bytes& bytes, std::size_t count, std::chrono::milliseconds timeout) {
        const auto deadline = Clock::now() + timeout;
        while (bytes.size() < count) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
            pollfd readable{_fd, POLLIN, 0};
            if (left.count() <= 0 || ::poll(&readable, 1, static_cast<int>(left.count())) <= 0) {
                return false;
            }
            std::uint8_t buffer[4096];
            const ssize_t received = ::recv(_fd, buffer, std::min(sizeof buffer, count - bytes.size()), 0);
            if (received <= 0) {
                return true;
            }
            bytes.insert(bytes.end(), buffer, buffer + received);
        }
        return false;
    }

    int _fd;
};

const Bytes kEmptyResponse{0x4D, 0x4D, 0x4D, 0x4D, 0x00, 0xB2, 0xB2};

TEST(FakeServerHelpers, ConfigPayloadPutsConf3BeforeConf2AndWordsAreLittleEndian) {
    EXPECT_EQ(configPayload(6, 0x04030201, 0x08070605, 0x100F0E0D, 0x0C0B0A09),
              (Bytes{6, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}));
    EXPECT_EQ(makeWord(5, 0x123456, 0xDEADBEEF, true), (Bytes{0x56, 0x34, 0x12, 0x85, 0xEF, 0xBE, 0xAD, 0xDE}));
    EXPECT_EQ(makeWord(127, 0x1000000, 1), (Bytes{0, 0, 0, 0x7F, 1, 0, 0, 0})); // timestamp cut to 24 bits
    EXPECT_EQ(responseFrame({}), kEmptyResponse);
    EXPECT_THROW(responseFrame(Bytes(256, 0)), std::invalid_argument);
}

TEST(FakeServerFrames, FramesCutAnywhereInTheStreamAreReassembledAndAnswered) {
    FakeServer server("127.0.0.200");
    TestClient client("127.0.0.200");
    const Bytes config = configPayload(6, 0x1, 0x4, 0x200, 0x40000000);
    const Bytes stream = concat({commandFrame(kGetConfigCode), commandFrame(kStopCode),
                                 commandFrame(kSetConfigCode, config), commandFrame(kGetConfigCode)});

    client.send(stream, 0, 7);
    EXPECT_FALSE(server.waitForCommands(1, 50ms)) << "a partial frame must not be recorded";
    client.send(stream, 7, 25);  // rest of the first frame, start of the second
    client.send(stream, 25, 76); // rest of the second frame and the last two whole

    ASSERT_TRUE(server.waitForCommands(4, 2s));
    const std::vector<CommandFrame> frames = server.commands();
    ASSERT_EQ(frames.size(), 4u);
    const std::uint8_t codes[] = {kGetConfigCode, kStopCode, kSetConfigCode, kGetConfigCode};
    for (std::size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(frames[i].code, codes[i]);
        EXPECT_EQ(frames[i].raw, Bytes(stream.begin() + 19 * i, stream.begin() + 19 * (i + 1)));
    }
    EXPECT_EQ(frames[2].payload, config);

    // A fresh server holds version 6 and no signals; SetConfig stores its payload for later GetConfigs.
    Bytes freshAnswer{0x4D, 0x4D, 0x4D, 0x4D, 17, 6};
    freshAnswer.resize(5 + 17, 0);
    freshAnswer.insert(freshAnswer.end(), {0xB2, 0xB2});
    const Bytes answers = concat({freshAnswer, kEmptyResponse, kEmptyResponse, responseFrame(config)});
    EXPECT_EQ(client.receive(answers.size()), answers);
    EXPECT_EQ(server.config(), config);
}

TEST(FakeServerFrames, FrameWithoutMarkerIsRecordedButNotAnswered) {
    FakeServer server("127.0.0.202");
    server.setReaction(kStopCode, Reaction::payloadResponse({1}));
    TestClient client("127.0.0.202");
    Bytes unmarked = commandFrame(kStopCode);
    unmarked[0] = 0x00;
    client.send(concat({unmarked, commandFrame(kStartCode)}));

    ASSERT_TRUE(server.waitForCommands(2, 2s));
    EXPECT_EQ(server.commands()[0].raw, unmarked);
    EXPECT_EQ(server.commands()[0].code, kStopCode);
    EXPECT_EQ(client.receive(kEmptyResponse.size()), kEmptyResponse) << "only the Start frame is answered";
}

TEST(FakeServerReactions, OnceReactionsComeFirstInOrderThenThePersistentOne) {
    FakeServer server("127.0.0.203");
    server.setReaction(kStopCode, Reaction::payloadResponse({1}));
    server.setReactionOnce(kStopCode, Reaction::payloadResponse({2}));
    server.setReactionOnce(kStopCode, Reaction::payloadResponse({3}));
    TestClient client("127.0.0.203");
    for (int i = 0; i < 4; ++i) {
        client.send(commandFrame(kStopCode));
    }
    client.send(commandFrame(kStartCode));

    const Bytes expected = concat({responseFrame({2}), responseFrame({3}), responseFrame({1}), responseFrame({1}),
                                   kEmptyResponse});
    EXPECT_EQ(client.receive(expected.size()), expected);
}

TEST(FakeServerReactions, ReactionFunctionDecidesEveryFrameUntilUnset) {
    FakeServer server("127.0.0.204");
    server.setReaction(kStopCode, Reaction::close());
    server.setReactionFunction([](const CommandFrame& frame) { return Reaction::payloadResponse({frame.code}); });
    TestClient client("127.0.0.204");
    client.send(commandFrame(kStopCode));
    client.send(commandFrame(0x42));
    EXPECT_EQ(client.receive(16), concat({responseFrame({kStopCode}), responseFrame({0x42})}));

    server.setReactionFunction(nullptr);
    client.send(commandFrame(kStartCode));
    EXPECT_EQ(client.receive(kEmptyResponse.size()), kEmptyResponse);
}

TEST(FakeServerReactions, ChunksArriveInOrderAfterTheirPauses) {
    FakeServer server("127.0.0.205");
    Reaction reaction;
    reaction.chunks = {{0x4D, 0x4D}, {0x4D, 0x4D, 0x01, 0x07}, {0xB2, 0xB2}, makeWord(1, 2, 3)};
    reaction.delayBeforeFirstChunk = 100ms;
    reaction.pauseBetweenChunks = 30ms;
    server.setReactionOnce(kStartCode, reaction);
    TestClient client("127.0.0.205");

    const auto sentAt = Clock::now();
    client.send(commandFrame(kStartCode));
    EXPECT_EQ(client.receive(16), concat({responseFrame({7}), makeWord(1, 2, 3)}));
    EXPECT_GE(Clock::now() - sentAt, 100ms + 3 * 30ms);
}

TEST(FakeServerReactions, WordsStreamedByTheTestAndAnswersStayWhole) {
    FakeServer server("127.0.0.206");
    TestClient client("127.0.0.206");
    ASSERT_TRUE(server.waitForClient(2s));
    constexpr std::size_t kWords = 2000;
    constexpr std::size_t kFrames = 20;
    const Bytes word = traceWord(0x0101010101010101u);
    std::thread streamer([&] {
        for (std::size_t i = 0; i < kWords; ++i) {
            server.send(word);
        }
    });
    for (std::size_t i = 0; i < kFrames; ++i) {
        client.send(commandFrame(kGetConfigCode));
    }
    const Bytes answer = responseFrame(server.config());
    const Bytes received = client.receive(kWords * word.size() + kFrames * answer.size(), 10s);
    streamer.join();

    std::size_t words = 0;
    std::size_t answers = 0;
    for (std::size_t at = 0; at < received.size();) {
        const Bytes& expected = received[at] == 0x4D ? answer : word;
        ASSERT_LE(at + expected.size(), received.size()) << "cut at byte " << at;
        ASSERT_TRUE(std::equal(expected.begin(), expected.end(), received.begin() + static_cast<std::ptrdiff_t>(at)))
            << "interleaved at byte " << at;
        (received[at] == 0x4D ? answers : words) += 1;
        at += expected.size();
    }
    EXPECT_EQ(words, kWords);
    EXPECT_EQ(answers, kFrames);
}

TEST(FakeServerConnections, CloseReactionsEndTheConnectionAndTheNextClientIsServed) {
    FakeServer server("127.0.0.207");
    Reaction answerThenClose = Reaction::payloadResponse({5});
    answerThenClose.closeAfter = true;
    server.setReactionOnce(kStopCode, answerThenClose);
    server.setReactionOnce(kStartCode, Reaction::close());
    bool ended = false;

    TestClient first("127.0.0.207");
    first.send(commandFrame(kStopCode));
    EXPECT_EQ(first.receiveUntilEnd(ended), responseFrame({5}));
    EXPECT_TRUE(ended);

    TestClient second("127.0.0.207");
    second.send(commandFrame(kStartCode));
    EXPECT_TRUE(second.receiveUntilEnd(ended).empty());
    EXPECT_TRUE(ended);

    TestClient third("127.0.0.207");
    third.send(commandFrame(kStopCode));
    EXPECT_EQ(third.receive(kEmptyResponse.size()), kEmptyResponse);
    EXPECT_EQ(server.clientsAccepted(), 3u);
    std::vector<std::uint8_t> codes;
    for (const CommandFrame& frame : server.commands()) {
        codes.push_back(frame.code);
    }
    EXPECT_EQ(codes, (std::vector<std::uint8_t>{kStopCode, kStartCode, kStopCode}));
}

TEST(FakeServerConnections, ClientLeavingIsSeenAndTheServerCanCloseTheNextOne) {
    FakeServer server("127.0.0.208");
    auto first = std::make_unique<TestClient>("127.0.0.208");
    ASSERT_TRUE(server.waitForClient(2s));
    first.reset();
    EXPECT_TRUE(server.waitForClientGone(2s));

    TestClient second("127.0.0.208");
    ASSERT_TRUE(server.waitForClientsAccepted(2, 2s));
    EXPECT_FALSE(server.waitForClientGone(0ms));
    server.closeClient();
    bool ended = false;
    second.receiveUntilEnd(ended);
    EXPECT_TRUE(ended);
    EXPECT_FALSE(server.waitForClientGone(0ms)) << "a connection the server closed is not a client that left";
    server.send(makeWord(1, 2, 3)); // no client: dropped
}

TEST(FakeServerLifecycle, RefusesTakenOrForeignAddressesAndStopsPromptlyMidReaction) {
    auto server = std::make_unique<FakeServer>("127.0.0.209");
    EXPECT_THROW(FakeServer("127.0.0.209"), std::runtime_error);
    EXPECT_THROW(FakeServer("192.0.2.1"), std::runtime_error);
    EXPECT_THROW(FakeServer("localhost"), std::runtime_error);

    Reaction slow;
    slow.chunks = {kEmptyResponse, kEmptyResponse};
    slow.pauseBetweenChunks = 30s;
    server->setReaction(kStopCode, slow);
    TestClient client("127.0.0.209");
    client.send(commandFrame(kStopCode));
    ASSERT_EQ(client.receive(kEmptyResponse.size()), kEmptyResponse);

    const auto stoppingAt = Clock::now();
    server.reset();
    EXPECT_LT(Clock::now() - stoppingAt, 2s);
    EXPECT_NO_THROW(FakeServer("127.0.0.209")) << "the address is free again at once";
}

} // namespace
} // namespace oltb::testing
