// The counting stream, written in runs that end at the next time-base crossing.
#include "tools/oltb-sim/CounterStream.h"

#include "tools/oltb-sim/WordEncoder.h"

#include <algorithm>
#include <cassert>

namespace oltb::sim {

CounterStream::CounterStream(const std::uint64_t stepTicks) : _stepTicks(stepTicks) {
    assert(stepTicks >= 1 && stepTicks < TicksPerTimeBase);
}

void CounterStream::start(const std::uint64_t startTick, const SignalSelection&) {
    _nextTick = startTick;
    _value = 0;
    _hasTimeBase = false;
}

void CounterStream::generate(const std::uint64_t horizonTick, const std::size_t maxWords,
                             std::vector<std::uint64_t>& out) {
    if (_nextTick >= horizonTick) {
        return;
    }
    std::uint64_t remaining = maxWords;
    if (horizonTick != NoHorizon) {
        remaining = std::min<std::uint64_t>(remaining, (horizonTick - _nextTick + _stepTicks - 1) / _stepTicks);
    }
    constexpr std::uint64_t TypeBits = std::uint64_t{oltbEventSpi0Rx} << 24;
    while (remaining > 0) {
        const std::uint64_t period = _nextTick / TicksPerTimeBase;
        if (!_hasTimeBase || period != _timeBasePayload) {
            out.push_back(packWord(0, TimeBaseType, static_cast<std::uint32_t>(period)));
            _timeBasePayload = period;
            _hasTimeBase = true;
        }
        const std::uint64_t ticksLeftInPeriod = (period + 1) * TicksPerTimeBase - _nextTick;
        const std::uint64_t run = std::min(remaining, (ticksLeftInPeriod + _stepTicks - 1) / _stepTicks);
        const std::size_t base = out.size();
        out.resize(base + run);
        std::uint64_t* const words = out.data() + base;
        std::uint64_t field = _nextTick % TicksPerTimeBase;
        std::uint32_t value = _value;
        for (std::uint64_t i = 0; i < run; ++i) {
            words[i] = (std::uint64_t{value} << 32) | TypeBits | field;
            ++value;
            field += _stepTicks;
        }
        _value = value;
        _nextTick += run * _stepTicks;
        remaining -= run;
    }
}

}  // namespace oltb::sim
