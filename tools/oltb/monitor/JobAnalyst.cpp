#include "tools/oltb/monitor/JobAnalyst.h"

#include <malloc.h>

#include <chrono>
#include <exception>
#include <memory>
#include <string>

namespace oltb::monitor {

void JobAnalyst::run() {
    while (std::optional<Job> job = _queue.pop()) {
        auto capture = std::make_shared<JobCapture>();
        capture->id = job->id;
        capture->events = std::move(job->events);
        // Converted here rather than on the reading thread, which must keep up with the card.
        oltbToSignedPosition(capture->events.data(), static_cast<std::uint32_t>(capture->events.size()));
        JobFigures figures;
        const auto began = std::chrono::steady_clock::now();
        try {
            capture->result = analysis::analyze(capture->events, _options);
            figures = figuresOf(capture->result);
        } catch (const std::exception& error) {
            figures.failure = std::string("the analysis failed: ") + error.what();
            figures.events = capture->events.size();
        }
        figures.analysisSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
        figures.id = job->id;
        figures.endedUtc = job->endedUtc;
        figures.endedUnixSeconds = job->endedUnixSeconds;
        if (_save != nullptr) {
            const SaveOutcome saved = _save->save(job->info, capture->events, job->id, job->endedUtc);
            figures.savedFile = saved.file;
            _machine.setSaving(saved.failure, saved.bytes);
        }
        _machine.addJob(figures, std::move(capture));
        // The analysis of a job allocates and frees tens of MB on this thread, the next job's report on another;
        // glibc keeps what each thread's arena once held. Handing the free pages back after each job keeps the
        // monitor's memory what it holds, however long it runs.
        malloc_trim(0);
    }
}

}  // namespace oltb::monitor
