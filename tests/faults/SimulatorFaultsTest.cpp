// oltb-sim's fault modes against the library: commands the simulator carries out but never answers, answers that
// are empty, short or end in a wrong trailer, and a connection closed while a command waits. Each scenario runs its
// own simulator process on its own address, all side by side.
#include "tests/faults/FaultSupport.h"
#include "tests/integration/SimulatorProcess.h"

#include <iostream>

namespace oltb::faults {
namespace {

using oltb::testing::SimulatorProcess;

void expectConnectFails(const std::vector<std::string>& options, const char* address, const std::string& cause) {
    SimulatorProcess simulator(address, options);
    ASSERT_TRUE(simulator.ready()) << simulator.failure();
    const auto start = Clock::now();
    EXPECT_EQ(oltbConnect(address), -1);
    EXPECT_EQ(takeLastError(), connectFailure(address, cause));
    EXPECT_LT(secondsSince(start), 6.0);
}

void shortAnswerToStopIsEnough() {
    // Stop wants no payload, so 16 payload bytes do not matter; the configuration is still read whole.
    SimulatorProcess simulator("127.0.3.65", {"--malformed-response", "stop", "--malformed-kind", "short"});
    ASSERT_TRUE(simulator.ready()) << simulator.failure();
    const int handle = oltbConnect("127.0.3.65");
    ASSERT_GT(handle, 0) << takeLastError();
    oltbTraceBufferConfig_Struct config;
    EXPECT_EQ(oltbGetConfig(handle, &config), 0) << takeLastError();
    EXPECT_EQ(config.Version, 6u);
    EXPECT_EQ(oltbStop(handle), 0) << takeLastError();
    EXPECT_EQ(oltbDisconnect(handle), 0);
}

void unansweredSetConfigIsStillCarriedOut() {
    SimulatorProcess simulator("127.0.3.66", {"--ignore-command", "setconfig"});
    ASSERT_TRUE(simulator.ready()) << simulator.failure();
    const int handle = oltbConnect("127.0.3.66");
    ASSERT_GT(handle, 0) << takeLastError();
    oltbTraceBufferConfig_Struct config;
    oltbInitConfig(&config);
    config.Spi3Rx = true;
    EXPECT_EQ(oltbSetConfig(handle, &config), -1);
    EXPECT_EQ(takeLastError(), kCommandTimeout);
    oltbTraceBufferConfig_Struct fetched;
    ASSERT_EQ(oltbGetConfig(handle, &fetched), 0) << takeLastError();
    EXPECT_TRUE(fetched.Spi3Rx);
    EXPECT_FALSE(fetched.Label);
    EXPECT_EQ(oltbDisconnect(handle), 0);
}

void wrongTrailerOnStart() {
    SimulatorProcess simulator("127.0.3.67",
                               {"--counter", "--malformed-response", "start", "--malformed-kind", "trailer"});
    ASSERT_TRUE(simulator.ready()) << simulator.failure();
    const int handle = oltbConnect("127.0.3.67");
    ASSERT_GT(handle, 0) << takeLastError();
    EXPECT_EQ(oltbStart(handle), -1);
    EXPECT_EQ(takeLastError(), kCommandTimeout);
    // The simulator streams meanwhile; the connection still answers.
    EXPECT_EQ(oltbStop(handle), 0) << takeLastError();
    oltbTraceBufferConfig_Struct config;
    EXPECT_EQ(oltbGetConfig(handle, &config), 0) << takeLastError();
    bool connected = false;
    EXPECT_EQ(oltbIsConnected(handle, &connected), 0);
    EXPECT_TRUE(connected);
    EXPECT_EQ(oltbDisconnect(handle), 0);
}

void closedWhileSetConfigWaits() {
    // 2000 words at 2000 words per second: the connection closes about 1 s into the 3 s wait.
    SimulatorProcess simulator("127.0.3.68", {"--counter", "--counter-rate", "2000", "--close-after-words", "2000",
                                              "--ignore-command", "setconfig"});
    ASSERT_TRUE(simulator.ready()) << simulator.failure();
    const int handle = oltbConnect("127.0.3.68");
    ASSERT_GT(handle, 0) << takeLastError();
    ASSERT_EQ(oltbStart(handle), 0) << takeLastError();
    oltbTraceBufferConfig_Struct config;
    oltbInitConfig(&config);
    EXPECT_EQ(oltbSetConfig(handle, &config), -1);
    EXPECT_EQ(takeLastError(), kCommandTimeout);
    EXPECT_TRUE(waitForConnectionLost(handle, 2s));
    EXPECT_EQ(oltbStop(handle), -1);
    EXPECT_EQ(takeLastError(), kNotEstablished);
    oltbTraceEvent events[16];
    std::uint32_t count = 0;
    EXPECT_EQ(oltbRead(handle, events, 0, 16, &count), -1);
    EXPECT_EQ(takeLastError(), kNoConnection);
    EXPECT_EQ(oltbDisconnect(handle), 0);
}

TEST(SimulatorFaultModes, EachFaultEndsInItsOwnTextAndNeverTakesTheProcessDown) {
    runSideBySide({
        {"Stop never answered",
         [] { expectConnectFails({"--ignore-command", "stop"}, "127.0.3.60", kCommandTimeout); }},
        {"GetConfig never answered",
         [] { expectConnectFails({"--ignore-command", "getconfig"}, "127.0.3.61", kCommandTimeout); }},
        {"GetConfig answered empty",
         [] {
             expectConnectFails({"--malformed-response", "getconfig", "--malformed-kind", "empty"}, "127.0.3.62",
                                "Expected a response message but received nothing!");
         }},
        {"GetConfig answered with a wrong trailer",
         [] {
             expectConnectFails({"--malformed-response", "0x82", "--malformed-kind", "trailer"}, "127.0.3.63",
                                kCommandTimeout);
         }},
        {"Stop answered with a wrong trailer",
         [] {
             expectConnectFails({"--malformed-response", "16", "--malformed-kind", "trailer"}, "127.0.3.64",
                                kCommandTimeout);
         }},
        {"Stop answered short", shortAnswerToStopIsEnough},
        {"SetConfig never answered", unansweredSetConfigIsStillCarriedOut},
        {"Start answered with a wrong trailer", wrongTrailerOnStart},
        {"closed while SetConfig waits", closedWhileSetConfigWaits},
    });
}

// Reads counting values with reads that take only what has arrived, until `wanted` values are in or nothing more
// has come for `quiet`; returns the values.
std::vector<std::uint32_t> pollValues(const int handle, const std::size_t wanted,
                                      const std::chrono::milliseconds quiet) {
    std::vector<std::uint32_t> values;
    std::vector<oltbTraceEvent> buffer(8192);
    auto lastArrival = Clock::now();
    while (values.size() < wanted) {
        std::uint32_t count = 0;
        if (oltbTryRead(handle, buffer.data(), 0, static_cast<std::uint32_t>(buffer.size()), &count) != 0) {
            ADD_FAILURE() << takeLastError();
            break;
        }
        if (count == 0) {
            if (Clock::now() - lastArrival >= quiet) {
                break;
            }
            std::this_thread::sleep_for(1ms);
            continue;
        }
        lastArrival = Clock::now();
        for (std::uint32_t i = 0; i < count; ++i) {
            values.push_back(static_cast<std::uint32_t>(buffer[i].Value));
        }
    }
    return values;
}

// Counts from `first` on without a gap.
bool countsOnFrom(const std::vector<std::uint32_t>& values, const std::uint32_t first) {
    for (std::size_t i = 0; i < values.size(); ++i) {
        if (values[i] != first + i) {
            ADD_FAILURE() << "value " << i << " is " << values[i] << ", expected " << first + i;
            return false;
        }
    }
    return true;
}

TEST(SimulatorAtFullSpeed, ClearAndStopNeverLetAStaleOrMissingWordThrough) {
    SimulatorProcess simulator("127.0.3.69", {"--counter", "--max-rate"});
    ASSERT_TRUE(simulator.ready()) << simulator.failure();
    const int handle = oltbConnect("127.0.3.69");
    ASSERT_GT(handle, 0) << takeLastError();
    ASSERT_EQ(oltbSetReadTimeout(handle, 0), 0);
    ASSERT_EQ(oltbStart(handle), 0) << takeLastError();
    std::uint64_t checked = 0;
    for (int round = 0; round < 12; ++round) {
        SCOPED_TRACE(round);
        // Every Start restarts the simulator's count at 0; whatever was received before is gone.
        const std::vector<std::uint32_t> values = pollValues(handle, 50000, 2s);
        ASSERT_GE(values.size(), 50000u);
        ASSERT_TRUE(countsOnFrom(values, 0));
        checked += values.size();
        if (round % 2 == 0) {
            ASSERT_EQ(oltbClear(handle), 0) << takeLastError();
            continue;
        }
        // A Stop keeps what arrived before its answer, which comes behind the last word: the rest of the count, up to
        // where the simulator stopped, is all queued once the Stop returns.
        ASSERT_EQ(oltbStop(handle), 0) << takeLastError();
        const std::vector<std::uint32_t> rest = pollValues(handle, 1U << 30, 0ms);
        ASSERT_TRUE(countsOnFrom(rest, static_cast<std::uint32_t>(values.size())));
        checked += rest.size();
        ASSERT_EQ(oltbStart(handle), 0) << takeLastError();
    }
    std::cout << checked << " values checked across clears and stops at full speed\n";
    EXPECT_EQ(oltbDisconnect(handle), 0);
}

} // namespace
} // namespace oltb::faults
