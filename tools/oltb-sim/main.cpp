// oltb-sim: a trace buffer server for machines without a scan controller card. Reads the command line
// (SimOptions), loads the job or the capture to replay, and runs the server; everything the options mean is told by
// --help.
#include "tools/oltb-sim/CounterStream.h"
#include "tools/oltb-sim/GroundTruth.h"
#include "tools/oltb-sim/JobStream.h"
#include "tools/oltb-sim/ReplayStream.h"
#include "tools/oltb-sim/Server.h"
#include "tools/oltb-sim/SettingsFile.h"
#include "tools/oltb-sim/SimOptions.h"
#include "tools/oltb/Signals.h"

#include <cstdio>
#include <exception>
#include <memory>
#include <optional>
#include <string>

namespace {

// One line on standard error: what the replay serves, so that a client knows which signals to select.
void describeReplay(const oltb::sim::ReplayCapture& capture, const bool repeat, const double pauseMs) {
    std::string names;
    for (const std::uint32_t type : capture.types) {
        const oltb::cli::SignalInfo* signal = oltb::cli::findSignalByType(static_cast<int>(type));
        names += (names.empty() ? "" : ",") + std::string(signal != nullptr ? signal->name : "?");
    }
    const double spanMs = static_cast<double>(capture.lastTick - capture.firstTick) / 64000.0;
    std::fprintf(stderr, "oltb-sim: replaying %s: %llu events of %s over %.3f ms, ", capture.path.c_str(),
                 static_cast<unsigned long long>(capture.events), names.c_str(), spanMs);
    if (repeat) {
        std::fprintf(stderr, "repeated %g ms after each end\n", pauseMs);
    } else {
        std::fprintf(stderr, "once per Start\n");
    }
}

}  // namespace

int main(int argc, char** argv) {
    using oltb::sim::ExitCode;
    oltb::sim::SimOptions options;
    if (const std::optional<int> code = oltb::sim::parseOptions(argc, argv, options)) {
        return *code;
    }
    oltb::sim::JobSettings& job = options.job;
    std::unique_ptr<oltb::sim::TraceSource> source;
    std::optional<oltb::sim::MarkingJob> markingJob;
    if (!options.replayFile.empty()) {
        try {
            auto replay = std::make_unique<oltb::sim::ReplayStream>(oltb::sim::scanCapture(options.replayFile),
                                                                    options.repeat, job.pauseTicks);
            describeReplay(replay->capture(), options.repeat, options.pauseMs);
            source = std::move(replay);
        } catch (const oltb::sim::ReplayError& e) {
            std::fprintf(stderr, "oltb-sim: --replay: %s\n", e.what());
            return ExitCode::exitBadOptions;
        }
    } else {
        try {
            if (!options.jobFile.empty()) {
                job.program = oltb::sim::readJobFile(options.jobFile);
            }
            if (!options.jumpTableFile.empty()) {
                job.timing.jumpDelayTable = oltb::sim::readJumpTable(options.jumpTableFile);
            }
            if (!options.settingsFile.empty()) {
                oltb::sim::applySettingsFile(options.settingsFile, job.timing);
            }
            if (options.printJob) {
                std::fputs(job.program.text.c_str(), stdout);
                return ExitCode::exitSuccess;
            }
            markingJob.emplace(job);
        } catch (const oltb::sim::JobFileError& e) {
            std::fprintf(stderr, "oltb-sim: %s\n", e.what());
            return ExitCode::exitBadOptions;
        } catch (const oltb::sim::JumpTableError& e) {
            std::fprintf(stderr, "oltb-sim: --jump-table: %s\n", e.what());
            return ExitCode::exitBadOptions;
        } catch (const oltb::sim::SettingsFileError& e) {
            std::fprintf(stderr, "oltb-sim: --settings: %s\n", e.what());
            return ExitCode::exitBadOptions;
        } catch (const std::exception& e) {
            std::fprintf(stderr, "oltb-sim: the job cannot run: %s\n", e.what());
            return ExitCode::exitBadOptions;
        }
        if (options.explain) {
            std::fputs(oltb::sim::explanationJson(*markingJob, oltb::sim::explainJob(*markingJob)).c_str(), stdout);
            return ExitCode::exitSuccess;
        }
        if (options.server.counter) {
            source = std::make_unique<oltb::sim::CounterStream>(options.server.counterStepTicks);
        } else {
            source = std::make_unique<oltb::sim::JobStream>(*markingJob);
        }
    }
    try {
        return oltb::sim::runServer(options.server, *source);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "oltb-sim: %s\n", e.what());
        return ExitCode::exitFailure;
    }
}
