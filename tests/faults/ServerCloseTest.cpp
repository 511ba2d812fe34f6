// A server that closes the connection at each phase of a client's life: every call fails with its own text within
// its own time limit, the loss is reported once, and the connection is let go; Disconnects from other threads.
#include "tests/support/FakeServer.h"
#include "tests/support/TestSupport.h"

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <map>
#include <set>

namespace {

using namespace oltb::testing;

void closedOnAnOpeningCommand(const char* address, std::uint8_t code, std::size_t commandsSeen) {
    FakeServer server(address);
    server.setReaction(code, Reaction::close());
    const auto start = Clock::now();
    EXPECT_EQ(oltbConnect(address), -1);
    EXPECT_EQ(takeLastError(), connectFailure(address, CommandTimeout));
    EXPECT_LT(secondsSince(start), 6.0);
    EXPECT_EQ(server.commands().size(), commandsSeen) << "nothing is sent after the unanswered command";
}

// Closed while Start waits: the Start times out sleeping, leaves the connection not started, and every later call
// fails at once with its text, leaving its out-parameter alone.
void closedWhileStartWaits() {
    FakeServer server("127.0.3.7");
    const int handle = oltbConnect("127.0.3.7");
    ASSERT_GT(handle, 0) << takeLastError();
    server.setReaction(StartCode, Reaction::close());
    const double cpuAtStart = threadCpuSeconds();
    EXPECT_EQ(oltbStart(handle), -1);
    EXPECT_EQ(takeLastError(), CommandTimeout);
    EXPECT_LT(threadCpuSeconds() - cpuAtStart, 0.3);
    EXPECT_TRUE(waitForConnectionLost(handle, 2s));
    const auto start = Clock::now();
    EXPECT_EQ(oltbClear(handle), 0) << "not started: nothing to restart";
    EXPECT_EQ(oltbStart(handle), -1);
    EXPECT_EQ(takeLastError(), NotEstablished);
    oltbTraceBufferConfig_Struct fetched;
    std::memset(&fetched, 0xAB, sizeof fetched);
    EXPECT_EQ(oltbGetConfig(handle, &fetched), -1);
    EXPECT_EQ(takeLastError(), NotEstablished);
    EXPECT_EQ(fetched.Version, 0xABABABABU);
    std::uint32_t elements = 99;
    EXPECT_EQ(oltbAcquire(handle, 1, 2, &elements), -1);
    EXPECT_EQ(takeLastError(), NoConnection);
    EXPECT_EQ(elements, 99U);
    EXPECT_LT(secondsSince(start), 0.5);
    EXPECT_EQ(oltbDisconnect(handle), 0);
}

// Closed while a read or an acquisition without timeout waits: the call ends with its text and never spins.
void closedWhileWaiting(const char* address, int timeoutMs, bool acquisition, const std::string& text) {
    FakeServer server(address);
    const int handle = oltbConnect(address);
    ASSERT_GT(handle, 0) << takeLastError();
    ASSERT_EQ(oltbStart(handle), 0) << takeLastError();
    ASSERT_EQ(oltbSetReadTimeout(handle, timeoutMs), 0);
    if (acquisition) server.send(concat({makeWord(oltbEventLabel, 100, 1U << 16), counterWords(0, 10, 200, 64)}));
    std::thread closer([&server] {
        std::this_thread::sleep_for(500ms);
        server.closeClient();
    });
    const auto start = Clock::now();
    const double cpuAtStart = threadCpuSeconds();
    oltbTraceEvent events[16];
    std::uint32_t count = 99;
    EXPECT_EQ(acquisition ? oltbAcquire(handle, 1, 2, &count) : oltbRead(handle, events, 0, 16, &count), -1);
    EXPECT_EQ(takeLastError(), text);
    EXPECT_LT(secondsSince(start), 2.5);
    EXPECT_LT(threadCpuSeconds() - cpuAtStart, secondsSince(start) / 4) << "waits sleep instead of spinning";
    closer.join();
    EXPECT_EQ(oltbDisconnect(handle), 0);
}

TEST(ServerCloses, AtEveryPhaseEachCallFailsWithItsTextWithinItsLimit) {
    runSideBySide(
        {{"closed on Stop", [] { closedOnAnOpeningCommand("127.0.3.2", StopCode, 1); }},
         {"closed on GetConfig", [] { closedOnAnOpeningCommand("127.0.3.3", GetConfigCode, 2); }},
         {"closed while Start waits", closedWhileStartWaits},
         {"closed while an acquisition polls", [] { closedWhileWaiting("127.0.3.9", 0, true, NoConnection); }},
         {"closed while a read waits without limit",
          [] { closedWhileWaiting("127.0.3.8", -1, false, NoConnection); }}});
}

TEST(ServerCloses, WhileTracingUnreadDataIsDroppedTheLossReportedOnceAndTheServerFreed) {
    FakeServer server("127.0.3.10");
    const int handle = oltbConnect("127.0.3.10");
    ASSERT_GT(handle, 0) << takeLastError();
    ASSERT_EQ(oltbStart(handle), 0) << takeLastError();
    std::FILE* const captured = std::tmpfile();  // standard error of the whole process
    std::fflush(stderr);
    const int savedError = ::dup(STDERR_FILENO);
    ::dup2(::fileno(captured), STDERR_FILENO);
    server.send(counterWords(0, 50, 64, 64));
    server.closeClient();
    ASSERT_TRUE(waitForConnectionLost(handle, 2s));
    oltbTraceEvent events[64];
    std::uint32_t count = 5;
    EXPECT_EQ(oltbRead(handle, events, 0, 64, &count), -1) << "words received before the loss are gone";
    EXPECT_EQ(takeLastError(), NoConnection);
    EXPECT_EQ(oltbStart(handle), 0) << "still marked started: nothing to do";
    EXPECT_EQ(oltbClear(handle), -1);
    EXPECT_EQ(takeLastError(), NotEstablished);
    EXPECT_EQ(oltbDisconnect(handle), 0);
    std::fflush(stderr);
    ::dup2(savedError, STDERR_FILENO);
    ::close(savedError);
    char text[200] = {};
    std::rewind(captured);
    EXPECT_EQ(std::string(text, std::fread(text, 1, sizeof text - 1, captured)),
              "Reader thread crashed with exception Read failed because of an socket error!\n");
    std::fclose(captured);

    const int next = oltbConnect("127.0.3.10");  // the server serves the next client, whose stream starts clean
    ASSERT_EQ(oltbStart(next), 0) << takeLastError();
    server.send(counterWords(1000, 20, 64, 64));
    EXPECT_EQ(readEvents(next, 20).at(0).Value, 1000);
    EXPECT_EQ(oltbDisconnect(next), 0);
}

// Disconnects from three threads at once while other threads are inside calls on the same handle: a read waiting
// without limit, a command waiting for its answer and a thread polling the handle all end promptly with their texts,
// every Disconnect returns 0, and nothing is used after it was freed (the sanitizer builds check that).
TEST(ServerCloses, DisconnectFromAnotherThreadEndsTheCallsInFlight) {
    FakeServer server("127.0.3.11");
    const int handle = oltbConnect("127.0.3.11");
    ASSERT_GT(handle, 0) << takeLastError();
    ASSERT_EQ(oltbStart(handle), 0);
    ASSERT_EQ(oltbSetReadTimeout(handle, -1), 0);
    server.setReaction(GetConfigCode, {{responseFrame(configPayload(6, 0, 0, 0, 0))}, 0ms, 2500ms});
    std::vector<std::string> texts(3);
    std::vector<double> ended(3);
    const auto start = Clock::now();
    std::vector<std::thread> calls;
    calls.emplace_back([&] {
        oltbTraceEvent events[16];
        std::uint32_t count = 0;
        if (oltbRead(handle, events, 0, 16, &count) != 0) texts[0] = takeLastError();
        ended[0] = secondsSince(start);
    });
    calls.emplace_back([&] {
        oltbTraceBufferConfig_Struct config;
        if (oltbGetConfig(handle, &config) != 0) texts[1] = takeLastError();
        ended[1] = secondsSince(start);
    });
    calls.emplace_back([&] {
        int timeout = 0;
        while (oltbGetReadTimeout(handle, &timeout) == 0 && secondsSince(start) < 5) {}
        texts[2] = takeLastError();
        ended[2] = secondsSince(start);
    });
    std::this_thread::sleep_for(300ms);
    mustReturnWithin(2s, "three Disconnects of one handle", [handle] {
        std::atomic<int> ready{0};
        std::vector<int> results(3, -2);
        std::vector<std::thread> disconnects;
        for (int& result : results) {
            disconnects.emplace_back([&] {
                for (++ready; ready < 3;) {}
                result = oltbDisconnect(handle);
            });
        }
        for (std::thread& disconnect : disconnects) disconnect.join();
        EXPECT_EQ(results, std::vector<int>(3, 0));
    });
    const double disconnected = secondsSince(start);
    for (std::thread& call : calls) call.join();
    EXPECT_EQ(texts[0], NoConnection);
    EXPECT_EQ(texts[1], NotEstablished);
    // Removed between the poll's two lookups, or before it.
    EXPECT_TRUE(texts[2] == "Illegal handle!" || texts[2] == "There is no connection corresponding to this handle.");
    for (const double end : ended) EXPECT_LT(end - disconnected, 1.0);
}

// A Disconnect while one thread reads without limit and another stops tracing, whose answer comes with trace words
// behind it: the read ends with its events or a text of a handle gone, never with the answer decoded as a trace word
// ("TraceEventType 77 not supported!").
TEST(ServerCloses, DisconnectRacingAReadAndAStopEndsTheReadWithItsText) {
    FakeServer server("127.0.10.2");
    server.setReaction(StopCode, {{concat({responseFrame({}), counterWords(0, 64, 1, 1)})}});
    const std::set<std::string> allowed = {"", NoConnection, "Illegal handle!",
                                           "There is no connection corresponding to this handle."};
    std::map<std::string, int> readTexts;
    for (int round = 0; round < 300; ++round) {
        const int handle = oltbConnect("127.0.10.2");
        ASSERT_GT(handle, 0) << takeLastError();
        ASSERT_EQ(oltbStart(handle), 0) << takeLastError();
        ASSERT_EQ(oltbSetReadTimeout(handle, -1), 0);
        std::string readText;
        std::thread reader([&] {
            oltbTraceEvent events[8];
            std::uint32_t count = 0;
            if (oltbRead(handle, events, 0, 8, &count) != 0) readText = takeLastError();
        });
        server.clearCommands();
        std::thread stopper([handle] { oltbStop(handle); });
        server.waitForCommands(1, 1s);  // the Disconnect comes as the Stop's answer goes out, or a little later
        for (const auto until = Clock::now() + round % 25 * 4us; Clock::now() < until;) {}
        EXPECT_EQ(oltbDisconnect(handle), 0);
        reader.join();
        stopper.join();
        ++readTexts[readText];
    }
    for (const auto& [text, count] : readTexts) EXPECT_TRUE(allowed.count(text)) << count << " reads: " << text;
    for (const auto& [text, count] : readTexts) std::printf("%d: %s\n", count, text.c_str());
}

}  // namespace
