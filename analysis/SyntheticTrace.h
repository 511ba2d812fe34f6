// A trace made up in memory whose figures are known by construction: a job of jumps and marks commanded at set
// speeds on the card's 10 us clock, a mirror that follows the command after a set delay (optionally through a
// first- or second-order lag), and a gate whose edges sit set times away from the mirror's motion. For the
// tests, the benchmark and the README's example.
#pragma once

#include "api/oltb.h"

#include <vector>

namespace oltb::analysis {

// One straight commanded move, then a dwell. Consecutive mark moves form one mark (one gate interval).
struct Move {
    double x = 0;
    double y = 0;
    double speedUnitsPerMs = 0;
    double dwellUs = 0;  // after the move: the jump delay after a jump, the mark delay after a mark
    bool mark = false;
};

struct SyntheticSettings {
    int head = 0;
    double sampleUs = 10;
    double delayUs = 237.3;                             // the mirror's pure delay behind the command
    double firstOrderUs = 0;                            // > 0: then a first-order lag with this time constant
    double naturalHz = 0;                               // > 0: then a second-order lag with this natural frequency ...
    double damping = 1;                                 // ... and damping
    double laserOnOffsetUs = 0;                         // gate on this long after the delayed command starts the mark
    double laserOffOffsetUs = 0;                        // gate off this long after the delayed command ends it
    double leadUs = 500;                                // at home before the job
    unsigned repeats = 1;                               // the job runs this many times back to back
    bool commanded = true, actual = true, gate = true;  // which signals the trace holds
    bool labels = false;                                // label 1 where each repeat of the job begins, 2 where it ends
};

// The default job: a line, a square and a slow diagonal, each after a jump, and a jump home; the jump before the
// diagonal has too short a jump delay for a mirror more than 120 us behind.
std::vector<Move> exampleJob();

std::vector<oltbTraceEvent> syntheticTrace(const SyntheticSettings& settings, const std::vector<Move>& job);

}  // namespace oltb::analysis
