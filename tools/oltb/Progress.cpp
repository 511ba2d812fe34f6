#include "tools/oltb/Progress.h"

#include <unistd.h>

#include <cinttypes>

namespace oltb::cli {

namespace {

constexpr auto RedrawInterval = std::chrono::milliseconds(200);

}  // namespace

std::string formatProgressLine(std::uint64_t events, double elapsedSeconds) {
    const double rate = elapsedSeconds > 0.0 ? static_cast<double>(events) / elapsedSeconds : 0.0;
    char line[120];
    std::snprintf(line, sizeof(line), "%" PRIu64 " events  %.0f events/s  %.1f s", events, rate, elapsedSeconds);
    return line;
}

Progress::Progress(bool enabled, std::FILE* stream)
    : _enabled(enabled), _stream(stream), _start(std::chrono::steady_clock::now()), _lastDrawn(_start) {}

double Progress::elapsedSeconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - _start).count();
}

void Progress::update(std::uint64_t events) {
    if (_enabled) {
        draw(formatProgressLine(events, elapsedSeconds()));
    }
}

void Progress::showWaiting(const std::string& text) {
    if (_enabled) {
        char elapsed[32];
        std::snprintf(elapsed, sizeof(elapsed), "  %.1f s", elapsedSeconds());
        draw(text + elapsed);
    }
}

void Progress::draw(const std::string& line) {
    if (!_enabled) {
        return;
    }
    const auto now = std::chrono::steady_clock::now();
    if (_drawn && now - _lastDrawn < RedrawInterval) {
        return;
    }
    _lastDrawn = now;
    _drawn = true;
    // Carriage return, the line, then "erase to the end of the line" for a shorter line than the last one.
    std::fprintf(_stream, "\r%s\033[K", line.c_str());
    std::fflush(_stream);
}

void Progress::finish() {
    if (_enabled && _drawn) {
        std::fprintf(_stream, "\r\033[K");
        std::fflush(_stream);
        _drawn = false;
    }
}

bool progressWanted(bool quiet) {
    return !quiet && isatty(STDERR_FILENO) == 1;
}

}  // namespace oltb::cli
