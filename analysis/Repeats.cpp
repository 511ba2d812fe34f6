// Runs are cut where the labels are, analysed one by one, and held against the first run: the same job marks the
// same polylines and jumps the same jumps, at the same commanded points. Each figure of interest then becomes a
// spread over the runs that have it, with the run where it was worst, and the settings are chosen to hold in all.
#include "analysis/Repeats.h"

#include "analysis/AnalysisReport.h"
#include "analysis/Figures.h"
#include "analysis/Text.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <map>
#include <numeric>

namespace oltb::analysis {

namespace {

constexpr double SameTolerance = 2.0;  // units: commanded points of one job agree to their rounding

bool isLabel(const oltbTraceEvent& event, std::uint16_t number) {
    return event.Type == oltbEventLabel && static_cast<std::uint16_t>(event.Value) == number;
}

bool samePoint(std::optional<double> ax, std::optional<double> ay, std::optional<double> bx, std::optional<double> by) {
    if (!ax || !ay || !bx || !by) return ax.has_value() == bx.has_value();
    return std::abs(*ax - *bx) <= SameTolerance && std::abs(*ay - *by) <= SameTolerance;
}

// Why run `k` is not the job of run 0, or nothing.
std::string differs(const Result& first, const Result& run, std::size_t k) {
    const auto counted = [](const Result& r) {
        return format("%zu marks and %zu jumps", r.marks.size(), r.jumps.size());
    };
    if (run.marks.size() != first.marks.size() || run.jumps.size() != first.jumps.size()) {
        return format("run 1 has %s, run %zu has %s", counted(first).c_str(), k + 1, counted(run).c_str());
    }
    for (std::size_t m = 0; m < run.marks.size(); ++m) {
        const Mark& a = first.marks[m];
        const Mark& b = run.marks[m];
        if (!samePoint(a.startX, a.startY, b.startX, b.startY) || !samePoint(a.endX, a.endY, b.endX, b.endY)) {
            return format(
                "mark %zu of run %zu runs from (%.0f, %.0f) to (%.0f, %.0f), in run 1 from (%.0f, %.0f) to "
                "(%.0f, %.0f)",
                m + 1, k + 1, b.startX.value_or(0), b.startY.value_or(0), b.endX.value_or(0), b.endY.value_or(0),
                a.startX.value_or(0), a.startY.value_or(0), a.endX.value_or(0), a.endY.value_or(0));
        }
    }
    for (std::size_t j = 0; j < run.jumps.size(); ++j) {
        const Jump& a = first.jumps[j];
        const Jump& b = run.jumps[j];
        if (!samePoint(a.toX, a.toY, b.toX, b.toY)) {
            return format("jump %zu of run %zu goes to (%.0f, %.0f), in run 1 to (%.0f, %.0f)", j + 1, k + 1, b.toX,
                          b.toY, a.toX, a.toY);
        }
    }
    return {};
}

// How far a value is from what the figure should be: larger is worse.
using Badness = std::function<double(double)>;
const Badness larger = [](double v) { return v; };
const Badness farFromZero = [](double v) { return std::abs(v); };

struct Collector {
    const std::vector<Result>& results;
    std::vector<Spread>& figures;

