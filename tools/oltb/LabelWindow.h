// The events between a start label and the end label that follows it, as oltbAcquire collects them, kept by the tool
// from the events it reads so that it always knows which label it still waits for. Time is counted from the start
// label; the labels themselves are left out; events stamped up to 1 us after the end label still count.
#pragma once

#include "api/oltb.h"

#include <array>
#include <cstdint>
#include <vector>

namespace oltb::cli {

class LabelWindow {
public:
    LabelWindow(std::uint16_t startLabel, std::uint16_t endLabel) : _startLabel(startLabel), _endLabel(endLabel) {}

    // Takes events in the order read; returns true once the window is complete (later events are not taken).
    // Throws ServerError("end label E came before start label S (Expected start label but got end label!)") for an
    // end label before any start label.
    bool add(const oltbTraceEvent* events, std::uint32_t count);

    bool startSeen() const { return _startSeen; }
    bool complete() const { return _complete; }
    std::size_t size() const { return _events.size(); }
    // The events in time order (taken out).
    std::vector<oltbTraceEvent> takeEvents();
    // The last event of each signal before the start label, and the start label itself: what each signal held
    // when the window began, for the signals that had an event since tracing started.
    std::vector<oltbTraceEvent> lastBeforeStart() const;

private:
    void keepAsLastBeforeStart(const oltbTraceEvent& event);

    std::uint16_t _startLabel;
    std::uint16_t _endLabel;
    bool _startSeen = false;
    bool _endSeen = false;
    bool _complete = false;
    double _startTime = 0.0;
    double _endTime = 0.0;
    std::vector<oltbTraceEvent> _events;
    std::vector<oltbTraceEvent> _lastBeforeStart;              // one per signal, in the order of their first events
    std::array<int, 128> _lastIndexOfType = initialIndexes();  // into _lastBeforeStart, -1 for none yet

    static std::array<int, 128> initialIndexes() {
        std::array<int, 128> indexes{};
        indexes.fill(-1);
        return indexes;
    }
};

}  // namespace oltb::cli
