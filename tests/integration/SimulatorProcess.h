// Runs oltb-sim as a child process for a test: starts it on a loopback address, waits (bounded) for its readiness
// line, and on destruction always ends it with SIGTERM and reaps it (SIGKILL if it does not end in time).
#pragma once

#include <chrono>
#include <string>
#include <sys/types.h>
#include <vector>

namespace oltb::testing {

class SimulatorProcess {
public:
    SimulatorProcess(const std::string& address, const std::vector<std::string>& options);
    ~SimulatorProcess();
    SimulatorProcess(const SimulatorProcess&) = delete;
    SimulatorProcess& operator=(const SimulatorProcess&) = delete;

    // The readiness line arrived within the wait; otherwise `failure` tells why.
    bool ready() const noexcept { return _ready; }
    const std::string& failure() const noexcept { return _failure; }
    // Sends SIGTERM and returns the exit code (-1 if killed by a signal or not reaped in time).
    int terminate();

private:
    pid_t _pid = -1;
    int _stdout = -1;
    bool _ready = false;
    std::string _failure;
};

struct ProcessResult {
    int exitCode = -1;
    std::string standardError;
};

// Runs oltb-sim to its end (bounded; killed after `limit`), collecting its standard error.
ProcessResult runSimulatorToExit(const std::vector<std::string>& arguments, std::chrono::milliseconds limit);

}  // namespace oltb::testing
