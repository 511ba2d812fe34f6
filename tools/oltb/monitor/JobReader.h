// The monitor's reading thread: keeps a connection to the card, traces the head's signals and cuts the stream into
// jobs at the labels, as oltb acquire does for one job (LabelWindow), but without ever stopping the trace, so
// that no job between two others is missed. A lost connection is tried again with a growing pause, and the
// signals are set again each time, since the card forgets its configuration when its client goes.
#pragma once

#include "tools/oltb/Connection.h"
#include "tools/oltb/LabelWindow.h"
#include "tools/oltb/SeriesInfo.h"
#include "tools/oltb/Signals.h"
#include "tools/oltb/monitor/JobQueue.h"
#include "tools/oltb/monitor/Machine.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace oltb::monitor {

struct ReaderSettings {
    std::string host;
    std::uint16_t startLabel = 0, endLabel = 0;   // differ
    std::vector<const cli::SignalInfo*> signals;  // Label is added
    double maxWaitSeconds = 120;  // a start label not seen this long is said; a job without its end label dropped
};

class JobReader {
public:
    JobReader(ReaderSettings settings, Machine& machine, JobQueue& queue)
        : _settings(std::move(settings)), _machine(machine), _queue(queue) {}

    // The thread's body: returns after stop() (within a read slice, or once a connection attempt has ended).
    void run();
    void stop();

    // The pause before the next connection attempt after `failures` failed ones in a row.
    static double retrySeconds(unsigned failures);

private:
    using Clock = std::chrono::steady_clock;

    bool stopping();
    bool waitUnlessStopped(double seconds);  // true when stopped meanwhile
    void trace(cli::Connection& connection, const cli::SeriesInfo& info);
    void take(const oltbTraceEvent& event, const cli::SeriesInfo& info);
    void finishJob(const cli::SeriesInfo& info);
    void watchLabels(Clock::time_point now);
    void newWindow(Clock::time_point now);

    const ReaderSettings _settings;
    Machine& _machine;
    JobQueue& _queue;
    std::mutex _mutex;
    std::condition_variable _stopCondition;
    bool _stopping = false;

    // The job being read: its label window, since when the reader waits for its start label (or since it came).
    std::unique_ptr<cli::LabelWindow> _window;
    Clock::time_point _waitingSince;
    bool _started = false;
    bool _endSeen = false;
    std::uint64_t _lastId = 0;
};

}  // namespace oltb::monitor
