// oltb-sim's fault modes as the library sees them, and the simulator's own exit behaviour.
#include "SimulatorProcess.h"
#include "tests/support/LastError.h"

#include "api/oltb.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <vector>

namespace oltb::testing {
namespace {

using oltb::testing::takeLastError;

TEST(SimulatorFaults, ShortConfigurationAnswerFailsTheConnect) {
    SimulatorProcess simulator("127.0.0.52", {"--malformed-response", "getconfig"});
    ASSERT_TRUE(simulator.ready()) << simulator.failure();
    EXPECT_EQ(oltbConnect("127.0.0.52"), -1);
    EXPECT_EQ(takeLastError(), "Could not connect to the tracebuffer server on address 127.0.0.52. Illegal message length");
}

TEST(SimulatorFaults, OverflowFlagMarksTheFirstValueAfterTheLostOnes) {
    SimulatorProcess simulator("127.0.0.54",
                               {"--counter", "--max-rate", "--overflow-every", "1000", "--overflow-lost", "10"});
    ASSERT_TRUE(simulator.ready()) << simulator.failure();
    const int handle = oltbConnect("127.0.0.54");
    ASSERT_GE(handle, 0) << takeLastError();
    ASSERT_EQ(oltbSetReadTimeout(handle, 5000), 0);
    ASSERT_EQ(oltbStart(handle), 0);
    std::vector<oltbTraceEvent> events(5000);
    std::uint32_t total = 0;
    while (total < events.size()) {
        std::uint32_t count = 0;
        ASSERT_EQ(oltbRead(handle, events.data(), total, static_cast<std::uint32_t>(events.size()) - total, &count),
                  0);
        total += count;
    }
    for (std::uint32_t i = 0; i < total; ++i) {
        ASSERT_EQ(events[i].Value, static_cast<std::int32_t>(i + 10 * (i / 1000))) << "event " << i;
        ASSERT_EQ(events[i].Overflow, i > 0 && i % 1000 == 0) << "event " << i;
    }
    oltbDisconnect(handle);
}

TEST(SimulatorFaults, OccupiedAddressExitsWithCodeTwoAndSigtermWithZero) {
    SimulatorProcess first("127.0.0.55", {});
    ASSERT_TRUE(first.ready()) << first.failure();
    const ProcessResult second = runSimulatorToExit({"--address", "127.0.0.55"}, std::chrono::seconds(5));
    EXPECT_EQ(second.exitCode, 2);
    EXPECT_EQ(second.standardError, "oltb-sim: cannot listen on 127.0.0.55:9495: Address already in use\n");
    EXPECT_EQ(first.terminate(), 0);
}

}  // namespace
}  // namespace oltb::testing
