// Commands through the real client and the fake server: the frames on the wire, what Start, Stop and Clear do
// with the started state and the unread data, commands from two threads, and commands whose response never
// comes.
#include "client/TraceBufferClient.h"
#include "client/TraceConfiguration.h"
#include "tests/client/ClientTestSupport.h"
#include "tests/support/FakeServer.h"

#include <gtest/gtest.h>

#include <functional>
#include <thread>

namespace OLVEN::TALIX3::TraceBuffer::Testing {
namespace {

using oltb::testing::concat;
using oltb::testing::configPayload;
using oltb::testing::FakeServer;
using oltb::testing::Reaction;
using oltb::testing::responseFrame;

constexpr std::uint8_t StopCode = 16;
constexpr std::uint8_t StartCode = 17;
constexpr std::uint8_t SetConfigCode = 129;
constexpr std::uint8_t GetConfigCode = 130;

std::vector<std::uint8_t> codesOf(const std::vector<oltb::testing::CommandFrame>& commands) {
    std::vector<std::uint8_t> codes;
    for (const auto& command : commands) {
        codes.push_back(command.code);
    }
    return codes;
}

// A connected client whose opening exchange is no longer among the server's recorded commands.
struct Connection {
    explicit Connection(const std::string& address) : server(address), client(address) {
        EXPECT_TRUE(server.waitForCommands(2, 1s));
        server.clearCommands();
    }
    FakeServer server;
    TraceBufferClient client;
};

TEST(TraceCommands, FramesOnTheWire) {
    Connection c("127.0.0.25");
    c.client.Start();
    c.client.Start();  // already started: nothing sent
    oltbTraceBufferConfig_Struct config{};
    config.Version = 0;  // not sent
    config.PortB = config.Label = true;
    c.client.SetConfig(config);
    const oltbTraceBufferConfig_Struct stored = c.client.GetConfig();
    c.client.Stop();

    ASSERT_TRUE(c.server.waitForCommands(4, 1s));
    const auto commands = c.server.commands();
    ASSERT_EQ(codesOf(commands), (std::vector<std::uint8_t>{StartCode, SetConfigCode, GetConfigCode, StopCode}));
    EXPECT_EQ(commands[0].raw, commandBytes(0x11));
    EXPECT_EQ(commands[1].raw, commandBytes(0x81, configPayload(6, 0x2, 0, 0, 0x40000000)));
    EXPECT_EQ(commands[2].raw, commandBytes(0x82));
    EXPECT_EQ(commands[3].raw, commandBytes(0x10));
    EXPECT_EQ(stored.Version, 6U);
    EXPECT_TRUE(stored.PortB);
    EXPECT_TRUE(stored.Label);
    EXPECT_FALSE(stored.PortA);
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

// Every case waits out the 3000 ms limit once, so they run side by side, each on its own server.
TEST(TraceCommands, CommandsWithoutResponseTimeOut) {
    StreamCapture errors(std::cerr);
    const std::string timeout = "Could not receive a response from the trace buffer server within 3000ms";
    std::vector<std::thread> cases;

    cases.emplace_back([&] {
        FakeServer server("127.0.0.11");
        server.setReaction(StopCode, Reaction::silent());
        const auto started = Clock::now();
        EXPECT_EQ(constructionFailure("127.0.0.11"), connectFailure("127.0.0.11", timeout));
        const auto elapsed = Clock::now() - started;
        EXPECT_GE(elapsed, 3000ms);
        EXPECT_LT(elapsed, 4500ms);
    });

    cases.emplace_back([&] {  // a Stop that times out leaves the client started
        Connection c("127.0.0.17");
        c.client.Start();
        c.server.setReactionOnce(StopCode, Reaction::silent());
        EXPECT_EQ(failureOf([&] { c.client.Stop(); }), timeout);
        c.client.Clear();  // started: Stop and Start go out
        EXPECT_EQ(codesOf(c.server.commands()), (std::vector<std::uint8_t>{StartCode, StopCode, StopCode, StartCode}));
    });

    cases.emplace_back([&] {  // a Start that times out leaves the client not started
        Connection c("127.0.0.18");
        c.server.setReactionOnce(StartCode, Reaction::silent());
        EXPECT_EQ(failureOf([&] { c.client.Start(); }), timeout);
        c.client.Clear();  // not started: nothing goes out
        c.client.Start();  // not started: goes out again
        EXPECT_EQ(codesOf(c.server.commands()), (std::vector<std::uint8_t>{StartCode, StartCode}));
    });

    for (std::thread& c : cases) {
        c.join();
    }
    EXPECT_EQ(errors.text(), "");
}

}  // namespace
}  // namespace OLVEN::TALIX3::TraceBuffer::Testing
