// The listening side of the simulator: binds port 9495 of the given address, announces readiness on standard
// output, and serves one client at a time until SIGINT or SIGTERM. Further clients wait in the listen backlog
// until the current one disconnects. The selected signals and the card clock carry over from one client to the
// next; tracing does not (a new client finds it stopped).
#pragma once

#include "tools/oltb-sim/ServerSettings.h"
#include "tools/oltb-sim/TraceSource.h"

namespace oltb::sim {

enum ExitCode : int {
    exitSuccess = 0,       // normal end (SIGINT, SIGTERM) or --help
    exitBadOptions = 1,    // the command line was not understood
    exitCannotListen = 2,  // the address cannot be resolved or bound
    exitFailure = 3,       // any other failure
};

// Runs the server, streaming `source` (the marking job, the counter or a replay, made beforehand, so that a job or
// capture that cannot run never opens the port); returns the process exit code.
int runServer(const ServerSettings& settings, TraceSource& source);

}  // namespace oltb::sim
