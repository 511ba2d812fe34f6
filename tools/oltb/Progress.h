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

// What a capture has done so far: events taken from the library and events written, and those read but not yet
// written (`queueFull`: as many as the capture holds, the rest waits in the library).
struct CaptureCounts {
    std::uint64_t arrived = 0;
    std::uint64_t written = 0;
    std::uint64_t waiting = 0;
    bool queueFull = false;
};

// "1234567 events  1.2e+06 events/s written, 1.2e+06 arriving  2.7 s", rates over about the last second. When the
// writer falls behind, the events waiting and their memory: "... 4.2e+06 events/s written, 8.6e+06 arriving  WRITER
// BEHIND: 1851392 waiting (56 MiB)  2.7 s"; with a full queue "..., >8.6e+06 arriving  WRITER BEHIND: 2097152
// waiting (64 MiB + library)", since the rest of the stream then waits in the library.
std::string formatCaptureProgressLine(const CaptureCounts& counts, double writtenPerSecond, double arrivingPerSecond,
                                      double elapsedSeconds);

class Progress {
public:
    // Shows nothing unless `enabled`; `stream` is where the line goes (standard error).
    Progress(bool enabled, std::FILE* stream);

    // Redraws the line with formatProgressLine if enough time has passed since the last drawing.
    void update(std::uint64_t events);

    // Redraws the line with formatCaptureProgressLine, likewise.
    void updateCapture(const CaptureCounts& counts);

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
    // The counts a second or so ago, for the rates of updateCapture.
    struct Sample {
        double seconds;
        std::uint64_t arrived;
        std::uint64_t written;
    };
    Sample _rateBase{0.0, 0, 0};
    Sample _nextRateBase{0.0, 0, 0};
};

// Whether the progress display belongs on standard error: a terminal and no --quiet.
bool progressWanted(bool quiet);

}  // namespace oltb::cli
