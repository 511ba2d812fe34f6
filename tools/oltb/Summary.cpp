#include "tools/oltb/Summary.h"

#include "tools/oltb/Signals.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

namespace oltb::cli {

void Summary::add(const oltbTraceEvent* events, std::size_t count) {
    for (std::size_t index = 0; index < count; ++index) {
        add(events[index]);
    }
}

std::map<int, Summary::SignalFigures> Summary::figuresByType() const {
    std::map<int, SignalFigures> figures = _otherFigures;
    for (std::size_t type = 0; type < _figuresOfType.size(); ++type) {
        if (_figuresOfType[type].count > 0) {
            figures[static_cast<int>(type)] = _figuresOfType[type];
        }
    }
    return figures;
}

void Summary::add(const oltbTraceEvent& event) {
    const auto type = static_cast<unsigned>(event.Type);
    SignalFigures& figures =
        type < _figuresOfType.size() ? _figuresOfType[type] : _otherFigures[static_cast<int>(event.Type)];
    if (figures.count == 0) {
        figures.firstTimeUs = event.Time;
        figures.minValue = event.Value;
        figures.maxValue = event.Value;
    }
    ++figures.count;
    figures.lastTimeUs = event.Time;
    figures.minValue = std::min(figures.minValue, event.Value);
    figures.maxValue = std::max(figures.maxValue, event.Value);
    ++_totalEvents;
}

void Summary::print(std::ostream& out) const {
    char line[200];
    std::snprintf(line, sizeof(line), "%-20s %4s %10s %14s %14s %12s %12s\n", "signal", "type", "events", "first_us",
                  "last_us", "min", "max");
    out << line;
    for (const auto& [type, figures] : figuresByType()) {
        const SignalInfo* signal = findSignalByType(type);
        std::snprintf(line, sizeof(line), "%-20s %4d %10" PRIu64 " %14.3f %14.3f %12" PRId32 " %12" PRId32 "\n",
                      signal != nullptr ? signal->name : "unknown", type, figures.count, figures.firstTimeUs,
                      figures.lastTimeUs, figures.minValue, figures.maxValue);
        out << line;
    }
    std::snprintf(line, sizeof(line), "%-20s %4s %10" PRIu64 "\n", "total", "", _totalEvents);
    out << line;
}

}  // namespace oltb::cli
