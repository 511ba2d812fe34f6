// The exported functions through a real connection to the fake server: the read timeout, the connection state,
// configuration failures, the hand-out of acquired series in portions, and process exit with open handles.
#include "api/oltb.h"
#include "tests/support/FakeServer.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using oltb::testing::Bytes;
using oltb::testing::FakeServer;
using oltb::testing::makeWord;

constexpr std::uint8_t GetConfigCode = 130;

pid_t runProgram(std::vector<const char*> arguments) {
    arguments.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawn(&pid, arguments[0], nullptr, nullptr, const_cast<char* const*>(arguments.data()), environ) != 0) {
        return -1;
    }
    return pid;
}

bool waitWithTimeout(pid_t pid, std::chrono::milliseconds limit, int& status) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < deadline) {
        if (waitpid(pid, &status, WNOHANG) == pid) {
            return true;
        }
        std::this_thread::sleep_for(10ms);
    }
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    return false;
}

std::string takeLastError() {
    char buffer[512];
    oltbGetLastError(buffer, sizeof(buffer));
    return buffer;
}

// A connected handle that is closed at the end of the test.
struct Connection {
    explicit Connection(const char* address) : handle(oltbConnect(address)) {}
    ~Connection() { oltbDisconnect(handle); }
    int handle;
};

TEST(Connection, ReadTimeoutStartsAtTenSecondsAndIsStoredUnchanged) {
    FakeServer server("127.0.0.72");
    Connection connection("127.0.0.72");
    ASSERT_GT(connection.handle, 0) << takeLastError();
    int timeout = 0;
    ASSERT_EQ(oltbGetReadTimeout(connection.handle, &timeout), 0);
    EXPECT_EQ(timeout, 10000);
    for (int value : {-5, 0, 1}) {
        ASSERT_EQ(oltbSetReadTimeout(connection.handle, value), 0);
        ASSERT_EQ(oltbGetReadTimeout(connection.handle, &timeout), 0);
        EXPECT_EQ(timeout, value);
    }
}

TEST(Connection, StateTurnsFalseWhenTheServerCloses) {
    FakeServer server("127.0.0.73");
    Connection connection("127.0.0.73");
    ASSERT_GT(connection.handle, 0) << takeLastError();
    bool connected = false;
    ASSERT_EQ(oltbIsConnected(connection.handle, &connected), 0);
    EXPECT_TRUE(connected);

    testing::internal::CaptureStderr();
    server.closeClient();
    for (int attempt = 0; attempt < 200 && connected; ++attempt) {
        std::this_thread::sleep_for(10ms);
        ASSERT_EQ(oltbIsConnected(connection.handle, &connected), 0);
    }
    const std::string diagnostics = testing::internal::GetCapturedStderr();
    EXPECT_FALSE(connected);
    EXPECT_EQ(diagnostics, "Reader thread crashed with exception Read failed because of an socket error!\n");

    EXPECT_EQ(oltbStart(connection.handle), -1) << "the handle stays registered but the connection is gone";
    EXPECT_EQ(takeLastError(), "Connection to trace buffer server not established!");
    oltbTraceEvent events[4];
    std::uint32_t count = 0;
    EXPECT_EQ(oltbTryRead(connection.handle, events, 0, 4, &count), -1);
    EXPECT_EQ(takeLastError(), "No connection to trace buffer server established.");
}

TEST(Connection, FailedGetConfigLeavesTheRecordAlone) {
    FakeServer server("127.0.0.74");
    Connection connection("127.0.0.74");
    ASSERT_GT(connection.handle, 0) << takeLastError();
    server.setReactionOnce(GetConfigCode, oltb::testing::Reaction::payloadResponse(Bytes(16, 0xFF)));
    oltbTraceBufferConfig_Struct config;
    std::memset(&config, 0x5A, sizeof(config));
    const oltbTraceBufferConfig_Struct before = config;
    EXPECT_EQ(oltbGetConfig(connection.handle, &config), -1);
    EXPECT_EQ(takeLastError(), "Illegal message length");
    EXPECT_EQ(std::memcmp(&config, &before, sizeof(config)), 0);

    oltbInitConfig(&config);
    config.Gate = true;
    config.Head0TxY = true;
    ASSERT_EQ(oltbSetConfig(connection.handle, &config), 0);
    oltbTraceBufferConfig_Struct readBack;
    ASSERT_EQ(oltbGetConfig(connection.handle, &readBack), 0);
    EXPECT_EQ(std::memcmp(&readBack, &config, sizeof(config)), 0);
}

