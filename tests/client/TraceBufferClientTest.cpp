// The client against the fake server: the opening exchange and the command frames on the wire, connecting with
// retries, how the reader thread tells responses from trace data, what Start, Stop and Clear do with the started
// state and the unread data, commands from two threads, commands whose response never comes, and Disconnect.
#include "client/TraceBufferClient.h"
#include "tests/client/ClientTestSupport.h"
#include "tests/support/FakeServer.h"

#include <gtest/gtest.h>

#include <functional>
#include <mutex>
#include <stdexcept>
#include <thread>

namespace OLVEN::TALIX3::TraceBuffer::Testing {
namespace {

using oltb::testing::concat;
using oltb::testing::configPayload;
using oltb::testing::FakeServer;
using oltb::testing::Reaction;
using oltb::testing::responseFrame;

constexpr std::uint8_t StopCode = oltb::testing::kStopCode;
constexpr std::uint8_t StartCode = oltb::testing::kStartCode;
constexpr std::uint8_t SetConfigCode = oltb::testing::kSetConfigCode;
constexpr std::uint8_t GetConfigCode = oltb::testing::kGetConfigCode;

std::vector<std::uint8_t> codesOf(const std::vector<oltb::testing::CommandFrame>& commands) {
    std::vector<std::uint8_t> codes;
    for (const auto& command : commands) {
        codes.push_back(command.code);
    }
    return codes;
}

// A connected client whose opening exchange (Stop, then GetConfig) is no longer among the recorded commands.
struct Connection {
    explicit Connection(const std::string& address) : server(address), client(address) {
        EXPECT_TRUE(server.waitForCommands(2, 1s));
        EXPECT_EQ(codesOf(server.commands()), (std::vector<std::uint8_t>{StopCode, GetConfigCode}));
        server.clearCommands();
    }
    FakeServer server;
    TraceBufferClient client;
};

TEST(TraceCommands, FramesOnTheWire) {
    FakeServer server("127.0.0.25");
    TraceBufferClient client("127.0.0.25");
    client.Start();
    client.Start();  // already started: nothing sent
    oltbTraceBufferConfig_Struct config{};
    config.Version = 0;  // not sent
    config.PortB = config.Label = true;
    client.SetConfig(config);
    const oltbTraceBufferConfig_Struct stored = client.GetConfig();
    client.Stop();

    ASSERT_TRUE(server.waitForCommands(6, 1s));
    const Bytes expected[] = {commandBytes(0x10), commandBytes(0x82), commandBytes(0x11),
                              commandBytes(0x81, configPayload(6, 0x2, 0, 0, 0x40000000)), commandBytes(0x82),
                              commandBytes(0x10)};
    const auto commands = server.commands();
    ASSERT_EQ(commands.size(), std::size(expected));
    for (std::size_t i = 0; i < commands.size(); ++i) EXPECT_EQ(commands[i].raw, expected[i]) << "command " << i;
    EXPECT_EQ(stored.Version, 6U);
    EXPECT_TRUE(stored.PortB);
    EXPECT_TRUE(stored.Label);
    EXPECT_FALSE(stored.PortA);
}

TEST(TraceBufferClient, RetriesTwiceThenGivesUpWhenNothingListens) {
    StreamCapture output(std::cout);
    const auto started = Clock::now();
    const std::string failure = constructionFailure("127.0.0.14");
    const auto elapsed = Clock::now() - started;

    EXPECT_EQ(failure, connectFailure("127.0.0.14", "unable to create connectable socket!"));
    EXPECT_EQ(output.text(), "Connection failed, retry\nConnection failed, retry\n");
    EXPECT_GE(elapsed, 400ms);  // two pauses of 200 ms between the three refused attempts
    EXPECT_LT(elapsed, 2s);
}

TEST(TraceBufferClient, DropsTraceDataWhileNotStartedExceptAroundAResponse) {
    FakeServer server("127.0.0.16");
    TraceBufferClient client("127.0.0.16");
    server.setReaction(StopCode, Reaction{{concat({spiWord(200, 2), responseFrame({}), spiWord(300, 3)})}});

    server.send(spiWord(100, 1));
    // Nothing shows that a block was dropped; give the reader time to receive it before the next command.
    std::this_thread::sleep_for(200ms);
    client.Stop();
    // Had the first word been queued, it would come first.
    EXPECT_EQ(readValues(client, 2), (std::vector<std::int32_t>{2, 3}));
}

TEST(TraceBufferClient, CompletesAResponseSplitInsideItsHeader) {
    FakeServer server("127.0.0.23");
    TraceBufferClient client("127.0.0.23");
    const Bytes frame = responseFrame(configPayload(9, 0x1, 0, 0, 0));
    server.setReaction(GetConfigCode,
                       Reaction{{Bytes(frame.begin(), frame.begin() + 2), Bytes(frame.begin() + 2, frame.end())}, 50ms});

    const oltbTraceBufferConfig_Struct received = client.GetConfig();
    EXPECT_EQ(received.Version, 9U);
    EXPECT_TRUE(received.PortA);
}

TEST(TraceBufferClient, DisconnectReleasesTheBlockedReaderSilently) {
    StreamCapture errors(std::cerr);
    FakeServer server("127.0.0.21");
    {
        TraceBufferClient client("127.0.0.21");
        const auto started = Clock::now();
        client.Disconnect();
        EXPECT_LT(Clock::now() - started, 500ms);
        EXPECT_FALSE(client.isRunning());
        EXPECT_TRUE(server.waitForClientGone(2s));
    }
    EXPECT_EQ(errors.text(), "");
}

TEST(TraceCommands, ClearRestartsOnlyARunningTrace) {
    Connection c("127.0.0.19");
    // Trace bytes behind a response are queued even while not started; a Clear of a client that is not started
    // sends nothing and leaves them to be read.
    c.server.setReactionOnce(StopCode, Reaction{{concat({responseFrame({}), spiWord(100, 1)})}});
    c.client.Stop();
    c.client.Clear();
    EXPECT_EQ(readValues(c.client, 1), (std::vector<std::int32_t>{1}));

    // Started: Stop, then Start, and what was received but not read is gone.
    c.client.Start();
    c.server.setReactionOnce(StopCode, Reaction{{concat({responseFrame({}), spiWord(200, 2)})}});
    c.client.Clear();
    c.server.send(spiWord(300, 3));
    EXPECT_EQ(readValues(c.client, 1), (std::vector<std::int32_t>{3}));
    EXPECT_EQ(codesOf(c.server.commands()), (std::vector<std::uint8_t>{StopCode, StartCode, StopCode, StartCode}));
}

// Late answers keep each command waiting while the other thread's command is due; a response taken by the
// wrong command would leave GetConfig empty-handed.
TEST(TraceCommands, CommandsOfTwoThreadsEachGetTheirOwnResponse) {
    Connection c("127.0.0.20");
    c.server.setConfig(configPayload(7, 0x1, 0, 0, 0));
    c.server.setReactionFunction([&c](const oltb::testing::CommandFrame& frame) {
        Reaction reaction = frame.code == GetConfigCode ? Reaction::payloadResponse(c.server.config())
                                                        : Reaction::emptyResponse();
        reaction.delayBeforeFirstChunk = 5ms;
        return reaction;
    });

    constexpr int Rounds = 20;
    std::vector<std::string> failures;
    std::mutex failuresMutex;
    auto run = [&](const std::function<void()>& command) {
        for (int i = 0; i < Rounds; ++i) {
            const std::string failure = failureOf(command);
            if (!failure.empty()) {
                const std::lock_guard<std::mutex> lock(failuresMutex);
                failures.push_back(failure);
            }
        }
    };
    std::thread stopping(run, [&] { c.client.Stop(); });
    std::thread asking(run, [&] {
        const oltbTraceBufferConfig_Struct config = c.client.GetConfig();
        if (config.Version != 7 || !config.PortA) {
            throw std::runtime_error("someone else's response");
        }
    });
    stopping.join();
    asking.join();
    EXPECT_EQ(failures, std::vector<std::string>{});
    EXPECT_EQ(c.server.commands().size(), 2U * Rounds);
}

// A Stop that times out leaves the client started, a Start that times out leaves it not started. Each case waits
// out the 3000 ms limit once, so they run side by side, each on its own server.
TEST(TraceCommands, CommandWithoutResponseTimesOutAndKeepsTheStartedState) {
    StreamCapture errors(std::cerr);
    const std::string timeout = "Could not receive a response from the trace buffer server within 3000ms";
    std::thread stopCase([&] {
        Connection c("127.0.0.17");
        c.client.Start();
        c.server.setReactionOnce(StopCode, Reaction::silent());
        EXPECT_EQ(failureOf([&] { c.client.Stop(); }), timeout);
        c.client.Clear();  // started: Stop and Start go out
        EXPECT_EQ(codesOf(c.server.commands()), (std::vector<std::uint8_t>{StartCode, StopCode, StopCode, StartCode}));
    });
    std::thread startCase([&] {
        Connection c("127.0.0.18");
        c.server.setReactionOnce(StartCode, Reaction::silent());
        EXPECT_EQ(failureOf([&] { c.client.Start(); }), timeout);
        c.client.Clear();  // not started: nothing goes out
        c.client.Start();  // not started: goes out again
        EXPECT_EQ(codesOf(c.server.commands()), (std::vector<std::uint8_t>{StartCode, StartCode}));
    });
    stopCase.join();
    startCase.join();
    EXPECT_EQ(errors.text(), "");
}

}  // namespace
}  // namespace OLVEN::TALIX3::TraceBuffer::Testing
