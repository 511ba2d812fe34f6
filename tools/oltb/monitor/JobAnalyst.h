// The monitor's analysing thread: takes the jobs the reading thread cut out, analyses each one, keeps its capture
// in the save directory if there is one, and hands its figures to the machine's history. It runs beside the
// reading thread, so the card's stream is read on while a job is analysed and the next job is not missed.
#pragma once

#include "analysis/TraceAnalysis.h"
#include "tools/oltb/monitor/JobQueue.h"
#include "tools/oltb/monitor/Machine.h"
#include "tools/oltb/monitor/SaveDirectory.h"

#include <optional>

namespace oltb::monitor {

class JobAnalyst {
public:
    // `save` may be null: nothing is saved.
    JobAnalyst(const analysis::Options& options, Machine& machine, JobQueue& queue, SaveDirectory* save)
        : _options(options), _machine(machine), _queue(queue), _save(save) {}

    // The thread's body: returns once the queue is closed and every job in it analysed.
    void run();

private:
    const analysis::Options _options;
    Machine& _machine;
    JobQueue& _queue;
    SaveDirectory* _save;
};

}  // namespace oltb::monitor
