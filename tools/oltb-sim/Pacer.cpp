#include "tools/oltb-sim/Pacer.h"

#include "tools/oltb-sim/TraceSource.h"

namespace oltb::sim {

void Pacer::begin(const std::uint64_t streamStartTick, const Clock::time_point now) noexcept {
    _startTick = streamStartTick;
    _startTime = now;
}

std::uint64_t Pacer::horizonTick(const Clock::time_point now) const noexcept {
    if (_maxRate) {
        return NoHorizon;
    }
    const double elapsedSeconds = std::chrono::duration<double>(now - _startTime).count();
    return _startTick + static_cast<std::uint64_t>(elapsedSeconds * _ticksPerSecond) + 1;
}

std::chrono::nanoseconds Pacer::delayUntil(const std::uint64_t tick, const Clock::time_point now) const noexcept {
    if (_maxRate || tick <= _startTick) {
        return std::chrono::nanoseconds{0};
    }
    const double dueSeconds = static_cast<double>(tick - _startTick) / _ticksPerSecond;
    const auto due =
        _startTime + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(dueSeconds));
    return due > now ? std::chrono::duration_cast<std::chrono::nanoseconds>(due - now) : std::chrono::nanoseconds{0};
}

}  // namespace oltb::sim
