#include "tools/oltb/Progress.h"

#include <unistd.h>

#include "api/oltb.h"

#include <algorithm>
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

std::string formatCaptureProgressLine(const CaptureCounts& counts, double writtenPerSecond, double arrivingPerSecond,
                                      double elapsedSeconds) {
    // Behind: more than a tenth of a second of the stream waits, or the capture's queue is full.
    const bool behind = counts.queueFull || (counts.waiting > 0 && static_cast<double>(counts.waiting) >
                                                                       0.1 * std::max(arrivingPerSecond, 1.0));
    char waiting[96] = "";
    if (behind) {
        std::snprintf(waiting, sizeof(waiting), "  WRITER BEHIND: %" PRIu64 " waiting (%.0f MiB%s)", counts.waiting,
                      static_cast<double>(counts.waiting) * sizeof(oltbTraceEvent) / (1024.0 * 1024.0),
                      counts.queueFull ? " + library" : "");
    }
    char line[200];
    std::snprintf(line, sizeof(line), "%" PRIu64 " events  %.3g events/s written, %s%.3g arriving%s  %.1f s",
                  counts.written, writtenPerSecond, counts.queueFull ? ">" : "", arrivingPerSecond, waiting,
                  elapsedSeconds);
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

void Progress::updateCapture(const CaptureCounts& counts) {
    if (!_enabled) {
        return;
    }
    const double now = elapsedSeconds();
    if (_drawn && std::chrono::steady_clock::now() - _lastDrawn < RedrawInterval) {
        return;
    }
    // Rates over the time since a base that is renewed every second: always between one and two seconds of counts.
    if (now - _nextRateBase.seconds >= 1.0) {
        _rateBase = _nextRateBase;
        _nextRateBase = Sample{now, counts.arrived, counts.written};
    }
    const double span = now - _rateBase.seconds;
    const double written = span > 0.0 ? static_cast<double>(counts.written - _rateBase.written) / span : 0.0;
    const double arriving = span > 0.0 ? static_cast<double>(counts.arrived - _rateBase.arrived) / span : 0.0;
    draw(formatCaptureProgressLine(counts, written, arriving, now));
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

bool progressWanted(bool quiet) { return !quiet && isatty(STDERR_FILENO) == 1; }

}  // namespace oltb::cli
