// Merging the job's position samples and narrow-signal words into one stream ordered by field tick.
#include "tools/oltb-sim/JobStream.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace oltb::sim {
namespace {

// Head channels in the order they are written for each sample: Tx X, Y, Z, then Rx X, Y, Z.
constexpr std::array<std::uint32_t, 6> HeadChannelOffsets = {0, 2, 4, 8, 10, 12};
constexpr std::uint32_t HeadGroupBase = 32;
constexpr std::uint32_t HeadStride = 16;
constexpr std::uint32_t LabelShift = 16;

}  // namespace

JobStream::JobStream(const MarkingJob& job)
    : _job(job),
      _samplesPerCycle(job.cycleTicks() / MarkingJob::SamplePeriodTicks),
      _noiseUnits(0.0, job.settings().feedbackNoiseUnits) {
    buildNarrowWords();
}

std::uint32_t JobStream::rawPosition(const std::int64_t position, const bool isXChannel) noexcept {
    const std::int64_t onWire = isXChannel ? -position : position;
    return static_cast<std::uint32_t>(onWire) & 0xFFFFFU;
}

void JobStream::buildNarrowWords() {
    for (const std::uint32_t type : MarkingJob::drivenSignals()) {
        const unsigned width = sampleWidthBits(type);
        const std::uint64_t windowTicks = 32 / width;
        std::uint64_t lastWindow = UINT64_MAX;
        for (const SignalChange& change : _job.changesOf(type)) {
            const std::uint64_t window = change.tick - change.tick % windowTicks;
            if (window == lastWindow) {
                continue;  // this window's word already shows the change
            }
            lastWindow = window;
            std::array<std::uint32_t, 32> samples{};
            for (std::uint64_t i = 0; i < windowTicks; ++i) {
                samples[i] = _job.valueAt(type, window + i);
            }
            _narrowWords.push_back({fieldTickOf(type, window), type, packSamples(width, samples.data()), false});
        }
    }
    for (const Label& label : _job.labels()) {
        _narrowWords.push_back(
            {fieldTickOf(oltbEventLabel, label.tick), oltbEventLabel, std::uint32_t{label.number} << LabelShift, true});
    }
    std::stable_sort(_narrowWords.begin(), _narrowWords.end(),
                     [](const NarrowWord& a, const NarrowWord& b) { return a.fieldTick < b.fieldTick; });
}

std::uint64_t JobStream::cycleStart() const noexcept { return _startTick + _cycle * _job.cycleTicks(); }

void JobStream::start(const std::uint64_t startTick, const SignalSelection& selection) {
    _startTick = startTick;
    _cycle = 0;
    _nextSample = 0;
    _nextNarrow = 0;
    _encoder.restart();
    _noise.seed(1);
    _noiseUnits.reset();
    _selection = SignalSelection{};
    _announce.clear();
    select(selection);
}

void JobStream::select(const SignalSelection& selection) {
    for (const std::uint32_t type : MarkingJob::drivenSignals()) {
        if (selection.isTraced(type) && !_selection.isTraced(type)) {
            _announce.push_back(type);
        }
    }
    _selection = selection;
}

std::uint64_t JobStream::nextTick() const {
    const std::uint64_t start = cycleStart();
    std::uint64_t next = start + _job.cycleTicks();
    if (_nextNarrow < _narrowWords.size()) {
        next = std::min(next, start + _narrowWords[_nextNarrow].fieldTick);
    }
    if (_nextSample < _samplesPerCycle) {
        next = std::min(next, start + _nextSample * MarkingJob::SamplePeriodTicks);
    }
    return next;
}

void JobStream::emitCurrentState(const std::uint32_t type, const std::uint64_t fieldTick,
                                 std::vector<std::uint64_t>& out) {
    const unsigned width = sampleWidthBits(type);
    const std::uint64_t firstSample = fieldTick + (32 - width) - cycleStart();
    std::array<std::uint32_t, 32> samples{};
    for (unsigned i = 0; i < 32 / width; ++i) {
        samples[i] = _job.valueAt(type, firstSample + i);
    }
    _encoder.append(out, fieldTick, type, packSamples(width, samples.data()));
}

void JobStream::emitSample(const std::uint64_t tick, std::vector<std::uint64_t>& out) {
    const auto cycleTick = static_cast<std::int64_t>(tick - cycleStart());
    for (unsigned head = 0; head < 2; ++head) {
        const std::uint32_t base = HeadGroupBase + head * HeadStride;
        bool wantsCommanded = false;
        bool wantsActual = false;
        for (std::size_t c = 0; c < HeadChannelOffsets.size(); ++c) {
            const bool traced = _selection.isTraced(base + HeadChannelOffsets[c]);
            (c < 3 ? wantsCommanded : wantsActual) |= traced;
        }
        if (!wantsCommanded && !wantsActual) {
            continue;
        }
        const Position3 tx = wantsCommanded ? _job.commanded(head, cycleTick) : Position3{};
        Position3 rx = wantsActual ? _job.actual(head, cycleTick) : Position3{};
        if (wantsActual && _job.settings().feedbackNoiseUnits > 0) {
            const auto limit = static_cast<double>(FieldLimitUnits);
            for (std::int64_t* value : {&rx.x, &rx.y}) {
                *value = std::llround(std::clamp(static_cast<double>(*value) + _noiseUnits(_noise), -limit, limit));
            }
        }
        const std::array<std::int64_t, 6> values = {tx.x, tx.y, tx.z, rx.x, rx.y, rx.z};
        for (std::size_t c = 0; c < HeadChannelOffsets.size(); ++c) {
            const std::uint32_t type = base + HeadChannelOffsets[c];
            if (_selection.isTraced(type)) {
                _encoder.append(out, tick, type, rawPosition(values[c], c % 3 == 0));
            }
        }
    }
}

void JobStream::generate(const std::uint64_t horizonTick, const std::size_t maxWords, std::vector<std::uint64_t>& out) {
    const std::size_t first = out.size();
    if (!_encoder.hasTimeBase() && _startTick < horizonTick) {
        _encoder.ensureTimeBase(out, _startTick);  // every stream opens with its time base
    }
    while (out.size() - first < maxWords) {
        if (_nextNarrow >= _narrowWords.size() && _nextSample >= _samplesPerCycle) {
            ++_cycle;
            _nextNarrow = 0;
            _nextSample = 0;
        }
        const std::uint64_t tick = nextTick();
        if (tick >= horizonTick) {
            return;
        }
        if (!_announce.empty()) {
            for (const std::uint32_t type : _announce) {
                emitCurrentState(type, tick, out);
            }
            _announce.clear();
            continue;
        }
        const std::uint64_t start = cycleStart();
        if (_nextNarrow < _narrowWords.size() && start + _narrowWords[_nextNarrow].fieldTick == tick) {
            const NarrowWord& word = _narrowWords[_nextNarrow++];
            if (_selection.isTraced(word.type)) {
                // The lower half of a label word carries the run of the job within the stream (1, 2, ...).
                const std::uint32_t payload =
                    word.isLabel ? (word.payload | static_cast<std::uint32_t>((_cycle + 1) & 0xFFFF)) : word.payload;
                _encoder.append(out, tick, word.type, payload);
            }
            continue;
        }
        emitSample(tick, out);
        ++_nextSample;
    }
}

}  // namespace oltb::sim
