// A stream for integrity tests and benchmarks: Spi0Rx words whose values count 0, 1, 2, ... (modulo 2^32) from
// the stream start, one word every stepTicks ticks, with time-base words where the clock crosses a 2^24-tick
// period. It is sent whatever signals are selected. The inner loop only stores words, so at maximum rate the
// socket, not the generator, sets the pace.
#pragma once

#include "tools/oltb-sim/TraceSource.h"

namespace oltb::sim {

class CounterStream final : public TraceSource {
public:
    explicit CounterStream(std::uint64_t stepTicks);

    void start(std::uint64_t startTick, const SignalSelection& selection) override;
    void select(const SignalSelection&) override {}
    void generate(std::uint64_t horizonTick, std::size_t maxWords, std::vector<std::uint64_t>& out) override;
    std::uint64_t nextTick() const override { return _nextTick; }

private:
    std::uint64_t _stepTicks;
    std::uint64_t _nextTick = 0;
    std::uint32_t _value = 0;
    bool _hasTimeBase = false;
    std::uint64_t _timeBasePayload = 0;
};

}  // namespace oltb::sim
