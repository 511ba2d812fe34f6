// The client's life against the fake server: connecting with retries, the opening exchange and its failures,
// how the reader thread tells responses from trace data, and the end of a connection (Disconnect, loss).
#include "client/TraceBufferClient.h"
#include "tests/client/ClientTestSupport.h"
#include "tests/support/FakeServer.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace OLVEN::TALIX3::TraceBuffer::Testing {
namespace {

using oltb::testing::concat;
using oltb::testing::configPayload;
using oltb::testing::FakeServer;
using oltb::testing::Reaction;
using oltb::testing::responseFrame;

constexpr std::uint8_t StopCode = 16;
constexpr std::uint8_t StartCode = 17;
constexpr std::uint8_t GetConfigCode = 130;

TEST(TraceBufferClient, OpeningExchangeStopsThenAsksForTheConfiguration) {
    FakeServer server("127.0.0.10");
    TraceBufferClient client("127.0.0.10");

    ASSERT_TRUE(server.waitForCommands(2, 1s));
    const auto commands = server.commands();
    ASSERT_EQ(commands.size(), 2U);
    EXPECT_EQ(commands[0].raw, commandBytes(0x10));
    EXPECT_EQ(commands[1].raw, commandBytes(0x82));
    EXPECT_TRUE(client.isRunning());
    EXPECT_EQ(client.readTimeoutMs(), 10000);
}

TEST(TraceBufferClient, OpeningExchangeFailuresNameTheAddressAndTheCause) {
    {
        FakeServer server("127.0.0.12");
        server.setReaction(GetConfigCode, Reaction::payloadResponse(Bytes(16, 0x00)));
        EXPECT_EQ(constructionFailure("127.0.0.12"), connectFailure("127.0.0.12", "Illegal message length"));
    }
    {
        FakeServer server("127.0.0.13");
        server.setReaction(GetConfigCode, Reaction::emptyResponse());
        EXPECT_EQ(constructionFailure("127.0.0.13"),
                  connectFailure("127.0.0.13", "Expected a response message but received nothing!"));
        // The failed construction shut its connection down.
        EXPECT_TRUE(server.waitForClientGone(2s));
    }
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

// Around a response, trace bytes of the same receive are queued whether or not tracing is started.
TEST(TraceBufferClient, KeepsTraceBytesAroundAResponseWhileStarted) {
    FakeServer server("127.0.0.15");
    TraceBufferClient client("127.0.0.15");
    server.setReaction(StartCode, Reaction{{concat({spiWord(100, 1), responseFrame({}), spiWord(200, 2)})}});

    client.Start();
    server.send(spiWord(300, 3));
    EXPECT_EQ(readValues(client, 3), (std::vector<std::int32_t>{1, 2, 3}));
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
    const Bytes config = configPayload(9, 0x1, 0, 0, 0);
    const Bytes frame = responseFrame(config);
    Reaction split{{Bytes(frame.begin(), frame.begin() + 2), Bytes(frame.begin() + 2, frame.end())}, 50ms};
    server.setReaction(GetConfigCode, split);

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

TEST(TraceBufferClient, NoticesThatTheServerClosedTheConnection) {
    StreamCapture errors(std::cerr);
    FakeServer server("127.0.0.22");
    {
        TraceBufferClient client("127.0.0.22");
        client.Start();
        server.closeClient();
        ASSERT_TRUE(eventually([&] { return !client.isRunning(); }));
        EXPECT_EQ(errors.text(), "Reader thread crashed with exception Read failed because of an socket error!\n");

        // Everything that needs the connection now fails at once.
        const auto started = Clock::now();
        const std::string notConnected = "Connection to trace buffer server not established!";
        EXPECT_EQ(failureOf([&] { client.Stop(); }), notConnected);
        EXPECT_EQ(failureOf([&] { client.Clear(); }), notConnected);
        EXPECT_EQ(failureOf([&] { client.GetConfig(); }), notConnected);
        oltbTraceEvent event{};
        EXPECT_EQ(failureOf([&] { client.TryRead(&event, 0, 1); }),
                  "No connection to trace buffer server established.");
        EXPECT_LT(Clock::now() - started, 500ms);
    }
    EXPECT_EQ(server.clientsAccepted(), 1U);
}

}  // namespace
}  // namespace OLVEN::TALIX3::TraceBuffer::Testing
