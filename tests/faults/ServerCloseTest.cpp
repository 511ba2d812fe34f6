// A server that closes the connection at every phase of a client's life, or that accepts and never answers: every
// call fails with its own text within its own time limit, and the connection is let go.
#include "tests/faults/FaultSupport.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>

namespace oltb::faults {
namespace {

using oltb::testing::FakeServer;
using oltb::testing::kGetConfigCode;
using oltb::testing::kSetConfigCode;
using oltb::testing::kStartCode;
using oltb::testing::kStopCode;
using oltb::testing::Reaction;

// A listener on address:9495 that closes every connection as soon as it has accepted it.
class AcceptAndClose {
public:
    explicit AcceptAndClose(const char* address) {
        _fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const int on = 1;
        ::setsockopt(_fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        sockaddr_in local{};
        local.sin_family = AF_INET;
        local.sin_port = htons(oltb::testing::kTraceBufferPort);
        ::inet_pton(AF_INET, address, &local.sin_addr);
        _listening = ::bind(_fd, reinterpret_cast<const sockaddr*>(&local), sizeof local) == 0 && ::listen(_fd, 8) == 0;
        _thread = std::thread([this] {
            while (!_stopping) {
                pollfd listener{_fd, POLLIN, 0};
                if (::poll(&listener, 1, 20) > 0) {
                    const int client = ::accept4(_fd, nullptr, nullptr, SOCK_CLOEXEC);
                    if (client >= 0) {
                        ::close(client);
                        ++_accepted;
                    }
                }
            }
        });
    }
    ~AcceptAndClose() {
        _stopping = true;
        _thread.join();
        ::close(_fd);
    }
    AcceptAndClose(const AcceptAndClose&) = delete;
    AcceptAndClose& operator=(const AcceptAndClose&) = delete;

    bool listening() const { return _listening; }
    int accepted() const { return _accepted; }

private:
    int _fd = -1;
    bool _listening = false;
    std::atomic<bool> _stopping{false};
    std::atomic<int> _accepted{0};
    std::thread _thread;
};

// Standard error of the whole process, redirected into a file while the object lives.
class StandardErrorCapture {
public:
    StandardErrorCapture() : _file(std::tmpfile()) {
        std::fflush(stderr);
        _saved = ::dup(STDERR_FILENO);
        ::dup2(::fileno(_file), STDERR_FILENO);
    }
    ~StandardErrorCapture() {
        restore();
        std::fclose(_file);
    }
    StandardErrorCapture(const StandardErrorCapture&) = delete;
    StandardErrorCapture& operator=(const StandardErrorCapture&) = delete;

