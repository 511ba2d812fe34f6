// The trace analysis over any series of events, as a capture file edited by hand or by a program could hold them:
// channels out of order, times not finite, repeated, a hair apart or hours apart, values anywhere in range. Eight
// bytes make an event: which channel, how its time moves on, and its value. The analysis must neither crash nor
// write a number JSON cannot hold, and its work must follow the number of events (libFuzzer's -timeout).
#include "fuzz/FuzzCheck.h"

#include "analysis/AnalysisReport.h"
#include "analysis/TraceAnalysis.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1) {
        return 0;
    }
    const int head = data[0] & 1;
    const oltb::analysis::HeadChannels channels = oltb::analysis::channelsOf(head);
    const oltbTraceEventType types[8] = {channels.commandedX,   channels.commandedY, channels.actualX,
                                         channels.actualY,      oltbEventGate,       oltbEventLabel,
                                         oltbEventLaserPower16, channels.commandedX};
    std::vector<oltbTraceEvent> events;
    double time = 0;
    for (std::size_t at = 1; at + 8 <= size; at += 8) {
        const std::uint8_t* record = data + at;
        std::int32_t value = 0;
        std::memcpy(&value, record + 2, sizeof value);
        const std::uint16_t step = static_cast<std::uint16_t>(record[6] | record[7] << 8);
        switch (record[1] % 8) {
            case 0:
                time += 10;
                break;  // the card's sample period
            case 1:
                time += step / 64.0;
                break;  // any tick
            case 2:
                break;  // the same time again
            case 3:
                time = (record[6] & 1) ? std::numeric_limits<double>::infinity()
                                       : std::numeric_limits<double>::quiet_NaN();
                break;
            case 4:
                time += std::ldexp(1.0, step % 1100);
                break;  // up to 1e300 us later
            case 5:
                time += std::ldexp(1.0, -(step % 1100));
                break;  // a hair later
            case 6:
                time -= step;
                break;  // back in time
            default:
                time += step * 1000.0;
                break;  // milliseconds later
        }
        oltbTraceEvent event{};
        event.Type = types[record[0] % 8];
        event.Time = time;
        event.Timestamp = static_cast<std::uint64_t>(step);
        event.Overflow = record[0] >= 0xF0;
        event.Value = event.Type == oltbEventGate ? value & 1 : value;
        events.push_back(event);
        if (!std::isfinite(time)) time = 0;
    }
    oltb::analysis::Options options;
    options.head = head;
    const oltb::analysis::Result result = oltb::analysis::analyze(events, options);
    const std::string json = oltb::analysis::toJson(result);
    FUZZ_CHECK(json.find("nan") == std::string::npos && json.find("inf") == std::string::npos);
    oltb::analysis::SummaryOptions summary;
    summary.source = "fuzz";
    FUZZ_CHECK(!oltb::analysis::toSummary(result, summary).empty());
    return 0;
}
