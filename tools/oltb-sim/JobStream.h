// Packs the marking job into the server's trace stream: cycles of the job back to back from the stream start,
// position words every sample period for the selected head channels, and words of the narrow signals (ports, gate,
// laser lines, labels) only where they change. A narrow signal's word covers 32 / n consecutive ticks aligned to
// that window size, so the ticks before a change inside the window show the old value. A newly selected narrow
// signal (stream start, SetConfig) first gets one word with its current state.
#pragma once

#include "tools/oltb-sim/MarkingJob.h"
#include "tools/oltb-sim/TraceSource.h"
#include "tools/oltb-sim/WordEncoder.h"

#include <random>

namespace oltb::sim {

class JobStream final : public TraceSource {
public:
    explicit JobStream(const MarkingJob& job);

    void start(std::uint64_t startTick, const SignalSelection& selection) override;
    void select(const SignalSelection& selection) override;
    void generate(std::uint64_t horizonTick, std::size_t maxWords, std::vector<std::uint64_t>& out) override;
    std::uint64_t nextTick() const override;

    // Raw 20-bit form of a signed position on a channel; X channels travel negated.
    static std::uint32_t rawPosition(std::int64_t position, bool isXChannel) noexcept;

private:
    // A word of a narrow signal or a label, at its field tick from the cycle start.
    struct NarrowWord {
        std::uint64_t fieldTick = 0;
        std::uint32_t type = 0;
        std::uint32_t payload = 0;
        bool isLabel = false;
    };

    void buildNarrowWords();
    std::uint64_t cycleStart() const noexcept;
    void emitCurrentState(std::uint32_t type, std::uint64_t fieldTick, std::vector<std::uint64_t>& out);
    void emitSample(std::uint64_t tick, std::vector<std::uint64_t>& out);

    const MarkingJob& _job;
    std::vector<NarrowWord> _narrowWords;
    std::uint64_t _samplesPerCycle = 0;

    SignalSelection _selection;
    WordEncoder _encoder;
    std::uint64_t _startTick = 0;
    std::uint64_t _cycle = 0;
    std::uint64_t _nextSample = 0;
    std::size_t _nextNarrow = 0;
    std::vector<std::uint32_t> _announce;  // narrow signals that still need a word with their current state
    // Noise of the position feedback: a new draw for every actual sample, the same sequence from every Start.
    std::mt19937_64 _noise;
    std::normal_distribution<double> _noiseUnits;
};

}  // namespace oltb::sim
