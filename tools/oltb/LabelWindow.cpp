#include "tools/oltb/LabelWindow.h"

#include "tools/oltb/Errors.h"

#include <algorithm>
#include <string>

namespace oltb::cli {

namespace {

constexpr double EndMarginUs = 1.0;

bool isLabel(const oltbTraceEvent& event, std::uint16_t number) {
    return event.Type == oltbEventLabel && static_cast<std::uint16_t>(event.Value) == number;
}

}  // namespace

bool LabelWindow::add(const oltbTraceEvent* events, std::uint32_t count) {
    for (std::uint32_t index = 0; index < count && !_complete; ++index) {
        oltbTraceEvent event = events[index];
        // Start first: with equal numbers every such label (re)starts and none ends the window.
        if (isLabel(event, _startLabel)) {
            _startSeen = true;
            _startTime = event.Time;
            keepAsLastBeforeStart(event);  // the label holds its number from time 0 on
        } else if (isLabel(event, _endLabel)) {
            if (!_startSeen) {
                // The library's own text, with the labels it is about.
                throw ServerError("end label " + std::to_string(_endLabel) + " came before start label " +
                                  std::to_string(_startLabel) + " (Expected start label but got end label!)");
            }
            _endSeen = true;
            _endTime = event.Time + EndMarginUs;
        } else if (_endSeen && event.Time > _endTime) {
            _complete = true;
        } else if (_startSeen) {
            event.Time -= _startTime;
            _events.push_back(event);
        } else {
            keepAsLastBeforeStart(event);
        }
    }
    return _complete;
}

void LabelWindow::keepAsLastBeforeStart(const oltbTraceEvent& event) {
    if (event.Type < 0 || event.Type >= static_cast<int>(_lastIndexOfType.size())) {
        return;
    }
    int& last = _lastIndexOfType[static_cast<std::size_t>(event.Type)];
    if (last < 0) {
        last = static_cast<int>(_lastBeforeStart.size());
        _lastBeforeStart.push_back(event);
    } else {
        _lastBeforeStart[static_cast<std::size_t>(last)] = event;
    }
}

std::vector<oltbTraceEvent> LabelWindow::lastBeforeStart() const { return _lastBeforeStart; }

std::vector<oltbTraceEvent> LabelWindow::takeEvents() {
    // Reads deliver time order; only a late event moved back across two reads can break it.
    std::stable_sort(_events.begin(), _events.end(),
                     [](const oltbTraceEvent& a, const oltbTraceEvent& b) { return a.Timestamp < b.Timestamp; });
    return std::move(_events);
}

}  // namespace oltb::cli
