// What the command line asks of the simulator: its options, checked, in one settings structure. The long help
// text lives in help.txt and description.txt, embedded at build time.
#pragma once

#include "tools/oltb-sim/MarkingJob.h"
#include "tools/oltb-sim/ServerSettings.h"

#include <optional>
#include <string>

namespace oltb::sim {

struct SimOptions {
    ServerSettings server;
    JobSettings job;
    std::string jobFile;        // empty: the built-in job
    std::string jumpTableFile;  // empty: the fixed jump delay
    std::string settingsFile;   // empty: the delays of the options
    std::string replayFile;     // a capture to serve instead of the job
    bool repeat = false;        // the replay again and again
    bool printJob = false;
    bool explain = false;
    double pauseMs = 50;
};

// Reads the command line into `options`. Returns the exit code when the program is to end at once: success after
// --help or --version, ExitCode::exitBadOptions after one line on standard error for an option it cannot take.
std::optional<int> parseOptions(int argc, char** argv, SimOptions& options);

}  // namespace oltb::sim
