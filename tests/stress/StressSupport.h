// Bounds of the stress tests: how long they run (OLTB_STRESS_SECONDS, for longer soak runs), and streams of counting
// words cut at random places, as a congested network would cut them.
#pragma once

#include "tests/faults/FaultSupport.h"

#include <algorithm>
#include <cstdlib>
#include <random>

namespace oltb::stress {

using namespace oltb::faults;

// Seconds a stress test runs: OLTB_STRESS_SECONDS when set to a positive number, else `fallback`.
inline double stressSeconds(const double fallback) {
    const char* const text = std::getenv("OLTB_STRESS_SECONDS");
    const double seconds = text != nullptr ? std::strtod(text, nullptr) : 0.0;
    return seconds > 0.0 ? seconds : fallback;
}

// Sends `bytes` in pieces: half of them 1 to 16 bytes long (words cut in the middle), the others up to 4 KiB.
inline void sendCut(oltb::testing::FakeServer& server, const Bytes& bytes, std::mt19937& random) {
    std::size_t position = 0;
    while (position < bytes.size()) {
        const std::size_t most = random() % 2 == 0 ? 16 : 4096;
        const std::size_t size = std::min<std::size_t>(1 + random() % most, bytes.size() - position);
        server.send(slice(bytes, position, position + size));
        position += size;
    }
}

} // namespace oltb::stress
