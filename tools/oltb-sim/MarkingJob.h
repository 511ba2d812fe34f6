// The marking job the simulated card runs over and over: what the scan heads, the laser and the I/O do, as plain
// functions of the time since the start of a job cycle. No words, no sockets: JobStream packs this into trace
// words.
//
// One cycle (times from the cycle start, 1 tick = 1/64 us, positions in raw head units of head 0):
//   1 ms idle at home (0, 0); StartMark high for the last 10 us of it
//   the job's commands (CardTiming lays them out; the built-in job or the user's, JobFile), PortA bit 0 and
//     PortLaserOut1 high from the first command until the last one is done
//   a jump home if the job ended elsewhere, then the pause, and longer until the mirrors rest at home.
// Per polyline k (from 0) the gate, PortLaserOut0, the laser power lines and PortA bits 8..11 (k % 15 + 1) switch
// at its gate edges. Head 1 follows head 0 mirrored in X and halved: (x1, y1) = (-x0 / 2, y0 / 2), division
// truncating. Z of a head is its focus correction (x^2 + y^2) / 2^21, rounded down. The actual positions (Rx)
// come from the servo model (ServoModel), sampled with the commanded ones every 10 us; laser 0 has the polyline's
// power, laser 1 half of it.
#pragma once

#include "tools/oltb-sim/CardTiming.h"
#include "tools/oltb-sim/JobFile.h"
#include "tools/oltb-sim/ServoModel.h"
#include "tools/oltb-sim/Trajectory.h"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace oltb::sim {

struct JobSettings {
    JobProgram program = builtInJob();
    CardTiming timing;
    ServoSettings servo;
    std::uint64_t pauseTicks = 50 * 64000;  // 50 ms
    double settleBandUnits = 100;           // a jump has settled once the mirror stays this close to its target
    double feedbackNoiseUnits = 0;          // the actual positions as traced carry noise of this standard deviation
    double maxEdgeDose = 2;                 // the largest dose an end of a mark may take, for --explain's best delays
};

struct Position3 {
    std::int64_t x = 0;
    std::int64_t y = 0;
    std::int64_t z = 0;
};

struct SignalChange {
    std::uint64_t tick = 0;  // from the cycle start
    std::uint32_t value = 0;
};

class MarkingJob {
public:
    static constexpr std::uint64_t SamplePeriodTicks = ServoPeriodTicks;  // positions every 10 us

    // Throws JobFileError when the job cannot be laid out with these settings.
    explicit MarkingJob(const JobSettings& settings = {});

    // Length of one cycle (job plus pause), a whole number of sample periods.
    std::uint64_t cycleTicks() const noexcept { return _cycleTicks; }
    std::uint64_t jobStartTick() const noexcept { return _schedule.jobStartTick; }  // the first command
    std::uint64_t jobEndTick() const noexcept { return _schedule.jobEndTick; }      // the last command done
    std::uint64_t homeTick() const noexcept { return _schedule.homeTick; }          // the path is back home
    const JobSettings& settings() const noexcept { return _settings; }
    const Trajectory& path() const noexcept { return _schedule.path; }
    const std::vector<ScheduledMark>& marks() const noexcept { return _schedule.marks; }
    const std::vector<ScheduledJump>& jumps() const noexcept { return _schedule.jumps; }
    const std::vector<Label>& labels() const noexcept { return _schedule.labels; }

    // Head positions in signed units, for a tick from the cycle start (earlier ticks: at home). The actual
    // positions are sampled every 10 us and linear in between.
    Position3 commanded(unsigned head, std::int64_t tick) const;
    Position3 actual(unsigned head, std::int64_t tick) const;

    // The signals other than positions and labels that the job drives (ports, gate, laser lines, StartMark),
    // as event types of the trace.
    static const std::vector<std::uint32_t>& drivenSignals();
    // Changes of one driven signal within a cycle, by time; every signal is 0 at the cycle start.
    const std::vector<SignalChange>& changesOf(std::uint32_t type) const;
    std::uint32_t valueAt(std::uint32_t type, std::uint64_t tick) const;

private:
    struct Sample {
        std::int32_t x;
        std::int32_t y;
    };

    void followPath();
    void buildSignals();
    void addChange(std::uint32_t type, std::uint64_t tick, std::uint32_t value);

    JobSettings _settings;
    JobSchedule _schedule;
    std::uint64_t _cycleTicks = 0;
    std::vector<Sample> _actual;  // head 0, every sample period from the cycle start; later ones are at home
    std::array<std::vector<SignalChange>, 128> _changes;
};

}  // namespace oltb::sim