    // Ends the redirection and returns what was written meanwhile.
    std::string text() {
        restore();
        std::string captured;
        std::rewind(_file);
        char buffer[512];
        std::size_t n = 0;
        while ((n = std::fread(buffer, 1, sizeof buffer, _file)) > 0) {
            captured.append(buffer, n);
        }
        return captured;
    }

private:
    void restore() {
        if (_saved >= 0) {
            std::fflush(stderr);
            ::dup2(_saved, STDERR_FILENO);
            ::close(_saved);
            _saved = -1;
        }
    }
    std::FILE* _file;
    int _saved = -1;
};

oltbTraceBufferConfig_Struct labelConfig() {
    oltbTraceBufferConfig_Struct config;
    oltbInitConfig(&config);
    config.Label = true;
    return config;
}

// A connect that fails after the 3 s command limit, with the timeout as its cause.
void expectConnectTimesOut(const char* address) {
    const auto start = Clock::now();
    EXPECT_EQ(oltbConnect(address), -1);
    const double elapsed = secondsSince(start);
    EXPECT_EQ(takeLastError(), connectFailure(address, kCommandTimeout));
    EXPECT_GE(elapsed, 2.9);
    EXPECT_LT(elapsed, 6.0);
}

void closedRightAfterAccept() {
    AcceptAndClose server("127.0.3.1");
    ASSERT_TRUE(server.listening());
    const auto start = Clock::now();
    EXPECT_EQ(oltbConnect("127.0.3.1"), -1);
    EXPECT_LT(secondsSince(start), 6.0);
    // Which of the two depends on a race the library cannot win: whether the reader saw the end of the stream
    // (and closed the socket) before the Stop command was sent, or only while it waited for the answer.
    const std::string text = takeLastError();
    EXPECT_TRUE(text == connectFailure("127.0.3.1", kCommandTimeout) ||
                text == connectFailure("127.0.3.1", kNotEstablished))
        << text;
    EXPECT_EQ(server.accepted(), 1) << "one connection, no retry once connected";
}

void closedOnStop() {
    FakeServer server("127.0.3.2");
    server.setReaction(kStopCode, Reaction::close());
    expectConnectTimesOut("127.0.3.2");
    const auto commands = server.commands();
    ASSERT_EQ(commands.size(), 1u);
    EXPECT_EQ(commands[0].code, kStopCode);
}

void closedOnGetConfig() {
    FakeServer server("127.0.3.3");
    server.setReaction(kGetConfigCode, Reaction::close());
    expectConnectTimesOut("127.0.3.3");
    const auto commands = server.commands();
    ASSERT_EQ(commands.size(), 2u);
    EXPECT_EQ(commands[0].code, kStopCode);
    EXPECT_EQ(commands[1].code, kGetConfigCode);
}

void acceptsButNeverAnswers() {
    FakeServer server("127.0.3.4");
    server.setReaction(kStopCode, Reaction::silent());
    expectConnectTimesOut("127.0.3.4");
    EXPECT_TRUE(server.waitForClientGone(2s)) << "the failed connect closes its socket";
    EXPECT_EQ(server.commands().size(), 1u) << "nothing is sent after the unanswered Stop";
}

void closedWhileSetConfigWaits() {
    FakeServer server("127.0.3.6");
    const int handle = oltbConnect("127.0.3.6");
    ASSERT_GT(handle, 0) << takeLastError();
    server.setReaction(kSetConfigCode, Reaction::close());
    const oltbTraceBufferConfig_Struct config = labelConfig();
    auto start = Clock::now();
    const double cpuAtStart = threadCpuSeconds();
    EXPECT_EQ(oltbSetConfig(handle, &config), -1);
    EXPECT_EQ(takeLastError(), kCommandTimeout);
    EXPECT_GE(secondsSince(start), 2.9);
    EXPECT_LT(threadCpuSeconds() - cpuAtStart, 0.3) << "the command sleeps while it waits";
    EXPECT_TRUE(waitForConnectionLost(handle, 2s));

    // Every later call fails at once.
    start = Clock::now();
    EXPECT_EQ(oltbStop(handle), -1);
    EXPECT_EQ(takeLastError(), kNotEstablished);
    oltbTraceBufferConfig_Struct fetched;
    std::memset(&fetched, 0xAB, sizeof fetched);
    EXPECT_EQ(oltbGetConfig(handle, &fetched), -1);
    EXPECT_EQ(takeLastError(), kNotEstablished);
    EXPECT_EQ(fetched.Version, 0xABABABABu) << "a failed call leaves its out-parameter alone";
    EXPECT_EQ(oltbSetConfig(handle, &config), -1);
    EXPECT_EQ(takeLastError(), kNotEstablished);
    oltbTraceEvent events[4];
    std::uint32_t count = 77;
    EXPECT_EQ(oltbRead(handle, events, 0, 4, &count), -1);
    EXPECT_EQ(takeLastError(), kNoConnection);
    EXPECT_EQ(count, 77u);
    EXPECT_LT(secondsSince(start), 0.5);

    EXPECT_EQ(oltbDisconnect(handle), 0);
    EXPECT_EQ(oltbGetLastErrorLen(), 0);
}

void closedWhileStartWaits() {
    FakeServer server("127.0.3.7");
    const int handle = oltbConnect("127.0.3.7");
    ASSERT_GT(handle, 0) << takeLastError();
    server.setReaction(kStartCode, Reaction::close());
    EXPECT_EQ(oltbStart(handle), -1);
    EXPECT_EQ(takeLastError(), kCommandTimeout);
    EXPECT_TRUE(waitForConnectionLost(handle, 2s));
    // The failed Start left the connection not started: a clear has nothing to restart and succeeds, a new
    // Start finds the connection gone.
    EXPECT_EQ(oltbClear(handle), 0);
    EXPECT_EQ(oltbStart(handle), -1);
    EXPECT_EQ(takeLastError(), kNotEstablished);
    std::uint32_t elements = 0;
    EXPECT_EQ(oltbAcquire(handle, 1, 2, &elements), -1);
    EXPECT_EQ(takeLastError(), kNoConnection);
    EXPECT_EQ(oltbDisconnect(handle), 0);
}

void closedWhileAReadWaits() {
    FakeServer server("127.0.3.8");
    const int handle = oltbConnect("127.0.3.8");
    ASSERT_GT(handle, 0) << takeLastError();
    ASSERT_EQ(oltbStart(handle), 0) << takeLastError();
    ASSERT_EQ(oltbSetReadTimeout(handle, 1500), 0);
    // Closed well inside the read's wait; nothing wakes the read, it runs into its own limit.
    std::thread closer([&server] {
        std::this_thread::sleep_for(300ms);
        server.closeClient();
    });
    oltbTraceEvent events[8];
    std::uint32_t count = 0;
    auto start = Clock::now();
    const double cpuAtStart = threadCpuSeconds();
    EXPECT_EQ(oltbRead(handle, events, 0, 8, &count), -1);
    EXPECT_EQ(takeLastError(), kReadTimeout);
    EXPECT_GE(secondsSince(start), 1.45);
    EXPECT_LT(threadCpuSeconds() - cpuAtStart, 0.3) << "the read sleeps while it waits";
    closer.join();
    EXPECT_TRUE(waitForConnectionLost(handle, 2s));

    start = Clock::now();
    EXPECT_EQ(oltbRead(handle, events, 0, 8, &count), -1);
    EXPECT_EQ(takeLastError(), kNoConnection);
    EXPECT_EQ(oltbTryRead(handle, events, 0, 8, &count), -1);
    EXPECT_EQ(takeLastError(), kNoConnection);
    EXPECT_LT(secondsSince(start), 0.5) << "the next reads fail at once";
    EXPECT_EQ(oltbDisconnect(handle), 0);
}

void closedWhileAnAcquisitionPolls() {
    FakeServer server("127.0.3.9");
    const int handle = oltbConnect("127.0.3.9");
    ASSERT_GT(handle, 0) << takeLastError();
    ASSERT_EQ(oltbStart(handle), 0) << takeLastError();
    // Timeout 0: the acquisition polls until its end label arrives, which it never does; the loss ends it.
    ASSERT_EQ(oltbSetReadTimeout(handle, 0), 0);
    server.send(oltb::testing::concat({oltb::testing::makeWord(oltbEventLabel, 100, 1U << 16),
                                       counterWords(0, 10, 200, 64)}));
    std::thread closer([&server] {
        std::this_thread::sleep_for(800ms);
        server.closeClient();
    });
    const auto start = Clock::now();
    const double cpuAtStart = threadCpuSeconds();
    std::uint32_t elements = 99;
    EXPECT_EQ(oltbAcquire(handle, 1, 2, &elements), -1);
    EXPECT_EQ(takeLastError(), kNoConnection);
    EXPECT_EQ(elements, 99u);
    const double elapsed = secondsSince(start);
    EXPECT_GE(elapsed, 0.75);
    EXPECT_LT(elapsed, 2.5);
    EXPECT_LT(threadCpuSeconds() - cpuAtStart, elapsed / 4) << "the polls pause instead of spinning";
    closer.join();
    oltbTraceEvent events[4];
    EXPECT_EQ(oltbGetAcquiredElements(handle, events, 0, 4, &elements), -1);
    EXPECT_EQ(takeLastError(), "No acquired elements available!");
    EXPECT_EQ(oltbDisconnect(handle), 0);
}

TEST(ServerCloses, AtEveryPhaseEachCallFailsWithItsTextWithinItsLimit) {
    runSideBySide({{"closed right after accept", closedRightAfterAccept},
                   {"closed on Stop", closedOnStop},
                   {"closed on GetConfig", closedOnGetConfig},
                   {"accepts but never answers", acceptsButNeverAnswers},
                   {"closed while SetConfig waits", closedWhileSetConfigWaits},
                   {"closed while Start waits", closedWhileStartWaits},
                   {"closed while a read waits", closedWhileAReadWaits},
                   {"closed while an acquisition polls", closedWhileAnAcquisitionPolls}});
}

TEST(ServerCloses, WhileTracingUnreadDataIsDroppedTheLossReportedOnceAndTheServerFreed) {
    FakeServer server("127.0.3.10");
    const int handle = oltbConnect("127.0.3.10");
    ASSERT_GT(handle, 0) << takeLastError();
    ASSERT_EQ(oltbSetReadTimeout(handle, 2000), 0);
    ASSERT_EQ(oltbStart(handle), 0) << takeLastError();
    server.send(counterWords(0, 100, 64, 64));
    const std::vector<oltbTraceEvent> delivered = readEvents(handle, 100);
    ASSERT_EQ(delivered.size(), 100u);
    EXPECT_EQ(delivered[99].Value, 99);

    StandardErrorCapture standardError;
    server.send(counterWords(100, 50, 64 * 101, 64));
    server.closeClient();
    ASSERT_TRUE(waitForConnectionLost(handle, 2s));

    // Words received before the loss but not yet read are not delivered any more.
    oltbTraceEvent events[200];
    std::uint32_t count = 5;
    EXPECT_EQ(oltbRead(handle, events, 0, 200, &count), -1);
    EXPECT_EQ(takeLastError(), kNoConnection);
    EXPECT_EQ(oltbTryRead(handle, events, 0, 200, &count), -1);
    EXPECT_EQ(takeLastError(), kNoConnection);
    EXPECT_EQ(oltbAcquire(handle, 1, 2, &count), -1);
    EXPECT_EQ(takeLastError(), kNoConnection);
    EXPECT_EQ(count, 5u);
    // Still marked started: a Start has nothing to do and sends nothing; a Stop (and so a Clear) needs the
    // connection.
    EXPECT_EQ(oltbStart(handle), 0);
    EXPECT_EQ(oltbStop(handle), -1);
    EXPECT_EQ(takeLastError(), kNotEstablished);
    EXPECT_EQ(oltbClear(handle), -1);
    EXPECT_EQ(takeLastError(), kNotEstablished);
    bool connected = true;
    EXPECT_EQ(oltbIsConnected(handle, &connected), 0);
    EXPECT_FALSE(connected);
    EXPECT_EQ(oltbDisconnect(handle), 0);
    EXPECT_EQ(standardError.text(), "Reader thread crashed with exception Read failed because of an socket error!\n");

    // The server serves the next client, whose stream starts clean.
    const int next = oltbConnect("127.0.3.10");
    ASSERT_GT(next, handle) << takeLastError();
    ASSERT_EQ(oltbSetReadTimeout(next, 2000), 0);
    ASSERT_EQ(oltbStart(next), 0) << takeLastError();
    server.send(counterWords(1000, 20, 64, 64));
    const std::vector<oltbTraceEvent> fresh = readEvents(next, 20);
    ASSERT_EQ(fresh.size(), 20u);
    EXPECT_EQ(fresh[0].Value, 1000);
    EXPECT_EQ(fresh[19].Value, 1019);
    EXPECT_EQ(oltbDisconnect(next), 0);
}

} // namespace
} // namespace oltb::faults
