#include "analysis/AnalysisReport.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdarg>
#include <cstdio>

namespace oltb::analysis {

namespace {

// A JSON number to a millionth (times come in 1/64 us, so they stay exact), or null for a missing or not finite one.
std::string number(std::optional<double> value) {
    if (!value || !std::isfinite(*value)) {
        return "null";
    }
    double rounded = std::round(*value * 1e6) / 1e6;
    if (!std::isfinite(rounded) || std::abs(*value) >= 1e15) {
        rounded = *value;
    }
    if (rounded == 0) {
        rounded = 0;  // no "-0"
    }
    char text[64];
    const auto written = std::abs(rounded) < 1e15
                             ? std::to_chars(text, text + sizeof(text), rounded, std::chars_format::fixed)
                             : std::to_chars(text, text + sizeof(text), rounded);
    return std::string(text, written.ptr);
}

std::string errorsJson(const ErrorFigures& figures) {
    return "{\"rms\": " + number(figures.rms) + ", \"max\": " + number(figures.max) + "}";
}

std::string nameOf(const SignalNamer& signalName, int type) {
    std::string name = signalName ? signalName(type) : std::string();
    return name.empty() ? "type " + std::to_string(type) : name;
}

std::string format(const char* pattern, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char* pattern, ...) {
    char text[512];
    va_list arguments;
    va_start(arguments, pattern);
    std::vsnprintf(text, sizeof(text), pattern, arguments);
    va_end(arguments);
    return text;
}

// Lengths, small errors and speeds in head units, or in mm, µm and mm/s with a scale.
struct Units {
    double perMm = 0;
    std::string length(double units) const {
        return perMm > 0 ? format("%.3f mm", units / perMm) : format("%.0f units", units);
    }
    std::string error(std::optional<double> units) const {
        if (!units) return "-";
        return perMm > 0 ? format("%.1f µm", *units / perMm * 1000) : format("%.1f units", *units);
    }
    std::string speed(double unitsPerMs) const {
        return perMm > 0 ? format("%.1f mm/s", unitsPerMs / perMm * 1000) : format("%.0f units/ms", unitsPerMs);
    }
};

std::string optionalUs(std::optional<double> value, const char* pattern = "%.1f") {
    return value ? format(pattern, *value) : std::string("-");
}

// What the laser's timing at one end of the marks ("on" or "off") means.
std::string laserMeaning(const char* edge, std::optional<double> offset) {
    if (!offset) {
        return "";
    }
    const double size = std::abs(*offset);
    const bool late = *offset > 0;
    const bool on = edge[1] == 'n';
    std::string text = format("Laser %-3s %+.1f µs (median over the marks): ", edge, *offset);
    if (size < 2) {
        return text + "the laser switches with the mirror.\n";
    }
    const char* effect = on ? (late ? "the start of each mark is missing" : "a burnt dot at the start of each mark")
                            : (late ? "a burnt dot at the end of each mark" : "the end of each mark is missing");
    return text + format("the laser switches %s %.1f µs %s the mirror %s the mark:\n          %s.\n",
                         on ? "on" : "off", size, late ? "after" : "before", on ? "starts" : "ends", effect);
}

// What to change of the laser's `delay` for that timing; nothing when it was not measured.
std::string laserSuggestion(const char* delay, std::optional<double> offset) {
    if (!offset) {
        return "";
    }
    const double size = std::abs(*offset);
    if (size < 2) {
        return format("%s: fits (within 2 µs); leave it.", delay);
    }
    return format("%s: %s it by %.0f µs.", delay, *offset > 0 ? "shorten" : "lengthen", size);
}

}  // namespace

std::string jsonString(const std::string& text) {
    std::string out = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (c == '<' || c == '>' || c == '&' || static_cast<unsigned char>(c) < 0x20) {
            char escape[8];
            std::snprintf(escape, sizeof(escape), "\\u%04x", static_cast<unsigned>(static_cast<unsigned char>(c)));
            out += escape;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

std::string toJson(const Result& result, const SignalNamer& signalName) {
    std::string json = "{\"head\": " + std::to_string(result.head) + ", \"events\": " + std::to_string(result.events) +
                       ", \"duration_us\": " + number(result.durationUs) + ",\n";
    json += " \"tracking_error_us\": {\"x\": " + number(result.trackingErrorXUs) +
            ", \"y\": " + number(result.trackingErrorYUs) + "},\n";
    json += " \"following_error\": {\"x\": " + errorsJson(result.followingErrorX) +
            ", \"y\": " + errorsJson(result.followingErrorY) + "},\n";
    json += " \"path_deviation\": " + errorsJson(result.pathDeviation) + ",\n";
    json += " \"marks\": [";
    for (std::size_t i = 0; i < result.marks.size(); ++i) {
        const Mark& mark = result.marks[i];
        json += std::string(i == 0 ? "\n  " : ",\n  ") + "{\"start_us\": " + number(mark.startUs) +
                ", \"end_us\": " + number(mark.endUs) + ", \"length\": " + number(mark.length) +
                ", \"speed\": " + number(mark.speed) + ", \"laser_on_offset_us\": " + number(mark.laserOnOffsetUs) +
                ", \"laser_off_offset_us\": " + number(mark.laserOffOffsetUs) + "}";
    }
    json += "],\n";
    json += " \"laser\": {\"on_offset_us\": " + number(result.laserOnOffsetUs) +
            ", \"off_offset_us\": " + number(result.laserOffOffsetUs) +
            ", \"suggested_on_delay_change_us\": " + number(result.suggestedOnDelayChangeUs) +
            ", \"suggested_off_delay_change_us\": " + number(result.suggestedOffDelayChangeUs) + "},\n";
    json += " \"jumps\": [";
    for (std::size_t i = 0; i < result.jumps.size(); ++i) {
        const Jump& jump = result.jumps[i];
        json += std::string(i == 0 ? "\n  " : ",\n  ") + "{\"start_us\": " + number(jump.startUs) +
                ", \"end_us\": " + number(jump.endUs) + ", \"length\": " + number(jump.length) +
                ", \"settle_us\": " + number(jump.settleUs) + ", \"settled\": " + (jump.settled ? "true" : "false") +
                "}";
    }
    json += "],\n";
    json += " \"jump_delay_table\": [";
    for (std::size_t i = 0; i < result.jumpDelayTable.size(); ++i) {
        const JumpDelay& row = result.jumpDelayTable[i];
        json += std::string(i == 0 ? "" : ", ") + "{\"up_to_length\": " + number(row.upToLength) +
                ", \"delay_us\": " + number(row.delayUs) + "}";
    }
    json += "],\n";
    json += " \"lost_events\": {";
    for (std::size_t i = 0; i < result.lostEvents.size(); ++i) {
        json += std::string(i == 0 ? "" : ", ") + jsonString(nameOf(signalName, result.lostEvents[i].first)) + ": " +
                std::to_string(result.lostEvents[i].second);
    }
    return json + "}}\n";
}

std::string toSummary(const Result& result, const SummaryOptions& options) {
    const Units units{options.unitsPerMm};
    std::string out = format("%s, head %d: %llu events over %.3f ms\n", options.source.c_str(), result.head,
                             static_cast<unsigned long long>(result.events), result.durationUs / 1000);
    if (result.lostEvents.empty()) {
        out += "Lost events: none\n";
    } else {
        out += "Lost events (overflow of the server's buffer; figures near them are less sure):";
        for (const auto& [type, count] : result.lostEvents) {
            out += format(" %s %llu", nameOf(options.signalName, type).c_str(), static_cast<unsigned long long>(count));
        }
        out += "\n";
    }
    const char* where = result.errorsWhileMarking ? "while marking" : "over the whole trace";

    out += "\nTracking error (how far the mirror runs behind the command):  X " +
           optionalUs(result.trackingErrorXUs) + " µs   Y " + optionalUs(result.trackingErrorYUs) + " µs\n";
    out += format("Following error %s (mirror - command shifted by the tracking error):\n", where);
    out += "  X rms " + units.error(result.followingErrorX.rms) + ", max " + units.error(result.followingErrorX.max) +
           "   Y rms " + units.error(result.followingErrorY.rms) + ", max " + units.error(result.followingErrorY.max) +
           "\n";
    out += format("Path deviation %s (distance of the mirror from the commanded path): rms %s, max %s\n", where,
                  units.error(result.pathDeviation.rms).c_str(), units.error(result.pathDeviation.max).c_str());

    if (!result.marks.empty()) {
        out += format("\nMarks: %zu (laser offsets: + the laser switched after the mirror, - before)\n",
                      result.marks.size());
        // printf counts bytes, and "µ" takes two.
        out += format("  %4s %14s %14s %16s %16s %11s %11s\n", "#", "gate on µs", "gate off µs", "length", "speed",
                      "on µs", "off µs");
        for (std::size_t i = 0; i < result.marks.size() && i < options.markRows; ++i) {
            const Mark& mark = result.marks[i];
            out += format("  %4zu %13.3f %13.3f %16s %16s %10s %10s\n", i + 1, mark.startUs, mark.endUs,
                          mark.length ? units.length(*mark.length).c_str() : "-",
                          mark.speed ? units.speed(*mark.speed).c_str() : "-",
                          optionalUs(mark.laserOnOffsetUs, "%+.1f").c_str(),
                          optionalUs(mark.laserOffOffsetUs, "%+.1f").c_str());
        }
        if (result.marks.size() > options.markRows) {
            out += format("  ... and %zu more (--json lists them all)\n", result.marks.size() - options.markRows);
        }
        out += laserMeaning("on", result.laserOnOffsetUs);
        out += laserMeaning("off", result.laserOffOffsetUs);
    }

    if (!result.jumps.empty()) {
        // Without the tracking error there is no settle time, and nothing is known about settling.
        const bool known = result.pathTrackingErrorUs.has_value();
        const auto late = std::count_if(result.jumps.begin(), result.jumps.end(),
                                        [](const Jump& j) { return !j.settled && !j.cutShort; });
        out += "\nJumps: " + std::to_string(result.jumps.size()) + "; settled: the mirror stays within " +
               units.length(result.settleBandUnits) + " of the target before the next motion begins; " +
               (known ? std::to_string(late) + " did not\n" : std::string("not measured\n"));
        out += format("  %4s %14s %14s %16s %11s %8s\n", "#", "start µs", "end µs", "length", "settle µs",
                      "settled");
        for (std::size_t i = 0; i < result.jumps.size() && i < options.markRows; ++i) {
            const Jump& jump = result.jumps[i];
            out += format("  %4zu %13.3f %13.3f %16s %10s %8s\n", i + 1, jump.startUs, jump.endUs,
                          units.length(jump.length).c_str(), optionalUs(jump.settleUs).c_str(),
                          !known ? "-" : jump.settled ? "yes" : jump.cutShort ? "(end)" : "NO");
        }
        if (result.jumps.size() > options.markRows) {
            out += format("  ... and %zu more (--json lists them all)\n", result.jumps.size() - options.markRows);
        }
    }
    const std::vector<std::string> suggestions = suggestedChanges(result, options.unitsPerMm);
    if (!suggestions.empty()) {
        out += "\nSuggested changes on the card\n";
        for (const std::string& item : suggestions) {
            out += "  - " + item + "\n";
        }
    }
    if (!result.missing.empty()) {
        out += "\nNot measured\n";
        for (const std::string& item : notMeasured(result)) {
            out += "  - " + item + "\n";
        }
    }
    return out;
}

std::vector<std::string> suggestedChanges(const Result& result, double unitsPerMm) {
    const Units units{unitsPerMm};
    std::vector<std::string> items;
    if (!result.marks.empty()) {
        for (std::string item : {laserSuggestion("Laser-on delay", result.laserOnOffsetUs),
                                  laserSuggestion("Laser-off delay", result.laserOffOffsetUs)}) {
            if (!item.empty()) {
                items.push_back(std::move(item));
            }
        }
    }
    if (!result.jumps.empty()) {
        for (const JumpDelay& row : result.jumpDelayTable) {
            items.push_back("Jump delay for jumps up to " + units.length(row.upToLength) + ": " +
                            (row.delayUs ? format("at least %.0f µs.", std::ceil(*row.delayUs))
                                         : std::string("longer than this trace shows (a jump never settled).")));
        }
    }
    const auto axisLag = [](const char* axis, std::optional<double> lag) {
        return lag ? format("%.1f µs on %s", *lag, axis) : std::string();
    };
    const std::string lags = axisLag("X", result.trackingErrorXUs) +
                             (result.trackingErrorXUs && result.trackingErrorYUs ? " and " : "") +
                             axisLag("Y", result.trackingErrorYUs);
    if (!lags.empty()) {
        items.push_back("Tracking error " + lags +
                        ": the laser-on delay and the jump delays must cover it;\n"
                        "    tuning the head's servo for a smaller one shortens both.");
    }
    return items;
}

std::vector<std::string> notMeasured(const Result& result) {
    std::vector<std::string> items;
    for (const MissingFigure& missing : result.missing) {
        items.push_back(missing.figure + ": " + missing.reason +
                        (missing.signals.empty() ? "" : " (trace " + missing.signals + " to get it)") + ".");
    }
    return items;
}

}  // namespace oltb::analysis
