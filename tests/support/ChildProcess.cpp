#include "tests/support/ChildProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

extern char** environ;

namespace oltb::testing {

namespace {

struct ScratchDirectory {
    ScratchDirectory() {
        char pattern[] = "/tmp/oltb-test-XXXXXX";
        path = ::mkdtemp(pattern) != nullptr ? pattern : "/tmp";
    }
    ~ScratchDirectory() {
        std::error_code ignored;
        if (path != "/tmp") std::filesystem::remove_all(path, ignored);
    }
    std::string path;
};

}  // namespace

const std::string& scratchDirectory() {
    static const ScratchDirectory directory;
    return directory.path;
}

std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& arguments) {
    static std::atomic<int> children{0};
    const std::string prefix = scratchDirectory() + "/child" + std::to_string(children++);
    _outputPath = prefix + ".out";
    _errorPath = prefix + ".err";
    std::vector<char*> argv{const_cast<char*>(program.c_str())};
    for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, _outputPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, _errorPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (posix_spawn(&_pid, program.c_str(), &actions, nullptr, argv.data(), environ) != 0) _ended = true;
    posix_spawn_file_actions_destroy(&actions);
}

ChildProcess::~ChildProcess() {
    sendSignal(SIGTERM);
    waitForExit(std::chrono::seconds(5));
}

void ChildProcess::sendSignal(int signal) const {
    if (!_ended) ::kill(_pid, signal);
}

int ChildProcess::waitForExit(std::chrono::milliseconds limit) {
    if (_ended) return -1;
    int status = 0;
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (::waitpid(_pid, &status, WNOHANG) != _pid) {
        if (std::chrono::steady_clock::now() >= deadline) {
            ::kill(_pid, SIGKILL);
            ::waitpid(_pid, &status, 0);
            _ended = true;
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    _ended = true;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

bool ChildProcess::waitForText(const std::string& text, std::chrono::milliseconds limit, bool inErrors) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < deadline) {
        if (readFile(inErrors ? _errorPath : _outputPath).find(text) != std::string::npos) return true;
        int status = 0;
        if (_ended || ::waitpid(_pid, &status, WNOHANG) == _pid) {
            _ended = true;
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
}

}  // namespace oltb::testing
