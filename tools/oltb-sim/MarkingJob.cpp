// Layout of a job cycle: the path of head 0 from the card's timing, the mirrors following it, the labels and the
// signals that follow the marking.
#include "tools/oltb-sim/MarkingJob.h"

#include "api/oltb.h"

#include <algorithm>
#include <cassert>
#include <cmath>

namespace oltb::sim {
namespace {

constexpr std::uint64_t LeadInTicks = 64000;        // 1 ms at home before the job
constexpr std::uint64_t StartMarkPulseTicks = 640;  // StartMark input high for 10 us before the job
// Mirrors that have not come to rest this long after the pause are taken as they are at the end of the cycle.
constexpr std::uint64_t LongestRestTicks = 20ULL * 64000000;

constexpr std::uint32_t PortAJobBusy = 0x0001;  // PortA bit 0: job running
constexpr unsigned PortAShapeShift = 8;         // PortA bits 8..11: number of the polyline being marked, 1..15

std::uint64_t roundUpTo(const std::uint64_t value, const std::uint64_t step) {
    return (value + step - 1) / step * step;
}

// The job's values (powers, labels; JobFile) keep the top byte of a word's payload clear of 0x4D.
struct PowerLine {
    std::uint32_t type;
    unsigned width;
    unsigned laser;  // 0: the laser of head 0 (full power), 1: the laser of head 1 (half power)
};

constexpr PowerLine PowerLines[] = {
    {oltbEventLaserPower16, 16, 0}, {oltbEventLaserPower8, 8, 0},     {oltbEventLaserPower4, 4, 0},
    {oltbEventLaserPower2, 2, 0},   {oltbEventLaserPower1, 1, 0},     {oltbEventLaserPower0_16, 16, 0},
    {oltbEventLaserPower0_8, 8, 0}, {oltbEventLaserPower0_4, 4, 0},   {oltbEventLaserPower0_2, 2, 0},
    {oltbEventLaserPower0_1, 1, 0}, {oltbEventLaserPower1_16, 16, 1}, {oltbEventLaserPower1_8, 8, 1},
    {oltbEventLaserPower1_4, 4, 1}, {oltbEventLaserPower1_2, 2, 1},   {oltbEventLaserPower1_1, 1, 1},
};

}  // namespace

MarkingJob::MarkingJob(const JobSettings& settings)
    : _settings(settings), _schedule(scheduleJob(settings.program, settings.timing, LeadInTicks)) {
    followPath();
    buildSignals();
}

// Runs the mirrors over the whole cycle, step by step from rest at home: keeps the samples, and ends the cycle
// after the pause once the mirrors rest at home again.
void MarkingJob::followPath() {
    ServoModel mirror(_settings.servo);
    mirror.reset(Point{0, 0}, 0);
    const PathCommand command(_schedule.path);
    const std::uint64_t pauseEnd = _schedule.jobEndTick + _settings.pauseTicks;
    std::uint64_t restFrom = _schedule.homeTick;
    if (_settings.servo.kind == ServoKind::delay) {
        restFrom += static_cast<std::uint64_t>(std::llround(_settings.servo.trackingErrorUs * 64));
    }
    const std::uint64_t lastTick = std::max(pauseEnd, restFrom) + LongestRestTicks;
    std::uint64_t restTick = 0;
    _actual.push_back({0, 0});
    while (mirror.tick() < lastTick) {
        mirror.step(command);
        const std::uint64_t tick = mirror.tick();
        const Vec2 position = mirror.position();
        if (tick % SamplePeriodTicks == 0) {
            const auto clamp = [](const double value) {
                const double limit = static_cast<double>(FieldLimitUnits);
                return static_cast<std::int32_t>(std::llround(std::clamp(value, -limit, limit)));
            };
            _actual.push_back({clamp(position.x), clamp(position.y)});
            if (tick >= restFrom && mirror.restsAt(Point{0, 0})) {
                restTick = tick;
                break;
            }
        }
    }
    _cycleTicks = roundUpTo(std::max({pauseEnd, restTick, mirror.tick()}), SamplePeriodTicks);
}

void MarkingJob::addChange(const std::uint32_t type, const std::uint64_t tick, const std::uint32_t value) {
    _changes[type].push_back({tick, value});
}

void MarkingJob::buildSignals() {
    addChange(oltbEventStartMark, jobStartTick() - StartMarkPulseTicks, 1);
    addChange(oltbEventStartMark, jobStartTick(), 0);
    addChange(oltbEventPortA, jobStartTick(), PortAJobBusy);
    addChange(oltbEventPortLaserOut1, jobStartTick(), 1);

    const std::vector<ScheduledMark>& marks = _schedule.marks;
    for (std::size_t k = 0; k < marks.size(); ++k) {
        const ScheduledMark& mark = marks[k];
        addChange(oltbEventGate, mark.gateOnTick, 1);
        addChange(oltbEventGate, mark.gateOffTick, 0);
        addChange(oltbEventPortLaserOut0, mark.gateOnTick, 1);
        addChange(oltbEventPortLaserOut0, mark.gateOffTick, 0);
        addChange(oltbEventPortA, mark.gateOnTick,
                  PortAJobBusy | static_cast<std::uint32_t>((k % 15 + 1) << PortAShapeShift));
        addChange(oltbEventPortA, mark.gateOffTick, PortAJobBusy);
        for (const PowerLine& line : PowerLines) {
            const std::uint32_t power = line.laser == 0 ? mark.power : mark.power / 2U;
            addChange(line.type, mark.gateOnTick, scalePower(power, line.width));
            addChange(line.type, mark.gateOffTick, 0);
        }
    }

    addChange(oltbEventPortA, jobEndTick(), 0);
    addChange(oltbEventPortLaserOut1, jobEndTick(), 0);
}

const std::vector<std::uint32_t>& MarkingJob::drivenSignals() {
    static const std::vector<std::uint32_t> types = [] {
        std::vector<std::uint32_t> list = {oltbEventPortA, oltbEventPortLaserOut0, oltbEventPortLaserOut1,
                                           oltbEventGate, oltbEventStartMark};
        for (const PowerLine& line : PowerLines) {
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
    const Point p = _schedule.path.at(tick);
    const Point onHead = head == 0 ? p : Point{-p.x / 2, p.y / 2};
    return {onHead.x, onHead.y, (onHead.x * onHead.x + onHead.y * onHead.y) >> 21};
}

Position3 MarkingJob::actual(const unsigned head, const std::int64_t tick) const {
    assert(head < 2);
    Point p{0, 0};
    if (tick > 0) {
        const auto period = static_cast<std::int64_t>(SamplePeriodTicks);
        const auto index = static_cast<std::size_t>(tick / period);
        const std::int64_t into = tick % period;
        const auto sampleAt = [this](const std::size_t i) {
            return i < _actual.size() ? Point{_actual[i].x, _actual[i].y} : Point{0, 0};
        };
        const Point before = sampleAt(index);
        const Point after = into == 0 ? before : sampleAt(index + 1);
        p = {before.x + (after.x - before.x) * into / period, before.y + (after.y - before.y) * into / period};
    }
    const Point onHead = head == 0 ? p : Point{-p.x / 2, p.y / 2};
    return {onHead.x, onHead.y, (onHead.x * onHead.x + onHead.y * onHead.y) >> 21};
}

}  // namespace oltb::sim
