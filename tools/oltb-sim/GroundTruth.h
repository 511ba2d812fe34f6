// What an analysis of a trace of the job should find, computed from the model (oltb-sim --explain):
//   tracking error  the head's steady lag: how far behind the command the mirror runs at constant speed (none when
//                   the velocity limit keeps the mirror below the mark speed); beside it the least-squares shift
//                   tau that brings commanded(t - tau) closest to actual(t) over the samples taken while the gate
//                   is on;
//   per polyline    its motion is the commanded one shifted by the lag; the laser-on offset is the gate-on time
//                   minus the start of that motion, the laser-off offset the gate-off time minus its end (positive:
//                   the laser switches later than the mirror); and what the mirror really does at the gate edges
//                   (MirrorFigures);
//   per jump, per corner  MirrorFigures.
// Times are microseconds from the job's first command.
#pragma once

#include "tools/oltb-sim/MarkingJob.h"
#include "tools/oltb-sim/MirrorFigures.h"

#include <string>
#include <vector>

namespace oltb::sim {

struct MarkTruth {
    double gateOnUs = 0;
    double gateOffUs = 0;
    double motionStartUs = 0;
    double motionEndUs = 0;
    double laserOnOffsetUs = 0;
    double laserOffOffsetUs = 0;
};

struct JobTruth {
    double trackingErrorUs = 0;  // the steady lag; NaN when there is none
    double leastSquaresShiftUs = 0;
    std::vector<MarkTruth> marks;  // one per polyline of the job
    MirrorFigures mirror;
};

JobTruth explainJob(const MarkingJob& job);

// The explanation as one JSON object: the settings, the truth, every label, polyline and jump.
std::string explanationJson(const MarkingJob& job, const JobTruth& truth);

}  // namespace oltb::sim
