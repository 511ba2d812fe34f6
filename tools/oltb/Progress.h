// The one-line progress display on a terminal: events so far, events per second, elapsed time. Redrawn in place
// at most five times a second; erased when the work ends, so that what follows starts on a clean line.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>

namespace oltb::cli {

// "12345 events  4567 events/s  2.7 s"; the rate is 0 before any time has passed.
std::string formatProgressLine(std::uint64_t events, double elapsedSeconds);

class Progress {
public:
    // Shows nothing unless `enabled`; `stream` is where the line goes (standard error).
    Progress(bool enabled, std::FILE* stream);

    // Redraws the line with formatProgressLine if enough time has passed since the last drawing.
    void update(std::uint64_t events);

    // Redraws the line as `text` followed by the elapsed time, likewise.
    void showWaiting(const std::string& text);

    // Erases the line.
    void finish();

    double elapsedSeconds() const;

private:
    void draw(const std::string& line);

    bool _enabled;
    std::FILE* _stream;
    std::chrono::steady_clock::time_point _start;
    std::chrono::steady_clock::time_point _lastDrawn;
    bool _drawn = false;
};

// Whether the progress display belongs on standard error: a terminal and no --quiet.
bool progressWanted(bool quiet);

}  // namespace oltb::cli