    void add(const std::string& figure, const std::string& unit, const Badness& badness,
             const std::function<std::optional<double>(const Result&)>& value) {
        std::vector<double> values;
        Spread spread;
        double worst = -INFINITY;
        for (std::size_t k = 0; k < results.size(); ++k) {
            const std::optional<double> v = value(results[k]);
            if (!v || !std::isfinite(*v)) continue;
            values.push_back(*v);
            if (badness(*v) > worst) {
                worst = badness(*v);
                spread.worstRun = k;
            }
        }
        if (values.empty()) return;
        spread.figure = figure;
        spread.unit = unit;
        spread.runs = values.size();
        spread.median = median(values);
        spread.min = *std::min_element(values.begin(), values.end());
        spread.max = *std::max_element(values.begin(), values.end());
        const double mean = std::accumulate(values.begin(), values.end(), 0.0) / static_cast<double>(values.size());
        double squares = 0;
        for (const double v : values) squares += (v - mean) * (v - mean);
        spread.stddev = values.size() > 1 ? std::sqrt(squares / static_cast<double>(values.size() - 1)) : 0.0;
        figures.push_back(spread);
    }
};

void collectFigures(Repeatability& repeats, double dose) {
    Collector c{repeats.results, repeats.figures};
    const Badness slow = [dose](double share) { return 1 / dose - share; };  // the slower, the more dose
    c.add("tracking error X", "us", larger, [](const Result& r) { return r.trackingErrorXUs; });
    c.add("tracking error Y", "us", larger, [](const Result& r) { return r.trackingErrorYUs; });
    c.add("following error X rms", "units", larger, [](const Result& r) { return r.followingErrorX.rms; });
    c.add("following error Y rms", "units", larger, [](const Result& r) { return r.followingErrorY.rms; });
    c.add("path deviation rms", "units", larger, [](const Result& r) { return r.pathDeviation.rms; });
    const Result& first = repeats.results.front();
    for (std::size_t m = 0; m < first.marks.size(); ++m) {
        const std::string mark = "mark " + std::to_string(m + 1) + " ";
        const auto field = [m](std::optional<double> Mark::*f) {
            return [m, f](const Result& r) { return r.marks[m].*f; };
        };
        c.add(mark + "start missing", "units", farFromZero, field(&Mark::startMissing));
        c.add(mark + "end missing", "units", farFromZero, field(&Mark::endMissing));
        c.add(mark + "speed at on", "share", slow, field(&Mark::speedAtOn));
        c.add(mark + "speed at off", "share", slow, field(&Mark::speedAtOff));
        c.add(mark + "best laser-on delay", "us", larger, field(&Mark::bestOnDelayUs));
        c.add(mark + "best laser-off delay", "us", farFromZero, field(&Mark::bestOffDelayUs));
    }
    for (std::size_t j = 0; j < first.jumps.size(); ++j) {
        c.add("jump " + std::to_string(j + 1) + " settle time", "us", larger,
              [j](const Result& r) { return r.jumps[j].settled ? r.jumps[j].settleUs : r.jumps[j].predictedSettleUs; });
    }
    for (std::size_t k = 0; k < first.corners.size(); ++k) {
        c.add("corner " + std::to_string(k + 1) + " rounding", "units", larger,
              [k](const Result& r) { return k < r.corners.size() ? r.corners[k].rounding : std::nullopt; });
        c.add("corner " + std::to_string(k + 1) + " edge dose", "dose", larger,
              [k](const Result& r) { return k < r.corners.size() ? r.corners[k].edgeDose : std::nullopt; });
    }
    c.add("lost events", "events", larger, [](const Result& r) {
        double lost = 0;
        for (const auto& entry : r.lostEvents) lost += static_cast<double>(entry.second);
        return std::optional<double>(lost);
    });
}

// The settings that hold in every run that counts, each with the run that decides it.
void chooseSettings(Repeatability& repeats) {
    const std::vector<Result>& results = repeats.results;
    Settings& settings = repeats.settings;
    settings = results.front().settings;
    const auto decide = [&](Setting Settings::*which, bool latest, const char* meaning) {
        std::optional<std::size_t> run;
        for (std::size_t k = 0; k < results.size(); ++k) {
            const std::optional<double>& value = (results[k].settings.*which).suggested;
            if (value && (!run || (latest ? *value > *(results[*run].settings.*which).suggested
                                          : *value < *(results[*run].settings.*which).suggested))) {
                run = k;
            }
        }
        Setting& setting = settings.*which;
        if (!run) {
            setting.suggested.reset();
            return;
        }
        setting.suggested = (results[*run].settings.*which).suggested;
        setting.why =
            format("%s in every run: run %zu decides it; ", meaning, *run + 1) + (results[*run].settings.*which).why;
    };
    decide(&Settings::laserOn, true, "the latest the mirror reaches 1/D of the mark speed");
    decide(&Settings::laserOff, false, "the earliest it slows below 1/D or reaches the end");
    decide(&Settings::polygon, true, "the longest a corner needs");
    // The jumps of all runs in one table: a delay by length that covers the slowest of each length.
    std::vector<Jump> jumps;
    for (const Result& result : results) jumps.insert(jumps.end(), result.jumps.begin(), result.jumps.end());
    repeats.jumpDelayTable = jumpDelayTable(jumps);
    if (!repeats.jumpDelayTable.empty() && repeats.jumpDelayTable.back().delayUs) {
        settings.jump.suggested = repeats.jumpDelayTable.back().delayUs;
        settings.jump.why =
            format("covers every jump of all %zu runs with a margin of 10 %% (at least 5 µs)", results.size());
    } else {
        decide(&Settings::jump, true, "a longer jump delay to measure with");
    }
    if (settings.laserOff.suggested && settings.mark.now) {
        settings.mark.suggested = roundUpToPeriod(std::max(0.0, *settings.laserOff.suggested));
    }
}

// Warnings of the runs, each once, with the runs that had it.
void gatherWarnings(Repeatability& repeats) {
    std::map<std::string, std::vector<std::size_t>> runsOf;
    std::vector<std::string> order;
    for (std::size_t k = 0; k < repeats.results.size(); ++k) {
        for (const std::string& warning : repeats.results[k].warnings) {
            if (runsOf.find(warning) == runsOf.end()) order.push_back(warning);
            runsOf[warning].push_back(k);
        }
    }
    for (const std::string& warning : order) {
        const std::vector<std::size_t>& runs = runsOf[warning];
        std::string which = runs.size() == repeats.results.size() ? "every run" : "run";
        if (runs.size() < repeats.results.size()) {
            for (std::size_t i = 0; i < runs.size() && i < 8; ++i) {
                which += (i == 0 ? " " : ", ") + std::to_string(runs[i] + 1);
            }
            which += runs.size() > 8 ? ", ..." : "";
        }
        repeats.warnings.push_back("In " + which + ": " + warning);
    }
    if (repeats.unclosed > 0) {
        repeats.warnings.push_back(format("%zu run%s began but did not end within the capture: left out.",
                                          repeats.unclosed, repeats.unclosed == 1 ? "" : "s"));
    }
}

}  // namespace

std::vector<std::vector<oltbTraceEvent>> runsBetween(const oltbTraceEvent* events, std::size_t count,
                                                     std::uint16_t startLabel, std::uint16_t endLabel) {
    std::vector<std::size_t> order;
    for (std::size_t i = 0; i < count; ++i) {
        if (std::isfinite(events[i].Time)) order.push_back(i);
    }
    std::stable_sort(order.begin(), order.end(),
                     [events](std::size_t a, std::size_t b) { return events[a].Time < events[b].Time; });
    std::vector<std::vector<oltbTraceEvent>> runs;
    std::vector<oltbTraceEvent> current;
    bool inRun = false;
    double start = 0;
    for (const std::size_t i : order) {
        const oltbTraceEvent& event = events[i];
        if (isLabel(event, startLabel) && !inRun) {
            inRun = true;
            start = event.Time;
            current.clear();
        } else if (isLabel(event, endLabel) && inRun) {
            runs.push_back(std::move(current));
            current = {};
            inRun = false;
        } else if (inRun) {
            oltbTraceEvent shifted = event;
            shifted.Time -= start;
            current.push_back(shifted);
        }
    }
    if (inRun) {
        runs.emplace_back();  // begun and not ended: an empty run marks it
    }
    return runs;
}

Repeatability analyzeEach(const oltbTraceEvent* events, std::size_t count, std::uint16_t startLabel,
                          std::uint16_t endLabel, const Options& options) {
    std::vector<std::vector<oltbTraceEvent>> runs = runsBetween(events, count, startLabel, endLabel);
    Repeatability repeats;
    if (!runs.empty() && runs.back().empty()) {
        runs.pop_back();
        repeats.unclosed = 1;
    }
    if (runs.empty()) {
        throw RunsError(format("no run between labels %u and %u: the capture holds no label %u followed by a label %u",
                               startLabel, endLabel, startLabel, endLabel));
    }
    for (const std::vector<oltbTraceEvent>& run : runs) {
        repeats.results.push_back(analyze(run, options));
    }
    for (std::size_t k = 1; k < repeats.results.size(); ++k) {
        const std::string difference = differs(repeats.results.front(), repeats.results[k], k);
        if (!difference.empty()) {
            throw RunsError("the runs between labels " + std::to_string(startLabel) + " and " +
                            std::to_string(endLabel) + " hold different jobs: " + difference);
        }
    }
    repeats.runs = repeats.results.size();
    collectFigures(repeats, options.maxEdgeDose);
    chooseSettings(repeats);
    gatherWarnings(repeats);
    return repeats;
}

std::string toJson(const Repeatability& repeats, bool withRuns) {
    std::string json = "{\"runs\": " + std::to_string(repeats.runs) +
                       ", \"unclosed\": " + std::to_string(repeats.unclosed) + ",\n \"figures\": [";
    for (std::size_t i = 0; i < repeats.figures.size(); ++i) {
        const Spread& s = repeats.figures[i];
        json += std::string(i == 0 ? "\n  " : ",\n  ") + "{\"figure\": " + jsonString(s.figure) +
                ", \"unit\": " + jsonString(s.unit) + ", \"runs\": " + std::to_string(s.runs) +
                ", \"median\": " + jsonNumber(s.median) + ", \"min\": " + jsonNumber(s.min) +
                ", \"max\": " + jsonNumber(s.max) + ", \"std\": " + jsonNumber(s.stddev) +
                ", \"worst_run\": " + std::to_string(s.worstRun + 1) + "}";
    }
    json += "],\n \"settings\": " + settingsJson(repeats.settings) +
            ",\n \"jump_delay_table\": " + jumpDelayTableJson(repeats.jumpDelayTable) + ",\n \"warnings\": [";
    for (std::size_t i = 0; i < repeats.warnings.size(); ++i) {
        json += std::string(i == 0 ? "" : ", ") + jsonString(repeats.warnings[i]);
    }
    if (!withRuns) {
        return json + "]}\n";
    }
    json += "],\n \"each\": [";
    for (std::size_t k = 0; k < repeats.results.size(); ++k) {
        json += (k == 0 ? "\n" : ",\n") + toJson(repeats.results[k]);
    }
    return json + "]}\n";
}

std::string toSummary(const Repeatability& repeats, const std::string& source, double unitsPerMm) {
    std::string out = format("%s: %zu runs analysed one by one; each figure over the runs that have it\n",
                             source.c_str(), repeats.runs);
    out += format("  %-34s %7s %12s %12s %12s %10s %6s\n", "figure", "runs", "median", "min", "max", "std", "worst");
    for (const Spread& s : repeats.figures) {
        const bool length = s.unit == "units" && unitsPerMm > 0;
        const double scale = length ? 1000 / unitsPerMm : 1.0;
        const std::string unit = length ? "µm" : s.unit;
        const char* pattern = s.unit == "share" || s.unit == "dose" ? "%12.3f" : "%12.1f";
        std::string line = format("  %-34s %7zu", (s.figure + " (" + unit + ")").c_str(), s.runs);
        for (const double v : {s.median * scale, s.min * scale, s.max * scale}) line += format(pattern, v);
        out += line + format("%10.3f %6zu\n", s.stddev * scale, s.worstRun + 1);
    }
    out += "\nSettings that hold in every run\n";
    for (const auto& [name, setting] :
         {std::pair{"Jump delay", &repeats.settings.jump}, std::pair{"Laser-on delay", &repeats.settings.laserOn},
          std::pair{"Laser-off delay", &repeats.settings.laserOff}, std::pair{"Mark delay", &repeats.settings.mark},
          std::pair{"Polygon delay", &repeats.settings.polygon}}) {
        if (setting->suggested) {
            out += format("  - %s: %.0f µs", name, *setting->suggested) +
                   (setting->why.empty() ? "\n" : ":\n    " + setting->why + ".\n");
        }
    }
    if (!repeats.warnings.empty()) {
        out += "\nWarnings\n";
        for (const std::string& warning : repeats.warnings) out += "  - " + warning + "\n";
    }
    return out;
}

}  // namespace oltb::analysis
