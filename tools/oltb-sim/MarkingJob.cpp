// Layout of the marking job: the path of head 0, the labels around it and the signals that follow the marking.
#include "MarkingJob.h"

#include "api/oltb.h"

#include <algorithm>
#include <cassert>

namespace oltbsim {
namespace {

constexpr std::uint64_t kLeadInTicks = 64000;          // 1 ms at home before label 1
constexpr std::uint64_t kSettleTicks = 6400;           // 100 us after a jump and after a mark
constexpr std::uint64_t kLabelGapTicks = 64;           // 1 us between a shape's label and its gate edge
constexpr std::uint64_t kStartMarkPulseTicks = 640;    // StartMark input high for 10 us before the job
constexpr double kPi = 3.14159265358979323846;

constexpr std::uint32_t kPortAJobBusy = 0x0001;        // PortA bit 0: job running
constexpr unsigned kPortAShapeShift = 8;               // PortA bits 8..11: number of the shape being marked, 1..4

std::uint64_t roundUpTo(const std::uint64_t value, const std::uint64_t step) {
    return (value + step - 1) / step * step;
}

// A 16-bit power on a line of `width` bits, rounded up so that any power shows.
std::uint32_t scalePower(const std::uint32_t power16, const unsigned width) {
    const std::uint64_t fullScale = (std::uint64_t{1} << width) - 1;
    return static_cast<std::uint32_t>((power16 * fullScale + 65534) / 65535);
}

// The shapes' powers (and all other values of the job) keep the top byte of a word's payload clear of 0x4D: a
// response frame sent right behind such a word would not be recognised by a client, whose frame scan starts
// at the first of four 0x4D bytes.
struct PowerLine {
    std::uint32_t type;
    unsigned width;
    unsigned laser;  // 0: the laser of head 0 (full power), 1: the laser of head 1 (half power)
};

constexpr PowerLine kPowerLines[] = {
    {oltbEventLaserPower16, 16, 0},   {oltbEventLaserPower8, 8, 0},     {oltbEventLaserPower4, 4, 0},
    {oltbEventLaserPower2, 2, 0},     {oltbEventLaserPower1, 1, 0},     {oltbEventLaserPower0_16, 16, 0},
    {oltbEventLaserPower0_8, 8, 0},   {oltbEventLaserPower0_4, 4, 0},   {oltbEventLaserPower0_2, 2, 0},
    {oltbEventLaserPower0_1, 1, 0},   {oltbEventLaserPower1_16, 16, 1}, {oltbEventLaserPower1_8, 8, 1},
    {oltbEventLaserPower1_4, 4, 1},   {oltbEventLaserPower1_2, 2, 1},   {oltbEventLaserPower1_1, 1, 1},
};

}  // namespace

MarkingJob::MarkingJob(const JobSettings& settings) : _settings(settings) {
    buildPath();
    buildSignals();
}

void MarkingJob::buildPath() {
    _path.dwell(kLeadInTicks);
    _jobStartTick = _path.durationTicks();
    _labels.push_back({_jobStartTick, kJobStartLabel});

    const auto beginShape = [this](const char* name, const Point start, const std::uint16_t power) {
        _path.moveTo(start, kJumpSpeedUnitsPerMs);
        _path.dwell(kSettleTicks);
        ShapeInfo shape;
        shape.name = name;
        shape.startLabel = static_cast<std::uint16_t>(10 + 2 * _shapes.size());
        shape.endLabel = static_cast<std::uint16_t>(shape.startLabel + 1);
        shape.power = power;
        shape.startPoint = start;
        shape.markStartTick = _path.durationTicks();
        _shapes.push_back(shape);
    };
    const auto endShape = [this]() {
        ShapeInfo& shape = _shapes.back();
        shape.markEndTick = _path.durationTicks();
        _labels.push_back({shape.markStartTick - kLabelGapTicks, shape.startLabel});
        _labels.push_back({shape.markEndTick + kLabelGapTicks, shape.endLabel});
        _path.dwell(kSettleTicks);
    };

    beginShape("line", {-300000, -250000}, 0x4000);
    _path.moveTo({300000, -250000}, kMarkSpeedUnitsPerMs);
    endShape();

    beginShape("square", {-100000, -100000}, 0x6000);
    for (const Point corner : {Point{100000, -100000}, Point{100000, 100000}, Point{-100000, 100000},
                               Point{-100000, -100000}}) {
        _path.moveTo(corner, kMarkSpeedUnitsPerMs);
    }
    endShape();

    beginShape("circle", {350000, 250000}, 0x8000);
    _path.arc({250000, 250000}, 2 * kPi, kMarkSpeedUnitsPerMs);
    endShape();

    beginShape("arc", {-150000, 250000}, 0xC000);
    _path.arc({-250000, 250000}, kPi, kMarkSpeedUnitsPerMs);
    endShape();

    _path.moveTo({0, 0}, kJumpSpeedUnitsPerMs);
    _path.dwell(kSettleTicks);
    _jobEndTick = _path.durationTicks();
    _labels.push_back({_jobEndTick, kJobEndLabel});
    std::sort(_labels.begin(), _labels.end(), [](const Label& a, const Label& b) { return a.tick < b.tick; });

    // The actual positions must be home again before the next cycle begins.
    const std::uint64_t restTicks = std::max(_settings.pauseTicks, _settings.servoDelayTicks + kSamplePeriodTicks);
    _cycleTicks = roundUpTo(_jobEndTick + restTicks, kSamplePeriodTicks);
}

void MarkingJob::addChange(const std::uint32_t type, const std::uint64_t tick, const std::uint32_t value) {
    _changes[type].push_back({tick, value});
}

void MarkingJob::buildSignals() {
    addChange(oltbEventStartMark, _jobStartTick - kStartMarkPulseTicks, 1);
    addChange(oltbEventStartMark, _jobStartTick, 0);
    addChange(oltbEventPortA, _jobStartTick, kPortAJobBusy);
    addChange(oltbEventPortLaserOut1, _jobStartTick, 1);

    for (std::size_t k = 0; k < _shapes.size(); ++k) {
        const ShapeInfo& shape = _shapes[k];
        addChange(oltbEventGate, shape.markStartTick, 1);
        addChange(oltbEventGate, shape.markEndTick, 0);
        addChange(oltbEventPortLaserOut0, shape.markStartTick, 1);
        addChange(oltbEventPortLaserOut0, shape.markEndTick, 0);
        addChange(oltbEventPortA, shape.markStartTick,
                  kPortAJobBusy | static_cast<std::uint32_t>((k + 1) << kPortAShapeShift));
        addChange(oltbEventPortA, shape.markEndTick, kPortAJobBusy);
        for (const PowerLine& line : kPowerLines) {
            const std::uint32_t power = line.laser == 0 ? shape.power : shape.power / 2U;
            addChange(line.type, shape.markStartTick, scalePower(power, line.width));
            addChange(line.type, shape.markEndTick, 0);
        }
    }

    addChange(oltbEventPortA, _jobEndTick, 0);
    addChange(oltbEventPortLaserOut1, _jobEndTick, 0);
}

const std::vector<std::uint32_t>& MarkingJob::drivenSignals() {
    static const std::vector<std::uint32_t> types = [] {
        std::vector<std::uint32_t> list = {oltbEventPortA, oltbEventPortLaserOut0, oltbEventPortLaserOut1,
                                           oltbEventGate, oltbEventStartMark};
        for (const PowerLine& line : kPowerLines) {
            list.push_back(line.type);
        }
        std::sort(list.begin(), list.end());
        return list;
    }();
    return types;
}

const std::vector<SignalChange>& MarkingJob::changesOf(const std::uint32_t type) const {
    static const std::vector<SignalChange> none;
    return type < _changes.size() ? _changes[type] : none;
}

std::uint32_t MarkingJob::valueAt(const std::uint32_t type, const std::uint64_t tick) const {
    const std::vector<SignalChange>& changes = changesOf(type);
    const auto after = std::upper_bound(changes.begin(), changes.end(), tick,
                                        [](std::uint64_t t, const SignalChange& change) { return t < change.tick; });
    return after == changes.begin() ? 0 : (after - 1)->value;
}

Position3 MarkingJob::commanded(const unsigned head, const std::int64_t tick) const {
    assert(head < 2);
    const Point p = _path.at(tick);
    const Point onHead = head == 0 ? p : Point{-p.x / 2, p.y / 2};
    return {onHead.x, onHead.y, (onHead.x * onHead.x + onHead.y * onHead.y) >> 21};
}

Position3 MarkingJob::actual(const unsigned head, const std::int64_t tick) const {
    return commanded(head, tick - static_cast<std::int64_t>(_settings.servoDelayTicks));
}

}  // namespace oltbsim