TEST(Connection, AcquiredSeriesIsHandedOutInPortions) {
    FakeServer server("127.0.0.75");
    Connection connection("127.0.0.75");
    ASSERT_GT(connection.handle, 0) << takeLastError();
    std::uint32_t count = 0;
    oltbTraceEvent buffer[120];
    EXPECT_EQ(oltbGetAcquiredElements(connection.handle, buffer, 0, 4, &count), -1);
    EXPECT_EQ(takeLastError(), "No acquired elements available!");

    ASSERT_EQ(oltbStart(connection.handle), 0);
    Bytes stream;
    auto append = [&stream](const Bytes& word) { stream.insert(stream.end(), word.begin(), word.end()); };
    append(makeWord(oltbEventLabel, 100 - 16, 1u << 16));  // a 16-bit word: stamped 16 ticks later, at 100
    for (std::uint32_t i = 0; i < 10; ++i) {
        append(makeWord(oltbEventSpi0Rx, 200 + 100 * i, 1000 + i));
    }
    append(makeWord(oltbEventLabel, 5000, 2u << 16));
    append(makeWord(oltbEventSpi0Rx, 9000, 99));  // 62 us after the end label: outside
    server.send(stream);

    ASSERT_EQ(oltbAcquire(connection.handle, 1, 2, &count), 0) << takeLastError();
    ASSERT_EQ(count, 10u);

    std::memset(buffer, 0, sizeof(buffer));
    for (std::uint32_t expected : {4u, 8u, 10u}) {
        ASSERT_EQ(oltbGetAcquiredElements(connection.handle, buffer, 0, 4, &count), 0);
        EXPECT_EQ(count, expected) << "the count is the total handed out so far";
    }
    for (std::uint32_t i = 0; i < 10; ++i) {
        EXPECT_EQ(buffer[i].Value, static_cast<std::int32_t>(1000 + i)) << "element " << i;
        EXPECT_DOUBLE_EQ(buffer[i].Time, (100.0 + 100.0 * i) / 64.0) << "counted from the start label";
    }
    EXPECT_EQ(oltbGetAcquiredElements(connection.handle, buffer, 0, 4, &count), -1);
    EXPECT_EQ(takeLastError(), "No acquired elements available!");
}

TEST(Connection, AcquiredSeriesAtAnOffsetAndWithCountZero) {
    FakeServer server("127.0.0.76");
    Connection connection("127.0.0.76");
    ASSERT_GT(connection.handle, 0) << takeLastError();
    ASSERT_EQ(oltbStart(connection.handle), 0);
    Bytes stream;
    auto append = [&stream](const Bytes& word) { stream.insert(stream.end(), word.begin(), word.end()); };
    append(makeWord(oltbEventLabel, 100, 7u << 16));
    for (std::uint32_t i = 0; i < 10; ++i) {
        append(makeWord(oltbEventSpi1Rx, 200 + 10 * i, i));
    }
    append(makeWord(oltbEventLabel, 400, 8u << 16));
    server.send(stream);
    std::uint32_t count = 0;
    ASSERT_EQ(oltbAcquire(connection.handle, 7, 8, &count), 0) << takeLastError();
    ASSERT_EQ(count, 10u);

    std::vector<oltbTraceEvent> buffer(110);
    ASSERT_EQ(oltbGetAcquiredElements(connection.handle, buffer.data(), 100, 0, &count), 0);
    EXPECT_EQ(count, 0u) << "count 0 copies nothing and keeps the series ready";
    ASSERT_EQ(oltbGetAcquiredElements(connection.handle, buffer.data(), 100, 50, &count), 0);
    EXPECT_EQ(count, 10u);
    for (std::uint32_t i = 0; i < 10; ++i) {
        EXPECT_EQ(buffer[100 + i].Value, static_cast<std::int32_t>(i));
        EXPECT_EQ(buffer[100 + i].Type, oltbEventSpi1Rx);
    }
}

TEST(Connection, ProcessExitWithOpenHandlesEndsCleanly) {
    FakeServer server("127.0.0.77");
    FakeServer otherServer("127.0.0.79");
    const pid_t child = runProgram({OLTB_EXIT_HELPER_PATH, "127.0.0.77", "127.0.0.79"});
    ASSERT_GT(child, 0);
    int status = 0;
    ASSERT_TRUE(waitWithTimeout(child, 20s, status)) << "the process did not end";
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
