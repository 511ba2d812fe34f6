// How the card runs a job's list of commands in time: the commanded path of head 0, the laser gate and the labels.
// The timing is the one a scan card gives its settings:
//   jump      moves at the jump speed, laser off; the next command waits for the jump delay after the arrival.
//   polyline  (consecutive mark and arc commands) moves at the mark speed; between two of its segments the path
//             stands still for the polygon delay with the laser kept on. The gate switches on the laser-on delay
//             after the commanded motion starts and off the laser-off delay after it ends; the next command waits
//             for the mark delay after the end, and at least until the gate is off.
//   wait      stands still, laser off;  label: put at the time the list reaches it;  power, speed: take no time.
// The path runs on the card's 10 us period: moves last whole periods and delays that hold the path are rounded
// up to whole periods; the laser delays place the gate edges to the tick (1/64 us).
#pragma once

#include "tools/oltb-sim/JobFile.h"
#include "tools/oltb-sim/JumpTable.h"
#include "tools/oltb-sim/Trajectory.h"

#include <cstdint>
#include <vector>

namespace oltb::sim {

constexpr std::uint64_t ServoPeriodTicks = 640;  // 10 us
constexpr std::uint64_t TicksPerUs = 64;
constexpr std::uint64_t NoTick = UINT64_MAX;

struct CardTiming {
    double jumpSpeedUnitsPerMs = 25000;
    double markSpeedUnitsPerMs = 5000;
    double jumpDelayUs = 2000;
    double markDelayUs = 300;
    double polygonDelayUs = 50;
    double laserOnDelayUs = 200;
    double laserOffDelayUs = 290;
    std::vector<JumpDelayRow> jumpDelayTable = {};  // the variable jump delay; empty: jumpDelayUs for every jump
};

struct Label {
    std::uint64_t tick = 0;
    std::uint16_t number = 0;
};

// One mark or arc command of a polyline as the commanded path runs it.
struct ScheduledSegment {
    Point from;
    Point to;
    bool isArc = false;
    Point center;             // of an arc
    double sweepRadians = 0;  // of an arc; > 0 counterclockwise
    double lengthUnits = 0;
    std::uint64_t startTick = 0;
    std::uint64_t endTick = 0;
    // The unit direction of the path where the segment starts and where it ends (the tangent on an arc); zero for a
    // segment of no length.
    Vec2 startDirection() const;
    Vec2 endDirection() const;
};

// One polyline: the laser is on once, from gateOnTick to gateOffTick.
struct ScheduledMark {
    int line = 0;             // of its first mark or arc command
    std::uint16_t power = 0;  // 16 bits
    Point startPoint;
    std::uint64_t motionStartTick = 0;  // the commanded motion starts
    std::uint64_t motionEndTick = 0;    // and ends (the last segment)
    std::uint64_t gateOnTick = 0;
    std::uint64_t gateOffTick = 0;
    int startLabel = -1;  // the last label before the polyline, -1 if none
    int endLabel = -1;    // the first label after it, -1 if none
    std::vector<ScheduledSegment> segments;
};

struct ScheduledJump {
    int line = 0;  // 0: the return home after the last command
    Point from;
    Point to;
    std::uint64_t motionEndTick = 0;        // the commanded position arrives
    std::uint64_t nextMotionTick = NoTick;  // the commanded path moves again; NoTick: not in this run
};

struct JobSchedule {
    Trajectory path{Point{0, 0}, ServoPeriodTicks};
    std::uint64_t jobStartTick = 0;  // the first command
    std::uint64_t jobEndTick = 0;    // the last command is done
    std::uint64_t homeTick = 0;      // the path is back home (0, 0), with a jump after the job if it ended elsewhere
    std::vector<ScheduledMark> marks;
    std::vector<ScheduledJump> jumps;
    std::vector<Label> labels;  // by time
};

// Lays the job out from `jobStartTick` on, the path standing at home before it. Throws JobFileError for what only
// the layout shows (an arc that leaves the field, a mark too short for its gate, a job longer than a run may last).
JobSchedule scheduleJob(const JobProgram& program, const CardTiming& timing, std::uint64_t jobStartTick);

}  // namespace oltb::sim
