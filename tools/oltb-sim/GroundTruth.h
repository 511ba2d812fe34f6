// What an analysis of a trace of the job should find, computed from the model (oltb-sim --explain):
//   tracking error  the shift tau that brings commanded(t - tau) closest to actual(t), least squares over the
//                   samples taken while the gate is on;
//   per polyline    its motion is the commanded one shifted by tau; the laser-on offset is the gate-on time minus
//                   the start of that motion, the laser-off offset the gate-off time minus its end (positive: the
//                   laser switches later than the mirror);
//   per jump        the settle time from the commanded arrival until the mirror stays within the band around the
//                   target, and the overshoot beyond the target.
// Times are microseconds from the job's first command.
#pragma once

#include "MarkingJob.h"

#include <string>
#include <vector>

namespace oltbsim {

struct MarkTruth {
    double gateOnUs = 0;
    double gateOffUs = 0;
    double motionStartUs = 0;
    double motionEndUs = 0;
    double laserOnOffsetUs = 0;
    double laserOffOffsetUs = 0;
};

struct JobTruth {
    double trackingErrorUs = 0;
    std::vector<MarkTruth> marks;  // one per polyline of the job
};

// The least-squares tracking error; the job's jumps come from MarkingJob::arrivals().
JobTruth explainJob(const MarkingJob& job);

// The explanation as one JSON object: the settings, the truth, every label, polyline and jump.
std::string explanationJson(const MarkingJob& job, const JobTruth& truth);

}  // namespace oltbsim
