#include "tools/oltb/Outputs.h"

#include "tools/oltb/Errors.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
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

std::string displayName(const std::string& path) { return path == "-" ? "standard output" : path; }

// The file a name leads to, if it exists ("-": standard output).
std::optional<std::pair<dev_t, ino_t>> identityOf(const std::string& path) {
    struct stat status {};
    const int found = path == "-" ? ::fstat(STDOUT_FILENO, &status) : ::stat(path.c_str(), &status);
    if (found != 0) {
        return std::nullopt;
    }
    return std::pair{status.st_dev, status.st_ino};
}

}  // namespace

std::optional<OutputFormat> formatOfFileName(const std::string& path) {
    const std::string lower = lowerCase(path);
    if (endsWith(lower, ".csv")) {
        return OutputFormat::Csv;
    }
    if (endsWith(lower, ".vcd")) {
        return OutputFormat::Vcd;
    }
    if (endsWith(lower, ".h5")) {
        return OutputFormat::H5;
    }
    return std::nullopt;
}

bool sameFile(const std::string& first, const std::string& second) {
    const auto firstFile = identityOf(first);
    const auto secondFile = identityOf(second);
    if (firstFile || secondFile) {
        return firstFile == secondFile;
    }
    if (first == "-" || second == "-") {
        return first == second;
    }
    std::error_code error;
    const auto resolved = [&error](const std::string& path) {
        return std::filesystem::weakly_canonical(std::filesystem::absolute(path, error), error);
    };
    return resolved(first) == resolved(second);
}

const WriterFormat& outputFormatOf(const std::string& path) {
    const WriterFormat* format = writerFormatOf(path);
    if (format == nullptr) {
        throw UsageError("output '" + path +
                         "': unknown format; name a .csv, .vcd or .h5 file (or - for CSV on standard output)");
    }
    if (!format->available()) {
        throw UsageError("output '" + path + "': this oltb was built without " + format->needs +
                         " (install libhdf5-dev and build again)");
    }
    return *format;
}

Outputs::Outputs(std::vector<std::string> paths) {
    if (paths.empty()) {
        paths.push_back("-");
    }
    for (const std::string& path : paths) {
        const auto same = std::find_if(_outputs.begin(), _outputs.end(),
                                       [&path](const Output& output) { return sameFile(output.path, path); });
        if (same != _outputs.end()) {
            throw UsageError(same->path == path ? "output '" + path + "' is given twice"
                                                : "outputs '" + same->path + "' and '" + path + "' are one file");
        }
        _outputs.push_back(Output{path, &outputFormatOf(path), -1, false, nullptr, {}});
    }
}

Outputs::~Outputs() {
    for (Output& output : _outputs) {
        close(output);
    }
}

void Outputs::close(Output& output) {
    if (output.descriptor >= 0) {
        ::close(output.descriptor);
        output.descriptor = -1;
    }
}

void Outputs::refuseInput(const std::string& input) const {
    for (const Output& output : _outputs) {
        if (sameFile(output.path, input)) {
            throw UsageError("output '" + displayName(output.path) + "' is the capture to read, " + input);
        }
    }
}

void Outputs::open() {
    std::vector<std::pair<dev_t, ino_t>> opened;
    try {
        for (Output& output : _outputs) {
            if (output.path == "-") {
                continue;
            }
            output.descriptor = ::open(output.path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
            if (output.descriptor < 0) {
                throw OutputError("cannot create " + output.path + ": " + std::strerror(errno));
            }
            output.created = true;
            struct stat status {};
            if (::fstat(output.descriptor, &status) == 0) {
                const std::pair file{status.st_dev, status.st_ino};
                if (std::find(opened.begin(), opened.end(), file) != opened.end()) {
                    throw UsageError("output '" + output.path + "' is a file named before it");
                }
                opened.push_back(file);
            }
        }
    } catch (...) {
        discard();
        throw;
    }
}

bool Outputs::csvOnStandardOutput() const {
    return std::any_of(_outputs.begin(), _outputs.end(), [](const Output& output) { return output.path == "-"; });
}

int Outputs::descriptorOf(const Output& output) { return output.path == "-" ? STDOUT_FILENO : output.descriptor; }

void Outputs::checkWritten(Output& output) {
    const int error = output.writer ? output.writer->error() : 0;
    if (output.failure.empty() && error != 0) {
        fail(
            output,
            "cannot write " + displayName(output.path) + ": " + std::strerror(error) +
                (output.path == "-" || !_begun ? "" : "; it keeps what was written before, up to its last whole line"));
    }
}

void Outputs::fail(Output& output, const std::string& failure) {
    output.failure = failure;
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

void Outputs::begin(const SeriesInfo& info) {
    std::cout.flush();  // whatever the stream holds comes before the data written to standard output directly
    for (Output& output : _outputs) {
        try {
            if (output.format->writesByName) {
                close(output);  // the writer writes the file itself, from its start
            }
            output.writer = output.format->start(descriptorOf(output), output.path, info);
        } catch (const OutputError& error) {
            fail(output, error.what());
        }
        checkWritten(output);
    }
    throwIfFailed();
    _begun = true;
}

// An output that can no longer be written is left behind; the others go on, so that a closed standard output does
// not cost the files.
void Outputs::write(const oltbTraceEvent* events, std::size_t count) {
    for (Output& output : _outputs) {
        if (!output.failure.empty()) {
            continue;
        }
        try {
            output.writer->write(events, count);
        } catch (const OutputError& error) {
            fail(output, error.what());
        }
        checkWritten(output);
    }
    throwIfFailed();
}

void Outputs::finish() {
    for (Output& output : _outputs) {
        if (output.failure.empty() && output.writer) {
            try {
                output.writer->finish();
            } catch (const OutputError& error) {
                fail(output, error.what());
            }
        }
        checkWritten(output);
        if (output.format->writesByName) {
            output.writer.reset();  // closes the file
        }
        if (output.descriptor >= 0) {
            const int closed = ::close(output.descriptor);
            output.descriptor = -1;
            if (closed != 0 && output.failure.empty()) {
                fail(output, "cannot write " + displayName(output.path) + ": " + std::strerror(errno));
            }
        }
    }
    throwIfFailed();
}

void Outputs::discardUnbegun() {
    if (!_begun) {
        discard();
    }
}

void Outputs::discard() {
    for (Output& output : _outputs) {
        if (!output.created) {
            continue;
        }
        output.writer.reset();
        close(output);
        std::remove(output.path.c_str());
        output.created = false;
    }
}

std::vector<std::string> Outputs::warnings() const {
    std::vector<std::string> texts;
    for (const Output& output : _outputs) {
        if (output.writer) {
            for (std::string& text : output.writer->warnings(output.path)) texts.push_back(std::move(text));
        }
    }
    return texts;
}

std::string Outputs::describeComplete() const {
    std::string text;
    for (const Output& output : _outputs) {
        if (output.failure.empty()) {
            text += (text.empty() ? "" : ", ") + displayName(output.path);
        }
    }
    return text;
}

}  // namespace oltb::cli
