#include "SimulatorProcess.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace oltb::testing {
namespace {

constexpr auto kReadinessWait = std::chrono::seconds(10);
constexpr auto kExitWait = std::chrono::seconds(5);

// Spawns oltb-sim with its standard output (and, if wanted, standard error) on pipes.
pid_t spawnSimulator(const std::vector<std::string>& arguments, int& stdoutRead, int* stderrRead) {
    int out[2] = {-1, -1};
    int err[2] = {-1, -1};
    if (pipe2(out, O_CLOEXEC) != 0 || (stderrRead != nullptr && pipe2(err, O_CLOEXEC) != 0)) {
        return -1;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    if (stderrRead != nullptr) {
        posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
    }
    std::vector<std::string> all = {OLTB_SIM_PATH};
    all.insert(all.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& argument : all) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawn(&pid, OLTB_SIM_PATH, &actions, nullptr, argv.data(), environ) != 0) {
        pid = -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    stdoutRead = out[0];
    if (stderrRead != nullptr) {
        close(err[1]);
        *stderrRead = err[0];
    }
    return pid;
}

// Waits for the child to end within `limit`; returns its exit code, or -1.
int reap(const pid_t pid, const std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        int status = 0;
        const pid_t done = waitpid(pid, &status, WNOHANG);
        if (done == pid) {
            return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        }
        if (done < 0 && errno != EINTR) {
            return -1;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            return -1;
        }
        usleep(2000);
    }
}

}  // namespace

SimulatorProcess::SimulatorProcess(const std::string& address, const std::vector<std::string>& options) {
    std::vector<std::string> arguments = {"--address", address};
    arguments.insert(arguments.end(), options.begin(), options.end());
    _pid = spawnSimulator(arguments, _stdout, nullptr);
    if (_pid < 0) {
        _failure = "oltb-sim could not be started";
        return;
    }
    const std::string expected = "oltb-sim listening on " + address + ":9495\n";
    std::string received;
    const auto deadline = std::chrono::steady_clock::now() + kReadinessWait;
    while (received.find('\n') == std::string::npos) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline -
                                                                                 std::chrono::steady_clock::now());
        pollfd descriptor{_stdout, POLLIN, 0};
        if (left.count() <= 0 || poll(&descriptor, 1, static_cast<int>(left.count())) <= 0) {
            _failure = "no readiness line from oltb-sim in time";
            return;
        }
        char buffer[256];
        const ssize_t n = read(_stdout, buffer, sizeof buffer);
        if (n <= 0) {
            _failure = "oltb-sim ended before it was ready";
            return;
        }
        received.append(buffer, static_cast<std::size_t>(n));
    }
    _ready = received == expected;
    if (!_ready) {
        _failure = "unexpected readiness line: " + received;
    }
}

int SimulatorProcess::terminate() {
    if (_pid < 0) {
        return -1;
    }
    kill(_pid, SIGTERM);
    const int code = reap(_pid, kExitWait);
    _pid = -1;
    return code;
}

SimulatorProcess::~SimulatorProcess() {
    terminate();
    if (_stdout >= 0) {
        close(_stdout);
    }
}

ProcessResult runSimulatorToExit(const std::vector<std::string>& arguments, const std::chrono::milliseconds limit) {
    ProcessResult result;
    int out = -1;
    int err = -1;
    const pid_t pid = spawnSimulator(arguments, out, &err);
    if (pid < 0) {
        return result;
    }
    const auto deadline = std::chrono::steady_clock::now() + limit;
    char buffer[512];
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline -
                                                                                 std::chrono::steady_clock::now());
        pollfd descriptor{err, POLLIN, 0};
        if (left.count() <= 0 || poll(&descriptor, 1, static_cast<int>(left.count())) <= 0) {
            break;
        }
        const ssize_t n = read(err, buffer, sizeof buffer);
        if (n <= 0) {
            break;  // the simulator ended (or closed its standard error)
        }
        result.standardError.append(buffer, static_cast<std::size_t>(n));
    }
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    result.exitCode = reap(pid, std::max(left, std::chrono::milliseconds(100)));
    close(out);
    close(err);
    return result;
}

}  // namespace oltb::testing
