// The client against the fake server: the command frames on the wire, connecting with retries, how the reader tells
// responses from trace data, what Start, Stop and Clear do with the started state and the unread data, commands
// whose response comes late, Disconnect, and the socket layer underneath.
#include "client/TraceBufferClient.h"
#include "tests/support/FakeServer.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <iostream>
#include <sstream>
#include <thread>

namespace OLVEN::TALIX3::TraceBuffer {
namespace {

using namespace oltb::testing;
using Clock = std::chrono::steady_clock;

const std::string Timeout = "Could not receive a response from the trace buffer server within 3000ms";

// A standard stream captured into a string while the object lives.
class StreamCapture {
public:
    explicit StreamCapture(std::ostream& stream) : _stream(stream), _previous(stream.rdbuf(_captured.rdbuf())) {}
    ~StreamCapture() { _stream.rdbuf(_previous); }
    std::string text() const { return _captured.str(); }

private:
    std::ostream& _stream;
    std::ostringstream _captured;
    std::streambuf* _previous;
};

template <typename Operation>
std::string failureOf(Operation operation) {
    try {
        operation();
    } catch (const std::exception& e) {
        return e.what();
    }
    return "";
}

// The values of the events read until `count` have arrived or 2 s have passed.
std::vector<std::int32_t> readValues(TraceBufferClient& client, std::size_t count) {
    client.setReadTimeoutMs(100);
    std::vector<std::int32_t> values;
    oltbTraceEvent events[16];
    for (const auto deadline = Clock::now() + 2s; values.size() < count && Clock::now() < deadline;) {
        const unsigned read = client.TryRead(events, 0, 16);
        for (unsigned i = 0; i < read; ++i) values.push_back(events[i].Value);
    }
    return values;
}

Bytes spiWord(std::uint32_t timestamp, std::uint32_t value) { return makeWord(oltbEventSpi0Rx, timestamp, value); }

// A connected client whose opening exchange (Stop, then GetConfig) is no longer among the recorded commands.
struct Connection {
    explicit Connection(const std::string& address) : server(address), client(address) {
        EXPECT_TRUE(server.waitForCommands(2, 1s));
        EXPECT_EQ(server.commandCodes(), (std::vector<std::uint8_t>{StopCode, GetConfigCode}));
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
    config.PortB = config.Label = true;  // Version 0 is not sent
    client.SetConfig(config);
    const oltbTraceBufferConfig_Struct stored = client.GetConfig();
    client.Stop();
    ASSERT_TRUE(server.waitForCommands(6, 1s));
    EXPECT_EQ(server.commands(), (std::vector<Bytes>{commandFrame(0x10), commandFrame(0x82), commandFrame(0x11),
                                                     commandFrame(0x81, configPayload(6, 0x2, 0, 0, 0x40000000)),
                                                     commandFrame(0x82), commandFrame(0x10)}));
    EXPECT_EQ(stored.Version, 6U);
    EXPECT_TRUE(stored.PortB && stored.Label && !stored.PortA);
}

TEST(TraceBufferClient, RetriesTwiceThenGivesUpWhenNothingListens) {
    StreamCapture output(std::cout);
    const auto started = Clock::now();
    EXPECT_EQ(
        failureOf([] { TraceBufferClient client("127.0.0.14"); }),
        "Could not connect to the tracebuffer server on address 127.0.0.14. unable to create connectable socket!");
    EXPECT_EQ(output.text(), "Connection failed, retry\nConnection failed, retry\n");
    EXPECT_GE(Clock::now() - started, 400ms) << "two pauses of 200 ms between the three refused attempts";
    EXPECT_LT(Clock::now() - started, 2s);
}

// Word 1 is cut: its first half comes while nothing is kept, its second half once a command waits. Kept or dropped
// go whole words only, so what is read begins with word 2.
TEST(TraceBufferClient, DropsTraceDataWhileNotStartedExceptAroundAResponse) {
    FakeServer server("127.0.0.16");
    TraceBufferClient client("127.0.0.16");
    server.setReaction(
        StopCode,
        Reaction{{concat({slice(spiWord(100, 1), 4, 8), spiWord(200, 2), responseFrame({}), spiWord(300, 3)})}});
    server.send(slice(spiWord(100, 1), 0, 4));
    std::this_thread::sleep_for(200ms);  // nothing shows that a block was dropped: let the reader receive it
    client.Stop();
    EXPECT_EQ(readValues(client, 2), (std::vector<std::int32_t>{2, 3}))
        << "had the first word been kept, it would come first";
}

TEST(TraceBufferClient, CompletesAResponseSplitInsideItsHeader) {
    FakeServer server("127.0.0.23");
    TraceBufferClient client("127.0.0.23");
    const Bytes frame = responseFrame(configPayload(9, 0x1, 0, 0, 0));
    server.setReaction(GetConfigCode, Reaction{{slice(frame, 0, 2), slice(frame, 2, frame.size())}, 50ms});
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
    // Started: Stop, then Start, and what was received but not read is gone, also a word the Stop's answer cut.
    c.client.Start();
    c.server.setReactionOnce(StopCode,
                             Reaction{{concat({responseFrame({}), spiWord(200, 2), slice(spiWord(250, 5), 0, 4)}),
                                       concat({slice(spiWord(250, 5), 4, 8), spiWord(260, 6)})},
                                      100ms});
    c.client.Clear();
    c.server.send(spiWord(300, 3));
    EXPECT_EQ(readValues(c.client, 1), (std::vector<std::int32_t>{3}));
    EXPECT_EQ(c.server.commandCodes(), (std::vector<std::uint8_t>{StopCode, StartCode, StopCode, StartCode}));
}

// A Stop that times out leaves the client started, a Start that times out leaves it not started. The late answer
// (3.5 s) is dropped when it comes, and the commands after it get their own. Each case waits out the 3000 ms limit
// once, so they run side by side.
TEST(TraceCommands, CommandWithoutResponseTimesOutAndKeepsTheStartedState) {
    const Reaction late{{responseFrame({})}, 0ms, 3500ms};
    std::thread stopCase([&] {
        Connection c("127.0.0.17");
        c.client.Start();
        c.server.setReactionOnce(StopCode, late);
        EXPECT_EQ(failureOf([&] { c.client.Stop(); }), Timeout);
        c.client.Clear();  // started: Stop and Start go out
        EXPECT_EQ(c.server.commandCodes(), (std::vector<std::uint8_t>{StartCode, StopCode, StopCode, StartCode}));
    });
    Connection c("127.0.0.18");
    c.server.setReactionOnce(StartCode, late);
    EXPECT_EQ(failureOf([&] { c.client.Start(); }), Timeout);
    c.client.Clear();  // not started: nothing goes out
    c.client.Start();  // not started: goes out again
    EXPECT_EQ(c.server.commandCodes(), (std::vector<std::uint8_t>{StartCode, StartCode}));
    stopCase.join();
}

// Without MSG_NOSIGNAL the second send into a reset connection would raise SIGPIPE and end this test program.
TEST(Kissnet, SendOnAConnectionThePeerClosedFailsWithoutSignal) {
    FakeServer server("127.0.0.26");
    kissnet::tcp_socket socket(kissnet::endpoint("127.0.0.26", 9495));
    socket.connect(2000);
    ASSERT_TRUE(server.waitForClient(1s));
    server.closeClient();
    const std::byte bytes[19] = {};
    ssize_t sent = 0;
    for (int attempt = 0; attempt < 100 && sent >= 0; ++attempt) {
        sent = socket.send(bytes, sizeof(bytes));
        std::this_thread::sleep_for(5ms);
    }
    EXPECT_EQ(sent, -1);
    EXPECT_EQ(errno, EPIPE);
}

}  // namespace
}  // namespace OLVEN::TALIX3::TraceBuffer
