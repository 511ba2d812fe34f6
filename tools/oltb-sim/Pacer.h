// Real-time pacing of a stream: at speed s, the card clock may run s * 64 ticks ahead per microsecond of wall
// time since the stream began. At maximum rate there is no limit and the socket alone sets the pace.
#pragma once

#include <chrono>
#include <cstdint>

namespace oltb::sim {

class Pacer {
public:
    using Clock = std::chrono::steady_clock;

    Pacer(double speed, bool maxRate) noexcept : _ticksPerSecond(64e6 * speed), _maxRate(maxRate) {}

    void begin(std::uint64_t streamStartTick, Clock::time_point now) noexcept;
    // Words with field ticks below this may go out now.
    std::uint64_t horizonTick(Clock::time_point now) const noexcept;
    // Wall time until `tick` is due (zero when it is due already or at maximum rate).
    std::chrono::nanoseconds delayUntil(std::uint64_t tick, Clock::time_point now) const noexcept;

private:
    double _ticksPerSecond;
    bool _maxRate;
    std::uint64_t _startTick = 0;
    Clock::time_point _startTime{};
};

}  // namespace oltb::sim
