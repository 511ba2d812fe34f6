// The tool's exit codes and the failures that lead to them. Each failure carries the text shown on standard
// error; for the library's failures that is the library's own last-error text.
#pragma once

#include <stdexcept>
#include <string>

namespace oltb::cli {

enum ExitCode : int {
    ExitSuccess = 0,
    ExitUnexpected = 1,   // a fault of the tool itself
    ExitUsage = 2,        // bad arguments: unknown option or signal, bad label number, unknown output format
    ExitServer = 3,       // connecting, a command or reading failed: unreachable host, lost connection, timeout
    ExitOutput = 4,       // an output file could not be created or written, an input file could not be read
    ExitInterrupted = 130 // an acquisition ended by Ctrl-C before its end label: nothing written
};

class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class ServerError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// An input file that cannot be read (exit 4) or is not what it should be (exit 2, the text names the line).
class InputError : public std::runtime_error {
public:
    InputError(const std::string& text, bool unreadable) : std::runtime_error(text), _unreadable(unreadable) {}
    bool unreadable() const { return _unreadable; }

private:
    bool _unreadable;
};

class OutputError : public std::runtime_error {
public:
    explicit OutputError(const std::string& text, bool standardOutputClosed = false)
        : std::runtime_error(text), _standardOutputClosed(standardOutputClosed) {}
    // The reader of standard output went away (a closed pipe, as after `| head`): the end is quiet.
    bool standardOutputClosed() const { return _standardOutputClosed; }

private:
    bool _standardOutputClosed;
};

}  // namespace oltb::cli
