// The exported functions through a real connection to the fake server: the read timeout, the connection state,
// configuration failures, the hand-out of acquired series in portions, and process exit with open handles.
#include "api/oltb.h"
#include "tests/support/LastError.h"
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

using oltb::testing::kGetConfigCode;

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

using oltb::testing::takeLastError;

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

TEST(Connection, FailedGetConfigLeavesTheRecordAlone) {
    FakeServer server("127.0.0.74");
    Connection connection("127.0.0.74");
    ASSERT_GT(connection.handle, 0) << takeLastError();
    server.setReactionOnce(kGetConfigCode, oltb::testing::Reaction::payloadResponse(Bytes(16, 0xFF)));
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
    std::vector<oltbTraceEvent> buffer(110);
    EXPECT_EQ(oltbGetAcquiredElements(connection.handle, buffer.data(), 0, 4, &count), -1);
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

    ASSERT_EQ(oltbGetAcquiredElements(connection.handle, buffer.data(), 100, 0, &count), 0);
    EXPECT_EQ(count, 0u) << "count 0 copies nothing and keeps the series ready";
    for (std::uint32_t expected : {4u, 8u, 10u}) {
        ASSERT_EQ(oltbGetAcquiredElements(connection.handle, buffer.data(), 100, 4, &count), 0);
        EXPECT_EQ(count, expected) << "the count is the total handed out so far";
    }
    for (std::uint32_t i = 0; i < 10; ++i) {
        EXPECT_EQ(buffer[100 + i].Value, static_cast<std::int32_t>(1000 + i)) << "element " << i << " at 100 + " << i;
        EXPECT_DOUBLE_EQ(buffer[100 + i].Time, (100.0 + 100.0 * i) / 64.0) << "counted from the start label";
    }
    EXPECT_EQ(oltbGetAcquiredElements(connection.handle, buffer.data(), 100, 4, &count), -1);
    EXPECT_EQ(takeLastError(), "No acquired elements available!");
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
