#include "tools/oltb/Outputs.h"

#include "tools/oltb/Errors.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>

namespace oltb::cli {

namespace {

std::string lowerCase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

bool endsWith(const std::string& text, const std::string& suffix) {
    return text.size() > suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// A pipe on standard output whose reader has gone (as after | head) reports an error condition.
bool readerOfStandardOutputGone() {
    pollfd standardOutput{STDOUT_FILENO, 0, 0};
    return ::poll(&standardOutput, 1, 0) == 1 && (standardOutput.revents & POLLERR) != 0;
}

std::string displayName(const std::string& path) {
    return path == "-" ? "standard output" : path;
}

}  // namespace

OutputFormat outputFormatOf(const std::string& path) {
    const std::string lower = lowerCase(path);
    if (lower == "-" || endsWith(lower, ".csv")) {
        return OutputFormat::Csv;
    }
    if (endsWith(lower, ".vcd")) {
        return OutputFormat::Vcd;
    }
    throw UsageError("output '" + path +
                     "': unknown format; name a .csv or .vcd file (or - for CSV on standard output)");
}

Outputs::Outputs(std::vector<std::string> paths) {
    if (paths.empty()) {
        paths.push_back("-");
    }
    for (const std::string& path : paths) {
        const bool seen = std::any_of(_outputs.begin(), _outputs.end(),
                                      [&path](const Output& output) { return output.path == path; });
        if (seen) {
            throw UsageError("output '" + path + "' is given twice");
        }
        _outputs.push_back(Output{path, outputFormatOf(path), nullptr, nullptr, nullptr, {}});
    }
}

Outputs::~Outputs() = default;

void Outputs::open() {
    for (Output& output : _outputs) {
        if (output.path == "-") {
            continue;
        }
        output.file = std::make_unique<std::ofstream>(output.path, std::ios::out | std::ios::trunc);
        if (!output.file->is_open()) {
            throw OutputError("cannot create " + output.path + ": " + std::strerror(errno));
        }
    }
}

bool Outputs::csvOnStandardOutput() const {
    return std::any_of(_outputs.begin(), _outputs.end(), [](const Output& output) { return output.path == "-"; });
}

std::ostream& Outputs::streamOf(Output& output) {
    return output.file ? static_cast<std::ostream&>(*output.file) : std::cout;
}

void Outputs::checkWritten(Output& output) {
    if (!output.failure.empty() || !streamOf(output).fail()) {
        return;
    }
    output.failure = "cannot write " + displayName(output.path) + ": " + std::strerror(errno);
    if (_firstFailure.empty()) {
        _firstFailure = output.failure;
        _standardOutputClosed = output.path == "-" && readerOfStandardOutputGone();
    }
}

void Outputs::throwIfFailed() const {
    if (!_firstFailure.empty()) {
        throw OutputError(_firstFailure, _standardOutputClosed);
    }
}

void Outputs::begin(const std::vector<const SignalInfo*>& signals, bool signedPositions, VcdTimeZero timeZero) {
    for (Output& output : _outputs) {
        if (output.format == OutputFormat::Csv) {
            output.csv = std::make_unique<CsvWriter>(streamOf(output));
        } else {
            output.vcd = std::make_unique<VcdWriter>(streamOf(output), signals, signedPositions, timeZero);
        }
        checkWritten(output);
    }
    _begun = true;
    throwIfFailed();
}

// An output that can no longer be written is left behind; the others go on, so that a closed standard output does
// not cost the files.
void Outputs::write(const oltbTraceEvent* events, std::size_t count) {
    for (Output& output : _outputs) {
        if (!output.failure.empty()) {
            continue;
        }
        for (std::size_t index = 0; index < count; ++index) {
            if (output.csv) {
                output.csv->write(events[index]);
            } else {
                output.vcd->write(events[index]);
            }
        }
        checkWritten(output);
    }
    throwIfFailed();
}

void Outputs::finish() {
    for (Output& output : _outputs) {
        if (output.failure.empty() && output.vcd) {
            output.vcd->finish();
        }
        streamOf(output).flush();
        checkWritten(output);
        if (output.file) {
            output.file->close();
            checkWritten(output);
        }
    }
    throwIfFailed();
}

void Outputs::discardUnbegun() {
    if (_begun) {
        return;
    }
    for (Output& output : _outputs) {
        if (output.file) {
            output.file->close();
            std::remove(output.path.c_str());
            output.file.reset();
        }
    }
}

std::vector<std::string> Outputs::warnings() const {
    std::vector<std::string> result;
    for (const Output& output : _outputs) {
        if (output.vcd && output.vcd->eventsMovedForward() > 0) {
            result.push_back(output.path + ": " + std::to_string(output.vcd->eventsMovedForward()) +
                             " events earlier than their predecessors were written at the predecessor's time");
        }
        if (output.vcd && output.vcd->eventsSkipped() > 0) {
            result.push_back(output.path + ": " + std::to_string(output.vcd->eventsSkipped()) +
                             " events of signals that are not traced were left out");
        }
    }
    return result;
}

std::string Outputs::describe() const {
    std::string text;
    for (const Output& output : _outputs) {
        text += (text.empty() ? "" : ", ") + displayName(output.path);
    }
    return text;
}

}  // namespace oltb::cli
