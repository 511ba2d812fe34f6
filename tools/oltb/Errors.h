// The tool's exit codes and the failures that lead to them. Each failure carries the text shown on standard
// error; for the library's failures that is the library's own last-error text.
#pragma once

#include <stdexcept>
#include <string>

namespace oltb::cli {

enum ExitCode : int {
    ExitSuccess = 0,
    ExitUnexpected = 1,    // a fault of the tool itself
    ExitUsage = 2,         // bad arguments: unknown option or signal, bad label number, unknown output format, a
                           // file to read that is no capture of oltb
    ExitServer = 3,        // connecting, a command or reading failed: unreachable host, lost connection, timeout
    ExitOutput = 4,        // an output file could not be created or written, or a capture could not be read
    ExitCannotListen = 5,  // oltb monitor: its address cannot be bound (in use, not an address of this machine)
    ExitInterrupted = 130  // an acquisition ended by Ctrl-C before its end label, or a conversion: nothing written
};

class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class ServerError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// A capture file that cannot be read: missing, not permitted, damaged. (A readable file that is no capture of
// oltb is a UsageError: the user named the wrong file.)
class InputError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
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
