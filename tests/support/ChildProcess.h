// Programs under test as child processes: standard output and standard error go to files in a directory of the test
// process, every wait is bounded, and a child still running at the end is ended (SIGTERM, then SIGKILL).
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace oltb::testing {

std::string readFile(const std::string& path);
// A directory of this test process, removed with everything in it when the process ends.
const std::string& scratchDirectory();

class ChildProcess {
public:
    ChildProcess(const std::string& program, const std::vector<std::string>& arguments);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return _pid; }
    void sendSignal(int signal) const;
    // The exit code, 128 + the signal that ended it, or -1 when it had to be killed after `limit`.
    int waitForExit(std::chrono::milliseconds limit);
    // Until standard output (`inErrors`: standard error) contains `text`; false at once when the child ends first.
    bool waitForText(const std::string& text, std::chrono::milliseconds limit, bool inErrors = false);
    std::string standardOutput() const { return readFile(_outputPath); }
    std::string standardError() const { return readFile(_errorPath); }

private:
    pid_t _pid = -1;
    bool _ended = false;
    std::string _outputPath;
    std::string _errorPath;
};

#ifdef OLTB_SIM_PATH
// oltb-sim on a loopback address of its own, ready once it has printed its readiness line.
class Simulator : public ChildProcess {
public:
    explicit Simulator(const std::string& address, std::vector<std::string> options = {})
        : ChildProcess(OLTB_SIM_PATH, withAddress(address, std::move(options))),
          _ready(waitForText("oltb-sim listening on " + address + ":9495\n", std::chrono::seconds(30))) {}
    bool ready() const { return _ready; }

private:
    static std::vector<std::string> withAddress(const std::string& address, std::vector<std::string> options) {
        options.insert(options.begin(), {"--address", address});
        return options;
    }
    bool _ready;
};
#endif

}  // namespace oltb::testing
