// Programs under test as child processes: standard output and standard error go to files, every wait is
// bounded, and a child still running at the end is killed.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace oltb::testing {

std::string readFile(const std::string& path);

class ChildProcess {
public:
    // Starts `program` with `arguments`; its output goes to `outputPrefix`.out and .err.
    ChildProcess(const std::string& program, const std::vector<std::string>& arguments,
                 const std::string& outputPrefix);
    ~ChildProcess(); // SIGTERM, then SIGKILL after 5 s

    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    void sendSignal(int signal) const;

    // Waits at most `limit` for the end; then the exit code, 128 + the signal that ended it, or -1 when the
    // child had to be killed.
    int waitForExit(std::chrono::milliseconds limit);

    // Waits at most `limit` until standard output (`inErrors`: standard error) contains `text`; false at once
    // when the child ends first.
    bool waitForText(const std::string& text, std::chrono::milliseconds limit, bool inErrors = false);

    std::string standardOutput() const { return readFile(_outputPath); }
    std::string standardError() const { return readFile(_errorPath); }

private:
    pid_t _pid = -1;
    bool _ended = false;
    std::string _outputPath;
    std::string _errorPath;
};

}  // namespace oltb::testing
