// The analysis as a person reads it at the machine: the card's settings now and what to set instead, then the
// figures behind that advice, in the order a head is tuned.
#include "analysis/AnalysisReport.h"
#include "analysis/Text.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace oltb::analysis {

namespace {

// `text` right-aligned in `width` characters (not bytes: "µ" takes two).
std::string right(const std::string& text, std::size_t width) {
    const auto characters = static_cast<std::size_t>(
        std::count_if(text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
    return std::string(width > characters ? width - characters : 0, ' ') + text;
}

std::string left(const std::string& text, std::size_t width) {
    const auto characters = static_cast<std::size_t>(
        std::count_if(text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
    return text + std::string(width > characters ? width - characters : 0, ' ');
}

// Lengths, small distances and speeds in head units, or in mm, µm and mm/s with a scale.
struct Units {
    double perMm = 0;
    std::string length(std::optional<double> units) const {
        if (!units) return "-";
        return perMm > 0 ? format("%.3f mm", *units / perMm) : format("%.0f units", *units);
    }
    std::string small(std::optional<double> units, const char* sign = "") const {
        if (!units) return "-";
        const std::string pattern = std::string("%") + sign + (perMm > 0 ? ".1f µm" : ".0f units");
        return format(pattern.c_str(), perMm > 0 ? *units / perMm * 1000 : *units);
    }
    std::string error(std::optional<double> units) const {
        if (!units) return "-";
        return perMm > 0 ? format("%.1f µm", *units / perMm * 1000) : format("%.1f units", *units);
    }
    std::string speed(double unitsPerMs) const {
        return perMm > 0 ? format("%.1f mm/s", unitsPerMs / perMm * 1000) : format("%.0f units/ms", unitsPerMs);
    }
};

std::string us(std::optional<double> value, const char* pattern = "%.1f") {
    return value ? format(pattern, *value) : std::string("-");
}

std::string share(std::optional<double> value) { return value ? format("%.2f", *value) : std::string("-"); }

std::string dose(std::optional<double> value) {
    if (!value) return "-";
    return *value >= 99.5 ? std::string("dot") : format("%.1f", *value);
}

void settingsSection(std::string& out, const Result& result, const Units& units) {
    const Settings& s = result.settings;
    out += "\nThe card's settings, as the trace shows them, and what to set\n";
    out += "  " + left("", 18) + right("now", 12) + right("suggested", 12) + "\n";
    for (const auto& [name, setting] :
         {std::pair{"laser-on delay", &s.laserOn}, std::pair{"laser-off delay", &s.laserOff},
          std::pair{"jump delay", &s.jump}, std::pair{"mark delay", &s.mark}, std::pair{"polygon delay", &s.polygon}}) {
        out += "  " + left(name, 18) + right(us(setting->now) + " µs", 12) +
               right(setting->suggested ? us(setting->suggested, "%.0f") + " µs" : "-", 12) + "\n";
    }
    const auto speeds = [&units](const std::vector<double>& values) {
        std::string text;
        for (const double value : values) text += (text.empty() ? "" : ", ") + units.speed(value);
        return text.empty() ? std::string("-") : text;
    };
    out += "  mark speed " + speeds(s.markSpeeds) + "; jump speed " + speeds(s.jumpSpeeds) + "\n";
}

void headSection(std::string& out, const Result& result, const Units& units, const char* where) {
    out += "\nThe head\n";
    out += "  tracking error (the mirror's lag at constant speed):  X " + us(result.trackingErrorXUs) + " µs   Y " +
           us(result.trackingErrorYUs) + " µs\n";
    for (const auto& [axis, servo] : {std::pair{"X", &result.servoX}, std::pair{"Y", &result.servoY}}) {
        if (!servo->naturalFrequencyHz) continue;
        std::string line = format("  model of %s: %.0f Hz, damping %.2f", axis, *servo->naturalFrequencyHz,
                                  servo->damping.value_or(0.0));
        if (servo->driverFilterUs && *servo->driverFilterUs > 0.5)
            line += format(", driver filter %.0f µs", *servo->driverFilterUs);
        if (servo->maxAcceleration) line += format(", acceleration limit %.0f units/ms²", *servo->maxAcceleration);
        line += format("; misses the mirror by %.1f units rms (%s)\n", servo->fitRms.value_or(0.0),
                       servo->fitHolds ? "holds" : "does not hold: predictions are not made");
        out += line;
    }
    out += format("  following error %s (mirror - command shifted by the tracking error):\n", where);
    out += "    X rms " + units.error(result.followingErrorX.rms) + ", max " + units.error(result.followingErrorX.max) +
           "   Y rms " + units.error(result.followingErrorY.rms) + ", max " + units.error(result.followingErrorY.max) +
           "\n";
    out += format("  path deviation %s (distance of the mirror from the commanded path): rms %s, max %s\n", where,
                  units.error(result.pathDeviation.rms).c_str(), units.error(result.pathDeviation.max).c_str());
}

void marksSection(std::string& out, const Result& result, const Units& units, std::size_t rows) {
    out += format(
        "\nMarks: %zu. Missing: how much of the mark the laser leaves out at its start or end (negative: it "
        "marks beyond);\n  speed: the mirror's along the mark when the gate switches, as a share of the mark "
        "speed (dose = 1 / speed)\n",
        result.marks.size());
    out += "  " + right("#", 4) + right("gate on µs", 13) + right("length", 15) + right("speed", 15) +
           right("on delay", 10) + right("start missing", 15) + right("speed", 7) + right("off delay", 11) +
           right("end missing", 13) + right("speed", 7) + "\n";
    for (std::size_t i = 0; i < result.marks.size() && i < rows; ++i) {
        const Mark& mark = result.marks[i];
        out += "  " + right(std::to_string(i + 1), 4) + right(format("%.1f", mark.startUs), 13) +
               right(units.length(mark.length), 15) + right(mark.speed ? units.speed(*mark.speed) : "-", 15) +
               right(us(mark.laserOnDelayUs), 10) + right(units.small(mark.startMissing, "+"), 15) +
               right(share(mark.speedAtOn), 7) + right(us(mark.laserOffDelayUs), 11) +
               right(units.small(mark.endMissing, "+"), 13) + right(share(mark.speedAtOff), 7) +
               (mark.afterUnsettledJump ? "  after a jump that did not settle" : "") +
               (mark.notMeasured.empty() ? "" : "  " + mark.notMeasured) + "\n";
    }
    if (result.marks.size() > rows) {
        out += format("  ... and %zu more (--json lists them all)\n", result.marks.size() - rows);
    }
}

void laserSection(std::string& out, const Result& result, const Units& units) {
    if (result.onChoices.empty()) {
        return;
    }
    out += format(
        "\nLaser delays for a largest edge dose of %g (--max-edge-dose): no point of a mark gets more than %g "
        "times\n  the dose of the mark's body. Other delays trade missing length against dose (median "
        "missing, largest dose\n  over the marks):\n",
        result.maxEdgeDose, result.maxEdgeDose);
    out += "  " + right("on delay µs", 13) + right("start missing", 15) + right("edge dose", 11) +
           right("off delay µs", 16) + right("end missing", 13) + right("edge dose", 11) + "\n";
    for (std::size_t i = 0; i < std::max(result.onChoices.size(), result.offChoices.size()); ++i) {
        const bool middle = i == result.onChoices.size() / 2;
        std::string line = "  ";
        if (i < result.onChoices.size()) {
            const DelayChoice& c = result.onChoices[i];
            line += right(format("%.0f", c.delayUs), 13) + right(units.small(c.missing, "+"), 15) +
                    right(dose(c.edgeDose), 11);
        }
        if (i < result.offChoices.size()) {
            const DelayChoice& c = result.offChoices[i];
            line += right(format("%.0f", c.delayUs), 16) + right(units.small(c.missing, "+"), 13) +
                    right(dose(c.edgeDose), 11);
        }
        out += line + (middle ? "   <- suggested" : "") + "\n";
    }
    for (const SpeedGroup& group : result.bySpeed) {
        out += "  marks at " + units.speed(group.speed) +
               format(" (%zu): laser-on %s µs, laser-off %s µs\n", group.marks, us(group.onDelayUs, "%.0f").c_str(),
                      us(group.offDelayUs, "%.0f").c_str());
    }
}

void jumpsSection(std::string& out, const Result& result, const Units& units, std::size_t rows) {
    const auto late = std::count_if(result.jumps.begin(), result.jumps.end(),
                                    [](const Jump& j) { return !j.settled && j.atLeastUs; });
    out += "\nJumps: " + std::to_string(result.jumps.size()) + ", " + std::to_string(late) +
           " not settled. Settled: the mirror entered the band of " + units.length(result.settleBandUnits) +
           " around the target\n  for good before the next motion began (passing through it at speed does not "
           "count)\n";
    out += "  " + right("#", 4) + right("start µs", 13) + right("length", 16) + right("delay µs", 10) +
           right("settle µs", 18) + right("settled", 9) + "\n";
    for (std::size_t i = 0; i < result.jumps.size() && i < rows; ++i) {
        const Jump& jump = result.jumps[i];
        std::string settle = us(jump.settleUs);
        if (!jump.settled && jump.predictedSettleUs) {
            settle = format("%.1f predicted", *jump.predictedSettleUs);
        } else if (!jump.settled && jump.atLeastUs) {
            settle = format("> %.1f", *jump.atLeastUs);
        }
        out += "  " + right(std::to_string(i + 1), 4) + right(format("%.1f", jump.startUs), 13) +
               right(units.length(jump.length), 16) + right(us(jump.delayUs), 10) + right(settle, 18) +
               right(jump.settled     ? "yes"
                     : jump.cutShort  ? "(end)"
                     : jump.atLeastUs ? "NO"
                                      : "-",
                     9) +
               "\n";
    }
    if (result.jumps.size() > rows) {
        out += format("  ... and %zu more (--json lists them all)\n", result.jumps.size() - rows);
    }
    if (result.jumpDelayTable.size() > 1) {
        out += "  jump delay by length (a card's variable jump delay; 10 % margin):\n";
        for (const JumpDelay& row : result.jumpDelayTable) {
            out += "    up to " + right(units.length(row.upToLength), 16) + ": " +
                   (row.delayUs ? format("%.0f µs%s", *row.delayUs, row.predicted ? " (predicted)" : "")
                                : format("more than %.0f µs (not settled; trace with a longer jump delay)",
                                         row.atLeastUs.value_or(0.0))) +
                   "\n";
        }
    }
}

void cornersSection(std::string& out, const Result& result, const Units& units, std::size_t rows) {
    if (result.corners.empty()) {
        return;
    }
    out +=
        format("\nCorners: %zu (rounding: the closest the mirror comes to the corner point)\n", result.corners.size());
    out += "  " + right("#", 4) + right("mark", 5) + right("at µs", 13) + right("angle", 7) + right("delay µs", 10) +
           right("rounding", 14) + right("dose", 6) + right("needs µs", 10) + "\n";
    for (std::size_t i = 0; i < result.corners.size() && i < rows; ++i) {
        const Corner& c = result.corners[i];
        out += "  " + right(std::to_string(i + 1), 4) + right(std::to_string(c.mark + 1), 5) +
               right(format("%.1f", c.atUs), 13) + right(format("%.0f°", c.angleDeg), 7) +
               right(format("%.1f", c.delayUs), 10) + right(units.small(c.rounding), 14) + right(dose(c.edgeDose), 6) +
               right(us(c.suggestedDelayUs, "%.0f"), 10) + "\n";
    }
    if (result.corners.size() > rows) {
        out += format("  ... and %zu more (--json lists them all)\n", result.corners.size() - rows);
    }
}

}  // namespace

std::string toSummary(const Result& result, const SummaryOptions& options) {
    const Units units{options.unitsPerMm};
    std::string out = format("%s, head %d: %llu events over %.3f ms\n", options.source.c_str(), result.head,
                             static_cast<unsigned long long>(result.events), result.durationUs / 1000);
    if (result.lostEvents.empty()) {
        out += "Lost events: none\n";
    } else {
        out += "Lost events (overflow of the server's buffer; figures near them are less sure):";
        for (const auto& [type, count] : result.lostEvents) {
            out += format(" %s %llu", signalLabel(type).c_str(), static_cast<unsigned long long>(count));
        }
        out += "\n";
    }
    if (!result.marks.empty() || !result.jumps.empty()) {
        settingsSection(out, result, units);
    }
    headSection(out, result, units, result.errorsWhileMarking ? "while marking" : "over the whole trace");
    if (!result.marks.empty()) {
        marksSection(out, result, units, options.markRows);
        laserSection(out, result, units);
    }
    if (!result.jumps.empty()) {
        jumpsSection(out, result, units, options.markRows);
    }
    cornersSection(out, result, units, options.markRows);
    const std::vector<std::string> suggestions = suggestedChanges(result, options.unitsPerMm);
    if (!suggestions.empty()) {
        out += "\nSuggested changes on the card\n";
        for (const std::string& item : suggestions) {
            out += "  - " + item + "\n";
        }
    }
    if (!result.warnings.empty()) {
        out += "\nWarnings\n";
        for (const std::string& item : result.warnings) {
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

std::vector<std::string> suggestedChanges(const Result& result, double) {
    std::vector<std::string> items;
    const Settings& s = result.settings;
    for (const auto& [name, setting] : {std::pair{"Jump delay", &s.jump}, std::pair{"Laser-on delay", &s.laserOn},
                                        std::pair{"Laser-off delay", &s.laserOff}, std::pair{"Mark delay", &s.mark},
                                        std::pair{"Polygon delay", &s.polygon}}) {
        if (!setting->suggested) {
            continue;
        }
        std::string item = name;
        if (setting->now && std::abs(*setting->now - *setting->suggested) < 1) {
            item += format(": %.0f µs fits; leave it", *setting->suggested);
        } else if (setting->now) {
            item += format(": %.0f → %.0f µs", *setting->now, *setting->suggested);
        } else {
            item += format(": %.0f µs", *setting->suggested);
        }
        items.push_back(item + (setting->why.empty() ? "." : ":\n    " + setting->why + "."));
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
