// Pairing: in order of time, each mark of the later trace takes the first mark of the earlier one not yet taken
// whose commanded start and end points are the same (whole units, so the same job gives the same points); jumps by
// their start and target, corners by their point within paired marks. What is left unpaired means another job.
#include "analysis/Comparison.h"

#include "analysis/AnalysisReport.h"
#include "analysis/Series.h"
#include "analysis/Text.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <map>

namespace oltb::analysis {

namespace {

constexpr double SameUnits = 2.0;

bool same(std::optional<double> a, std::optional<double> b) { return a && b && std::abs(*a - *b) <= SameUnits; }

template <typename T, typename Twins>
std::vector<std::pair<std::size_t, std::size_t>> pair(const std::vector<T>& before, const std::vector<T>& after,
                                                      Twins twins) {
    std::vector<std::pair<std::size_t, std::size_t>> pairs;
    std::vector<bool> taken(before.size(), false);
    std::size_t from = 0;
    for (std::size_t a = 0; a < after.size(); ++a) {
        for (std::size_t b = from; b < before.size(); ++b) {
            if (!taken[b] && twins(before[b], after[a])) {
                taken[b] = true;
                pairs.emplace_back(b, a);
                from = b + 1;
                break;
            }
        }
    }
    return pairs;
}

std::optional<double> medianOf(const std::vector<double>& values) {
    return values.empty() ? std::nullopt : std::optional<double>(median(values));
}

std::optional<double> doseOf(std::optional<double> speedShare) {
    if (!speedShare) return std::nullopt;
    return 1 / std::max(*speedShare, 0.01);
}

// What one figure's change means. `kind`: "smaller" (less is better), "zero" (closer to 0 is better), "dose"
// (within the limit is what counts), "" (a choice, no verdict).
FigureChange change(std::string figure, std::string unit, std::optional<double> before, std::optional<double> after,
                    const std::string& kind, double limit = 0) {
    FigureChange c{std::move(figure), std::move(unit), before, after, "", ""};
    if (!before || !after) {
        c.words = before ? "not measured after" : after ? "not measured before" : "not measured";
        return c;
    }
    const double b = *before, a = *after;
    const double epsilon = c.unit == "us" ? 0.5 : c.unit == "units" ? 1.0 : c.unit == "events" ? 0.5 : 0.02;
    const double difference = a - b;
    const bool alike = std::abs(difference) <= std::max(epsilon, 0.02 * std::max(std::abs(a), std::abs(b)));
    const std::string by = format(c.unit == "share" || c.unit == "dose" ? "%.2f" : "%.1f", std::abs(difference)) +
                           (c.unit == "us"      ? " µs"
                            : c.unit == "units" ? " units"
                                                : "");
    if (alike) {
        c.verdict = kind.empty() ? "" : "the same";
        c.words = "the same";
        return c;
    }
    c.words = (kind == "zero" ? (std::abs(a) < std::abs(b) ? "closer to 0 by " : "further from 0 by ")
                              : (difference < 0 ? (c.unit == "us" ? "shorter by " : "smaller by ")
                                                : (c.unit == "us" ? "longer by " : "larger by "))) +
              by;
    if (kind == "smaller") {
        c.verdict = difference < 0 ? "better" : "worse";
    } else if (kind == "zero") {
        c.verdict = std::abs(a) < std::abs(b) ? "better" : "worse";
    } else if (kind == "dose") {
        const bool within = a <= 1.05 * limit, was = b <= 1.05 * limit;
        c.verdict = within && !was   ? "better"
                    : !within && was ? "worse"
                    : within         ? "the same"
                    : difference < 0 ? "better"
                                     : "worse";
        c.words += within ? (was ? " (within the limit both times)" : " (within the limit now)")
                          : (was ? " (beyond the limit now)" : " (beyond the limit)");
    }
    return c;
}

std::string speedName(double unitsPerMs) { return format("marks at %.0f units/ms", unitsPerMs); }

}  // namespace

Comparison compare(const Result& before, const Result& after) {
    Comparison result;
    result.marks = pair(before.marks, after.marks, [](const Mark& b, const Mark& a) {
        return same(b.startX, a.startX) && same(b.startY, a.startY) && same(b.endX, a.endX) && same(b.endY, a.endY);
    });
    result.jumps = pair(before.jumps, after.jumps, [](const Jump& b, const Jump& a) {
        return same(b.fromX, a.fromX) && same(b.fromY, a.fromY) && same(b.toX, a.toX) && same(b.toY, a.toY);
    });
    std::map<std::size_t, std::size_t> markTwin(result.marks.begin(), result.marks.end());
    result.corners = pair(before.corners, after.corners, [&markTwin](const Corner& b, const Corner& a) {
        const auto twin = markTwin.find(b.mark);
        return twin != markTwin.end() && twin->second == a.mark && same(b.x, a.x) && same(b.y, a.y);
    });
    const auto unpaired = [](const char* what, std::size_t paired, std::size_t b, std::size_t a) {
        return paired == b && paired == a ? std::string()
                                          : format("%zu of %zu %s before and %zu of %zu after have no twin; ",
                                                   b - paired, b, what, a - paired, a);
    };
    result.jobDifference = unpaired("marks", result.marks.size(), before.marks.size(), after.marks.size()) +
                           unpaired("jumps", result.jumps.size(), before.jumps.size(), after.jumps.size());
    if (!result.jobDifference.empty()) {
        result.jobDifference =
            "the traces hold different jobs: " + result.jobDifference.substr(0, result.jobDifference.size() - 2) +
            "; only the twins are compared";
    }

    // What changed on the card.
    for (const auto& [name, which] :
         {std::pair{"laser-on delay", &Settings::laserOn}, std::pair{"laser-off delay", &Settings::laserOff},
          std::pair{"jump delay", &Settings::jump}, std::pair{"mark delay", &Settings::mark},
          std::pair{"polygon delay", &Settings::polygon}}) {
        result.settings.push_back(change(name, "us", (before.settings.*which).now, (after.settings.*which).now, ""));
    }

    std::vector<FigureChange>& f = result.figures;
    f.push_back(change("tracking error X", "us", before.trackingErrorXUs, after.trackingErrorXUs, "smaller"));
    f.push_back(change("tracking error Y", "us", before.trackingErrorYUs, after.trackingErrorYUs, "smaller"));
    f.push_back(
        change("following error X rms", "units", before.followingErrorX.rms, after.followingErrorX.rms, "smaller"));
    f.push_back(
        change("following error Y rms", "units", before.followingErrorY.rms, after.followingErrorY.rms, "smaller"));
    f.push_back(change("path deviation rms", "units", before.pathDeviation.rms, after.pathDeviation.rms, "smaller"));
    f.push_back(change("path deviation max", "units", before.pathDeviation.max, after.pathDeviation.max, "smaller"));

    // The laser's edges, per mark speed: the median over the paired marks of that speed.
    std::map<long, std::vector<std::pair<std::size_t, std::size_t>>> bySpeed;
    for (const auto& p : result.marks) {
        if (before.marks[p.first].speed) bySpeed[std::lround(*before.marks[p.first].speed / 10)].push_back(p);
    }
    for (const auto& entry : bySpeed) {  // not a structured binding: the lambdas below capture its parts
        const auto& speed = entry.first;
        const auto& pairs = entry.second;
        const std::string group = speedName(static_cast<double>(speed) * 10) + ": ";
        const auto side = [&](const Result& r, bool later,
                              const std::function<std::optional<double>(const Mark&)>& value) {
            std::vector<double> values;
            for (const auto& p : pairs) {
                if (const std::optional<double> v = value(r.marks[later ? p.second : p.first])) values.push_back(*v);
            }
            return medianOf(values);
        };
        const auto both = [&](const char* name, const char* unit, const char* kind,
                              const std::function<std::optional<double>(const Mark&)>& value) {
            f.push_back(change(group + name, unit, side(before, false, value), side(after, true, value), kind,
                               after.maxEdgeDose));
        };
        both("start missing", "units", "zero", [](const Mark& m) { return m.startMissing; });
        both("dose at the start", "dose", "dose", [](const Mark& m) { return doseOf(m.speedAtOn); });
        both("end missing", "units", "zero", [](const Mark& m) { return m.endMissing; });
        both("dose at the end", "dose", "dose", [](const Mark& m) { return doseOf(m.speedAtOff); });
    }

    // Jumps by length: how long they took to settle (the median over the pairs of that length), and how many did
    // before the next motion began.
    std::map<long, std::vector<std::pair<std::size_t, std::size_t>>> byLength;
    for (const auto& p : result.jumps) {
        if (!before.jumps[p.first].cutShort && !after.jumps[p.second].cutShort) {
            byLength[std::lround(before.jumps[p.first].length)].push_back(p);
        }
    }
    for (const auto& entry : byLength) {  // not a structured binding: the lambdas below capture its parts
        const auto& length = entry.first;
        const auto& pairs = entry.second;
        const auto side = [&pairs](const Result& r, bool later, std::size_t& settled) {
            std::vector<double> times;
            settled = 0;
            for (const auto& p : pairs) {
                const Jump& j = r.jumps[later ? p.second : p.first];
                settled += j.settled ? 1 : 0;
                if (const std::optional<double> t = j.settled ? j.settleUs : j.predictedSettleUs) times.push_back(*t);
            }
            return medianOf(times);
        };
        std::size_t settledBefore = 0, settledAfter = 0;
        const std::optional<double> b = side(before, false, settledBefore), a = side(after, true, settledAfter);
        FigureChange c =
            change(format("jumps of %ld units (%zu): settle time", length, pairs.size()), "us", b, a, "smaller");
        if (settledBefore != settledAfter) {
            c.verdict = settledAfter > settledBefore ? "better" : "worse";
            c.words = format("settled %zu of %zu, before %zu", settledAfter, pairs.size(), settledBefore) +
                      (c.words == "the same" ? "" : "; " + c.words);
        } else if (settledAfter < pairs.size()) {
            c.words += format(" (%zu of %zu did not settle either time)", pairs.size() - settledAfter, pairs.size());
        }
        f.push_back(c);
    }
    // Corners by their point (a job repeated turns at the same corners): the median over the pairs of each.
    std::map<std::pair<long, long>, std::vector<std::pair<std::size_t, std::size_t>>> byPoint;
    for (const auto& p : result.corners) {
        byPoint[{std::lround(after.corners[p.second].x), std::lround(after.corners[p.second].y)}].push_back(p);
    }
    for (const auto& entry : byPoint) {  // not a structured binding: the lambdas below capture its parts
        const auto& point = entry.first;
        const auto& pairs = entry.second;
        const auto side = [&pairs](const Result& r, bool later, std::optional<double> Corner::*field) {
            std::vector<double> values;
            for (const auto& p : pairs) {
                if (const std::optional<double> v = r.corners[later ? p.second : p.first].*field) values.push_back(*v);
            }
            return medianOf(values);
        };
        const std::string name = format("corner at (%ld, %ld), %.0f° (%zu)", point.first, point.second,
                                        after.corners[pairs.front().second].angleDeg, pairs.size());
        f.push_back(change(name + ": rounding", "units", side(before, false, &Corner::rounding),
                           side(after, true, &Corner::rounding), "smaller"));
        f.push_back(change(name + ": dose", "dose", side(before, false, &Corner::edgeDose),
                           side(after, true, &Corner::edgeDose), "dose", after.maxEdgeDose));
    }
    const auto lost = [](const Result& r) {
        double total = 0;
        for (const auto& entry : r.lostEvents) total += static_cast<double>(entry.second);
        return std::optional<double>(total);
    };
    f.push_back(change("lost events", "events", lost(before), lost(after), "smaller"));
    return result;
}

std::string toJson(const Comparison& comparison, const Result& before, const Result& after) {
    const auto changes = [](const std::vector<FigureChange>& list) {
        std::string json = "[";
        for (std::size_t i = 0; i < list.size(); ++i) {
            const FigureChange& c = list[i];
            json += std::string(i == 0 ? "\n  " : ",\n  ") + "{\"figure\": " + jsonString(c.figure) +
                    ", \"unit\": " + jsonString(c.unit) + ", \"before\": " + jsonNumber(c.before) +
                    ", \"after\": " + jsonNumber(c.after) +
                    ", \"verdict\": " + (c.verdict.empty() ? std::string("null") : jsonString(c.verdict)) +
                    ", \"words\": " + jsonString(c.words) + "}";
        }
        return json + "]";
    };
    const auto pairs = [](const std::vector<std::pair<std::size_t, std::size_t>>& list) {
        std::string json = "[";
        for (std::size_t i = 0; i < list.size(); ++i) {
            json +=
                (i == 0 ? "[" : ", [") + std::to_string(list[i].first) + ", " + std::to_string(list[i].second) + "]";
        }
        return json + "]";
    };
    return "{\"same_job\": " + std::string(comparison.jobDifference.empty() ? "true" : "false") +
           ", \"job_difference\": " +
           (comparison.jobDifference.empty() ? std::string("null") : jsonString(comparison.jobDifference)) +
           ",\n \"settings\": " + changes(comparison.settings) + ",\n \"figures\": " + changes(comparison.figures) +
           ",\n \"mark_pairs\": " + pairs(comparison.marks) + ",\n \"jump_pairs\": " + pairs(comparison.jumps) +
           ",\n \"corner_pairs\": " + pairs(comparison.corners) + ",\n \"before\": " + toJson(before) +
           ",\n \"after\": " + toJson(after) + "}\n";
}

std::string toSummary(const Comparison& comparison, const std::string& beforeName, const std::string& afterName,
                      double unitsPerMm) {
    std::string out = "Before: " + beforeName + "\nAfter:  " + afterName + "\n";
    if (!comparison.jobDifference.empty()) {
        out += "Note: " + comparison.jobDifference + ".\n";
    }
    const auto value = [unitsPerMm](const FigureChange& c, std::optional<double> v) {
        if (!v) return std::string("-");
        if (c.unit == "units" && unitsPerMm > 0) return format("%.1f µm", *v / unitsPerMm * 1000);
        if (c.unit == "us") return format("%.1f µs", *v);
        if (c.unit == "units") return format("%.0f units", *v);
        if (c.unit == "events") return format("%.0f", *v);
        return format("%.2f", *v);
    };
    const auto table = [&](const char* title, const std::vector<FigureChange>& list) {
        out += std::string("\n") + title + "\n";
        for (const FigureChange& c : list) {
            const bool plain = c.verdict.empty() || c.verdict == c.words;
            out += format("  %-52s %14s -> %-14s %s%s\n", c.figure.c_str(), value(c, c.before).c_str(),
                          value(c, c.after).c_str(), plain ? "" : (c.verdict + ": ").c_str(), c.words.c_str());
        }
    };
    table("The card's settings (as each trace shows them)", comparison.settings);
    table("What the head and the laser did", comparison.figures);
    std::size_t better = 0, worse = 0;
    for (const FigureChange& c : comparison.figures) {
        better += c.verdict == "better";
        worse += c.verdict == "worse";
    }
    out += format("\n%zu figures better, %zu worse, the rest the same or not measured.\n", better, worse);
    return out;
}

}  // namespace oltb::analysis
