// The close-ups come from PageDetails, one list per trace; the page finds each pair's two by their indices.
#include "tools/oltb/report/CompareData.h"

#include "tools/oltb/report/PageDetails.h"

#include "analysis/AnalysisReport.h"
#include "analysis/Series.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <optional>
#include <utility>

namespace oltb::report {

namespace {

using analysis::jsonNumber;
using analysis::jsonString;
using Pairs = std::vector<std::pair<std::size_t, std::size_t>>;

constexpr double SimilarLengths = 1.05;  // jumps up to 5 % longer than the shortest of a plot share it

// How far a figure moved; one measured on one side only moved by all of it.
double moved(std::optional<double> before, std::optional<double> after) {
    if (before && after) return std::abs(*after - *before);
    return std::abs(before.value_or(0.0)) + std::abs(after.value_or(0.0));
}

std::optional<double> doseOf(std::optional<double> speedShare) {
    if (!speedShare) return std::nullopt;
    return 1 / std::max(*speedShare, 0.01);
}

// `candidates` ordered by `first` and by `second` (largest first) in turn, each once.
template <typename First, typename Second>
std::vector<std::size_t> inTurn(const std::vector<std::size_t>& candidates, First first, Second second) {
    std::vector<std::size_t> byFirst = candidates, bySecond = candidates, order;
    std::stable_sort(byFirst.begin(), byFirst.end(), [&](std::size_t a, std::size_t b) { return first(a) > first(b); });
    std::stable_sort(bySecond.begin(), bySecond.end(),
                     [&](std::size_t a, std::size_t b) { return second(a) > second(b); });
    std::vector<bool> taken(candidates.empty() ? 0 : *std::max_element(candidates.begin(), candidates.end()) + 1);
    for (std::size_t k = 0; k < candidates.size(); ++k) {
        for (const std::size_t i : {byFirst[k], bySecond[k]}) {
            if (!taken[i]) {
                taken[i] = true;
                order.push_back(i);
            }
        }
    }
    return order;
}

void headPaths(const CompareSide& side, analysis::Path& commanded, analysis::Path& mirror) {
    const analysis::HeadChannels wanted = analysis::channelsOf(side.result->head);
    analysis::Series cx, cy, ax, ay;
    for (std::size_t i = 0; i < side.count; ++i) {
        const oltbTraceEvent& event = side.events[i];
        if (event.Type == wanted.commandedX)
            cx.add(event.Time, event.Value);
        else if (event.Type == wanted.commandedY)
            cy.add(event.Time, event.Value);
        else if (event.Type == wanted.actualX)
            ax.add(event.Time, event.Value);
        else if (event.Type == wanted.actualY)
            ay.add(event.Time, event.Value);
    }
    commanded = analysis::joinAxes(std::move(cx), std::move(cy));
    mirror = analysis::joinAxes(std::move(ax), std::move(ay));
}

std::optional<double> settleOf(const analysis::Jump& jump) {
    if (jump.settled) return jump.settleUs;
    return jump.predictedSettleUs ? jump.predictedSettleUs : jump.atLeastUs;
}

struct JumpGroup {
    double length = 0;
    std::vector<std::size_t> pairs;                 // into comparison.jumps
    std::pair<std::size_t, double> change{0, 0.0};  // pairs settled on one side only, the largest settle change
};

// The paired jumps (none the trace cut short) in groups of similar length, shortest first.
std::vector<JumpGroup> jumpGroups(const Pairs& jumps, const analysis::Result& before, const analysis::Result& after) {
    std::vector<std::size_t> byLength;
    for (std::size_t k = 0; k < jumps.size(); ++k) {
        if (!before.jumps[jumps[k].first].cutShort && !after.jumps[jumps[k].second].cutShort) byLength.push_back(k);
    }
    std::stable_sort(byLength.begin(), byLength.end(), [&](std::size_t a, std::size_t b) {
        return before.jumps[jumps[a].first].length < before.jumps[jumps[b].first].length;
    });
    std::vector<JumpGroup> groups;
    for (const std::size_t k : byLength) {
        const analysis::Jump& b = before.jumps[jumps[k].first];
        const analysis::Jump& a = after.jumps[jumps[k].second];
        if (groups.empty() || b.length > SimilarLengths * groups.back().length + 1) {
            groups.emplace_back();
            groups.back().length = b.length;
        }
        JumpGroup& group = groups.back();
        group.pairs.push_back(k);
        group.change.first += a.settled != b.settled ? 1 : 0;
        group.change.second = std::max(group.change.second, moved(settleOf(b), settleOf(a)));
    }
    return groups;
}

std::string pairsJson(const Pairs& all, const std::vector<std::size_t>& shown) {
    std::string json = "[";
    for (std::size_t k = 0; k < shown.size(); ++k) {
        json += (k == 0 ? "[" : ", [") + std::to_string(all[shown[k]].first) + ", " +
                std::to_string(all[shown[k]].second) + "]";
    }
    return json + "]";
}

template <typename Format>
std::string listJson(const std::vector<std::size_t>& indices, Format format) {
    std::string json = "[";
    for (std::size_t k = 0; k < indices.size(); ++k) json += (k == 0 ? "\n   " : ",\n   ") + format(indices[k]);
    return json + "]";
}

// One trace: its figures of the pairs shown, and their close-ups.
std::string sideJson(const CompareSide& side, const std::vector<std::size_t>& marks,
                     const std::vector<std::size_t>& jumps, const std::vector<std::size_t>& corners) {
    const analysis::Result& r = *side.result;
    analysis::Path commanded, mirror;
    headPaths(side, commanded, mirror);
    const std::string marksJson = listJson(marks, [&r](std::size_t i) {
        const analysis::Mark& m = r.marks[i];
        return "{\"index\": " + std::to_string(i) + ", \"start_us\": " + jsonNumber(m.startUs) +
               ", \"speed\": " + jsonNumber(m.speed) + ", \"start_missing\": " + jsonNumber(m.startMissing) +
               ", \"end_missing\": " + jsonNumber(m.endMissing) + ", \"speed_at_on\": " + jsonNumber(m.speedAtOn) +
               ", \"speed_at_off\": " + jsonNumber(m.speedAtOff) +
               ", \"after_unsettled_jump\": " + (m.afterUnsettledJump ? "true" : "false") + "}";
    });
    const std::string jumpsJson = listJson(jumps, [&r](std::size_t i) {
        const analysis::Jump& j = r.jumps[i];
        return "{\"index\": " + std::to_string(i) + ", \"length\": " + jsonNumber(j.length) +
               ", \"delay_us\": " + jsonNumber(j.delayUs) + ", \"settled\": " + (j.settled ? "true" : "false") +
               ", \"settle_us\": " + jsonNumber(j.settleUs) +
               ", \"predicted_settle_us\": " + jsonNumber(j.predictedSettleUs) +
               ", \"at_least_us\": " + jsonNumber(j.atLeastUs) +
               ", \"distance_at_next\": " + jsonNumber(j.distanceAtNext) + "}";
    });
    const std::string cornersJson = listJson(corners, [&r](std::size_t i) {
        const analysis::Corner& c = r.corners[i];
        return "{\"index\": " + std::to_string(i) + ", \"x\": " + jsonNumber(c.x) + ", \"y\": " + jsonNumber(c.y) +
               ", \"angle_deg\": " + jsonNumber(c.angleDeg) + ", \"delay_us\": " + jsonNumber(c.delayUs) +
               ", \"rounding\": " + jsonNumber(c.rounding) + ", \"edge_dose\": " + jsonNumber(c.edgeDose) + "}";
    });
    return "{\"source\": " + jsonString(side.source) + ", \"events\": " + std::to_string(side.count) +
           ", \"startUs\": " + jsonNumber(side.count > 0 ? side.events[0].Time : 0.0) + ",\n  \"counts\": [" +
           std::to_string(r.marks.size()) + ", " + std::to_string(r.jumps.size()) + ", " +
           std::to_string(r.corners.size()) + "],\n  \"settings\": " + analysis::settingsJson(r.settings) +
           ",\n  \"marks\": " + marksJson + ",\n  \"jumps\": " + jumpsJson + ",\n  \"corners\": " + cornersJson +
           ",\n  \"markCloseUps\": " + markCloseUps(r, commanded, mirror, marks, marks.size()) +
           ",\n  \"jumpCloseUps\": " + jumpCloseUps(r, commanded, mirror, jumps, jumps.size()) +
           ",\n  \"cornerCloseUps\": " + cornerCloseUps(r, commanded, mirror, corners) + "}";
}

std::string changesJson(const std::vector<analysis::FigureChange>& changes, const std::vector<std::size_t>& rows) {
    return listJson(rows, [&changes](std::size_t i) {
        const analysis::FigureChange& c = changes[i];
        return "{\"figure\": " + jsonString(c.figure) + ", \"unit\": " + jsonString(c.unit) +
               ", \"before\": " + jsonNumber(c.before) + ", \"after\": " + jsonNumber(c.after) +
               ", \"verdict\": " + (c.verdict.empty() ? std::string("null") : jsonString(c.verdict)) +
               ", \"words\": " + jsonString(c.words) + "}";
    });
}

// The rows of the table of figures: all, or as many as fit with those better or worse first, in their order.
std::vector<std::size_t> figureRows(const std::vector<analysis::FigureChange>& figures, std::size_t limit) {
    std::vector<std::size_t> rows(figures.size());
    for (std::size_t i = 0; i < rows.size(); ++i) rows[i] = i;
    std::stable_partition(rows.begin(), rows.end(), [&figures](std::size_t i) {
        return figures[i].verdict == "better" || figures[i].verdict == "worse";
    });
    rows.resize(std::min(rows.size(), limit));
    std::sort(rows.begin(), rows.end());
    return rows;
}

}  // namespace

std::vector<std::size_t> markPairsByChange(const analysis::Comparison& comparison, const analysis::Result& before,
                                           const analysis::Result& after) {
    std::vector<std::size_t> measured;
    for (std::size_t k = 0; k < comparison.marks.size(); ++k) {
        const analysis::Mark& b = before.marks[comparison.marks[k].first];
        const analysis::Mark& a = after.marks[comparison.marks[k].second];
        if (b.startMissing || b.endMissing || a.startMissing || a.endMissing) measured.push_back(k);
    }
    const auto pairOf = [&](std::size_t k) {
        return std::pair<const analysis::Mark&, const analysis::Mark&>(before.marks[comparison.marks[k].first],
                                                                       after.marks[comparison.marks[k].second]);
    };
    return inTurn(
        measured,
        [&](std::size_t k) {
            const auto [b, a] = pairOf(k);
            return std::max(moved(b.startMissing, a.startMissing), moved(b.endMissing, a.endMissing));
        },
        [&](std::size_t k) {
            const auto [b, a] = pairOf(k);
            return std::max(moved(doseOf(b.speedAtOn), doseOf(a.speedAtOn)),
                            moved(doseOf(b.speedAtOff), doseOf(a.speedAtOff)));
        });
}

std::string compareData(const CompareSide& before, const CompareSide& after, const analysis::Comparison& comparison,
                        const ComparePageOptions& options) {
    const analysis::Result& b = *before.result;
    const analysis::Result& a = *after.result;

    std::vector<std::size_t> marks = markPairsByChange(comparison, b, a);
    marks.resize(std::min(marks.size(), options.marks));

    std::vector<std::size_t> corners(comparison.corners.size());
    for (std::size_t k = 0; k < corners.size(); ++k) corners[k] = k;
    const auto cornerPair = [&](std::size_t k) {
        return std::pair<const analysis::Corner&, const analysis::Corner&>(b.corners[comparison.corners[k].first],
                                                                           a.corners[comparison.corners[k].second]);
    };
    corners = inTurn(
        corners, [&](std::size_t k) { return moved(cornerPair(k).first.rounding, cornerPair(k).second.rounding); },
        [&](std::size_t k) { return moved(cornerPair(k).first.edgeDose, cornerPair(k).second.edgeDose); });
    corners.resize(std::min(corners.size(), options.corners));

    // The lengths whose jumps changed most, shown shortest first; in each, the worst jumps after and before in turn.
    std::vector<JumpGroup> groups = jumpGroups(comparison.jumps, b, a);
    const std::size_t groupCount = groups.size();
    std::stable_sort(groups.begin(), groups.end(),
                     [](const JumpGroup& x, const JumpGroup& y) { return x.change > y.change; });
    groups.resize(std::min(groups.size(), options.jumpLengths));
    std::stable_sort(groups.begin(), groups.end(),
                     [](const JumpGroup& x, const JumpGroup& y) { return x.length < y.length; });
    const auto rankOf = [](const std::vector<analysis::Jump>& jumps) {
        const std::vector<std::size_t> order = jumpsBySettling(jumps);
        std::vector<double> rank(order.size());
        for (std::size_t k = 0; k < order.size(); ++k) rank[order[k]] = static_cast<double>(order.size() - k);
        return rank;
    };
    const std::vector<double> rankBefore = rankOf(b.jumps), rankAfter = rankOf(a.jumps);
    std::string groupsJson = "[";
    std::vector<std::size_t> jumpsBefore, jumpsAfter;
    for (const JumpGroup& group : groups) {
        std::vector<std::size_t> shown = inTurn(
            group.pairs, [&](std::size_t k) { return rankAfter[comparison.jumps[k].second]; },
            [&](std::size_t k) { return rankBefore[comparison.jumps[k].first]; });
        shown.resize(std::min(shown.size(), options.jumpsPerLength));
        for (const std::size_t k : shown) {
            jumpsBefore.push_back(comparison.jumps[k].first);
            jumpsAfter.push_back(comparison.jumps[k].second);
        }
        groupsJson += std::string(groupsJson.size() > 1 ? ",\n   " : "\n   ") +
                      "{\"length\": " + jsonNumber(group.length) +
                      ", \"pairs\": " + std::to_string(group.pairs.size()) +
                      ", \"shown\": " + pairsJson(comparison.jumps, shown) + "}";
    }
    groupsJson += "]";

    std::vector<std::size_t> marksBefore, marksAfter, cornersBefore, cornersAfter;
    for (const std::size_t k : marks) {
        marksBefore.push_back(comparison.marks[k].first);
        marksAfter.push_back(comparison.marks[k].second);
    }
    for (const std::size_t k : corners) {
        cornersBefore.push_back(comparison.corners[k].first);
        cornersAfter.push_back(comparison.corners[k].second);
    }
    std::size_t better = 0, worse = 0;
    for (const analysis::FigureChange& c : comparison.figures) {
        better += c.verdict == "better" ? 1 : 0;
        worse += c.verdict == "worse" ? 1 : 0;
    }
    std::vector<std::size_t> settingRows(comparison.settings.size());
    for (std::size_t i = 0; i < settingRows.size(); ++i) settingRows[i] = i;

    return "{\"tool\": \"oltb " OLTB_TOOL_VERSION "\", \"head\": " + std::to_string(b.head) +
           ", \"unitsPerMm\": " + jsonNumber(options.unitsPerMm) +
           ", \"settleBand\": " + jsonNumber(b.settleBandUnits) + ", \"maxEdgeDose\": " + jsonNumber(a.maxEdgeDose) +
           ",\n \"jobDifference\": " +
           (comparison.jobDifference.empty() ? std::string("null") : jsonString(comparison.jobDifference)) +
           ",\n \"settings\": " + changesJson(comparison.settings, settingRows) +
           ",\n \"figures\": " + changesJson(comparison.figures, figureRows(comparison.figures, options.figures)) +
           ",\n \"figureCount\": " + std::to_string(comparison.figures.size()) +
           ", \"better\": " + std::to_string(better) + ", \"worse\": " + std::to_string(worse) +
           ",\n \"marks\": {\"pairs\": " + std::to_string(comparison.marks.size()) +
           ", \"shown\": " + pairsJson(comparison.marks, marks) + "}" +
           ",\n \"corners\": {\"pairs\": " + std::to_string(comparison.corners.size()) +
           ", \"shown\": " + pairsJson(comparison.corners, corners) + "}" +
           ",\n \"jumps\": {\"pairs\": " + std::to_string(comparison.jumps.size()) +
           ", \"groupCount\": " + std::to_string(groupCount) + ", \"groups\": " + groupsJson + "}" +
           ",\n \"before\": " + sideJson(before, marksBefore, jumpsBefore, cornersBefore) +
           ",\n \"after\": " + sideJson(after, marksAfter, jumpsAfter, cornersAfter) + "}\n";
}

}  // namespace oltb::report
