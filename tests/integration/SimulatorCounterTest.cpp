// Integrity of the whole receive path at full speed: oltb-sim's counter sequence, read with oltbRead as fast as the
// simulator can write, must arrive complete, once, in order and with continuous timestamps.
#include "SimulatorProcess.h"

#include "api/oltb.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <iostream>
#include <vector>

namespace oltb::testing {
namespace {

TEST(SimulatorCounter, EveryValueArrivesExactlyOnceInOrderAtMaximumRate) {
    SimulatorProcess simulator("127.0.0.50", {"--counter", "--max-rate"});
    ASSERT_TRUE(simulator.ready()) << simulator.failure();
    const int handle = oltbConnect("127.0.0.50");
    ASSERT_GE(handle, 0);
    ASSERT_EQ(oltbSetReadTimeout(handle, 5000), 0);
    ASSERT_EQ(oltbStart(handle), 0);

    constexpr std::uint32_t kValues = 2000000;
    std::vector<oltbTraceEvent> buffer(65536);
    std::uint32_t expected = 0;
    std::uint64_t previousTimestamp = 0;
    const auto begin = std::chrono::steady_clock::now();
    while (expected < kValues) {
        std::uint32_t count = 0;
        ASSERT_EQ(oltbRead(handle, buffer.data(), 0, static_cast<std::uint32_t>(buffer.size()), &count), 0);
        for (std::uint32_t i = 0; i < count && expected < kValues; ++i, ++expected) {
            const oltbTraceEvent& e = buffer[i];
            ASSERT_EQ(e.Type, oltbEventSpi0Rx);
            ASSERT_EQ(static_cast<std::uint32_t>(e.Value), expected);
            ASSERT_FALSE(e.Overflow);
            if (expected > 0) {
                ASSERT_EQ(e.Timestamp - previousTimestamp, 64u) << "value " << expected;
            }
            previousTimestamp = e.Timestamp;
        }
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    std::cout << "read " << kValues << " counter values in " << seconds << " s (" << kValues / seconds / 1e6
              << " M events/s)\n";
    EXPECT_EQ(oltbDisconnect(handle), 0);
}

}  // namespace
}  // namespace oltb::testing
