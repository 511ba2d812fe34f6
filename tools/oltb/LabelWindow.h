// The events between a start label and the end label that follows it, as oltbAcquire collects them, kept by the tool
// from the events it reads so that it always knows which label it still waits for. Time is counted from the start
// label; the labels themselves are left out; events stamped up to 1 us after the end label still count.
#pragma once

#include "api/oltb.h"

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

private:
    std::uint16_t _startLabel;
    std::uint16_t _endLabel;
    bool _startSeen = false;
    bool _endSeen = false;
    bool _complete = false;
    double _startTime = 0.0;
    double _endTime = 0.0;
    std::vector<oltbTraceEvent> _events;
};

}  // namespace oltb::cli
