// The marking job the simulated card runs over and over: what the scan heads, the laser and the I/O do, as plain
// functions of the time since the start of a job cycle. No words, no sockets: JobStream packs this into trace
// words.
//
// The path is computed at the card's 10 us servo period and sampled at it: every move starts and ends on a
// sample, so the corners of the shapes and the gate edges fall on sample ticks.
// One cycle (times from the cycle start, 1 tick = 1/64 us, positions in raw head units of head 0):
//   1 ms idle at home (0, 0); StartMark high for the last 10 us of it
//   label 1, job busy; then for each shape k = 0..3:
//     jump at 25000 units/ms to the shape's start, settle 100 us,
//     label 10 + 2k, 1 us later gate on and laser power on, mark at 5000 units/ms, gate and power off,
//     1 us later label 11 + 2k, dwell 100 us
//   jump home, settle 100 us, label 2, job idle; pause (default 50 ms) until the next cycle.
// Shapes:
//   0 line    (-300000, -250000) -> (300000, -250000)                                  power 0x4000
//   1 square  (-100000, -100000) -> (100000, -100000) -> (100000, 100000) -> (-100000, 100000) -> back
//                                                                                      power 0x6000
//   2 circle  centre (250000, 250000), radius 100000, from (350000, 250000) once counterclockwise   power 0x8000
//   3 arc     centre (-250000, 250000), radius 100000, from (-150000, 250000) half a turn to (-350000, 250000)
//                                                                                      power 0xC000
// Head 1 follows head 0 mirrored in X and halved: (x1, y1) = (-x0 / 2, y0 / 2), division truncating. Z of a head is
// its focus correction (x^2 + y^2) / 2^21, rounded down. The actual positions (Rx) are the commanded ones (Tx)
// delayed by the servo delay. Laser 0 has the shape's power, laser 1 half of it.
#pragma once

#include "Trajectory.h"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace oltbsim {

struct JobSettings {
    std::uint64_t servoDelayTicks = 250 * 64;  // 250 us
    std::uint64_t pauseTicks = 50 * 64000;     // 50 ms
};

struct Position3 {
    std::int64_t x = 0;
    std::int64_t y = 0;
    std::int64_t z = 0;
};

struct ShapeInfo {
    std::string name;
    std::uint16_t startLabel = 0;
    std::uint16_t endLabel = 0;
    std::uint16_t power = 0;          // laser 0, 16 bits
    Point startPoint;                 // head 0, where the gate goes on
    std::uint64_t markStartTick = 0;  // gate on
    std::uint64_t markEndTick = 0;    // gate off
};

struct SignalChange {
    std::uint64_t tick = 0;  // from the cycle start
    std::uint32_t value = 0;
};

struct Label {
    std::uint64_t tick = 0;
    std::uint16_t number = 0;
};

class MarkingJob {
public:
    static constexpr std::uint64_t kSamplePeriodTicks = 640;  // positions are sampled every 10 us
    static constexpr std::uint16_t kJobStartLabel = 1;
    static constexpr std::uint16_t kJobEndLabel = 2;
    static constexpr double kMarkSpeedUnitsPerMs = 5000;
    static constexpr double kJumpSpeedUnitsPerMs = 25000;

    explicit MarkingJob(const JobSettings& settings = {});

    // Length of one cycle (job plus pause), a whole number of sample periods.
    std::uint64_t cycleTicks() const noexcept { return _cycleTicks; }
    std::uint64_t jobStartTick() const noexcept { return _jobStartTick; }  // label 1
    std::uint64_t jobEndTick() const noexcept { return _jobEndTick; }      // label 2
    std::uint64_t servoDelayTicks() const noexcept { return _settings.servoDelayTicks; }
    const std::vector<ShapeInfo>& shapes() const noexcept { return _shapes; }
    const std::vector<Label>& labels() const noexcept { return _labels; }

    // Head positions in signed units, for a tick from the cycle start (earlier ticks: at home).
    Position3 commanded(unsigned head, std::int64_t tick) const;
    Position3 actual(unsigned head, std::int64_t tick) const;

    // The signals other than positions and labels that the job drives (ports, gate, laser lines, StartMark),
    // as event types of the trace.
    static const std::vector<std::uint32_t>& drivenSignals();
    // Changes of one driven signal within a cycle, by time; every signal is 0 at the cycle start.
    const std::vector<SignalChange>& changesOf(std::uint32_t type) const;
    std::uint32_t valueAt(std::uint32_t type, std::uint64_t tick) const;

private:
    void buildPath();
    void buildSignals();
    void addChange(std::uint32_t type, std::uint64_t tick, std::uint32_t value);

    JobSettings _settings;
    Trajectory _path{Point{0, 0}, kSamplePeriodTicks};
    std::uint64_t _cycleTicks = 0;
    std::uint64_t _jobStartTick = 0;
    std::uint64_t _jobEndTick = 0;
    std::vector<ShapeInfo> _shapes;
    std::vector<Label> _labels;
    std::array<std::vector<SignalChange>, 128> _changes;
};

}  // namespace oltbsim
