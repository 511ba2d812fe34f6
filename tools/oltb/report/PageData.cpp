// Every array goes to the page packed (PackedNumbers.h): positions in whole head units, following errors in
// 1/16 unit, times in ticks of the card's clock (1/64 us) from the start of the trace.
#include "tools/oltb/report/PageData.h"

#include "tools/oltb/report/PackedNumbers.h"
#include "tools/oltb/report/PageDetails.h"

#include "analysis/AnalysisReport.h"
#include "analysis/Kinematics.h"
#include "tools/oltb/Signals.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <optional>

namespace oltb::report {

namespace {

constexpr float Gap = std::numeric_limits<float>::quiet_NaN();
constexpr std::size_t OverviewColumns = 2048;
constexpr std::size_t GridRefinement = 4;
constexpr std::size_t MaxPathPoints = 100'000;  // per path: more than a full-screen drawing can show
constexpr std::size_t MaxSteps = 100'000;       // gate or laser power changes kept as they are
constexpr std::size_t MaxLabels = 20'000;

constexpr double PositionScale = 1;  // head positions are whole numbers
constexpr double ErrorScale = 16;
constexpr double SpeedScale = 4;  // speeds in 1/4 unit/ms
constexpr double TickScale = 64;  // ticks per us

using analysis::jsonString;
using cli::signalNameOf;

const auto number = [](double value) { return analysis::jsonNumber(value); };

// The trace as the page draws it, split by channel.
struct Channels {
    std::vector<double> gateT, powerT;
    std::vector<float> gateV, powerV;
    std::string powerName;
    std::vector<std::pair<double, int>> labels;
    std::array<std::uint64_t, 128> events{}, lost{};
};

// The laser power line to show: the widest one traced.
constexpr std::array<oltbTraceEventType, 5> PowerTypes{
    oltbEventLaserPower16, oltbEventLaserPower8, oltbEventLaserPower4, oltbEventLaserPower2, oltbEventLaserPower1};

Channels split(const oltbTraceEvent* events, std::size_t count) {
    Channels channels;
    for (std::size_t i = 0; i < count; ++i) {
        const auto type = static_cast<std::size_t>(events[i].Type);
        if (type < channels.events.size()) {
            ++channels.events[type];
            channels.lost[type] += events[i].Overflow ? 1 : 0;
        }
    }
    oltbTraceEventType power = oltbEventTimeBase;
    for (const oltbTraceEventType type : PowerTypes) {
        if (channels.events[static_cast<std::size_t>(type)] > 0) {
            power = type;
            break;
        }
    }
    if (power != oltbEventTimeBase) {
        channels.powerName = cli::findSignalByType(power)->name;
    }
    for (std::size_t i = 0; i < count; ++i) {
        const oltbTraceEvent& event = events[i];
        const oltbTraceEventType type = event.Type;
        if (type == oltbEventGate) {
            channels.gateT.push_back(event.Time);
            channels.gateV.push_back(static_cast<float>(event.Value & 1));
        } else if (type == power) {
            channels.powerT.push_back(event.Time);
            channels.powerV.push_back(static_cast<float>(event.Value));
        } else if (type == oltbEventLabel && channels.labels.size() < MaxLabels) {
            channels.labels.emplace_back(event.Time, event.Value);
        }
    }
    return channels;
}

struct NamedSeries {
    const char* id;  // the page's name: cx, ax, cy, ay (positions), sc, sa (speeds), fx, fy (following errors)
    const analysis::Series* series;
    double scale;
    bool position;
};

// The time plots' grids, coarsest first, then the samples themselves: each as long as the page stays within
// `budget` bytes, the overview in any case. The grids stop where a column would hold two samples or fewer.
std::string timeLevels(const std::vector<NamedSeries>& all, double startUs, double durationUs, std::size_t budget,
                       double& finestUs) {
    std::vector<NamedSeries> shown;
    const analysis::Series* clock = nullptr;  // the densest position channel: the times of the samples level
    for (const NamedSeries& named : all) {
        if (!named.series->empty()) {
            shown.push_back(named);
            if (named.position && (clock == nullptr || named.series->size() > clock->size())) {
                clock = named.series;
            }
        }
    }
    finestUs = 0;
    if (shown.empty() || clock == nullptr || !(durationUs > 0)) {
        return "[]";
    }
    const double spacing = std::max(analysis::typicalSpacing(clock->t), 1e-3);
    // Finer grids than a few columns per sample of the densest series show nothing more, however long the trace
    // lasts: a long pause (a label an hour after 20 ms of positions) must not make grids of a hundred million
    // columns. So work and memory follow the number of samples, not the span of time.
    std::size_t densest = 0;
    for (const NamedSeries& named : shown) {
        densest = std::max(densest, named.series->size());
    }
    const std::size_t mostColumns = std::max(OverviewColumns, GridRefinement * densest);
    std::string levels;
    for (std::size_t columns = OverviewColumns;
         levels.empty() || (durationUs / static_cast<double>(columns) > 2 * spacing && columns <= mostColumns);
         columns *= GridRefinement) {
        const double columnUs = durationUs / static_cast<double>(columns);
        std::string level = std::string(levels.empty() ? "" : ",") + "\n {\"start\": " + number(startUs) +
                            ", \"step\": " + number(columnUs) + ", \"columns\": " + std::to_string(columns) +
                            ", \"values\": {";
        for (std::size_t i = 0; i < shown.size(); ++i) {
            level += std::string(i == 0 ? "" : ", ") + "\"" + shown[i].id + "\": " +
                     packedNumbers(minMaxColumns(*shown[i].series, startUs, columnUs, columns), shown[i].scale);
        }
        level += "}}";
        if (!levels.empty() && levels.size() + level.size() > budget) {
            return "[" + levels + "]";
        }
        levels += level;
        finestUs = columnUs;
    }
    std::string samples = ",\n {\"times\": " + packedNumbers(clock->t, TickScale, startUs) + ", \"values\": {";
    for (std::size_t i = 0; i < shown.size(); ++i) {
        const analysis::Series& series = *shown[i].series;
        std::vector<double> values(clock->size(), std::numeric_limits<double>::quiet_NaN());
        analysis::ForwardReader reader(series.t, series.v, 4 * analysis::typicalSpacing(series.t));
        for (std::size_t j = 0; j < clock->size(); ++j) {
            if (&series == clock) {
                values[j] = series.v[j];
            } else {
                reader.at(clock->t[j], values[j]);
            }
        }
        samples +=
            std::string(i == 0 ? "" : ", ") + "\"" + shown[i].id + "\": " + packedNumbers(values, shown[i].scale);
    }
    samples += "}}";
    if (levels.size() + samples.size() <= budget) {
        levels += samples;
        finestUs = 0;
    }
    return "[" + levels + "]";
}

// Steps of the gate or the laser power; beyond `maxSteps` changes, the smallest and largest value per column.
std::string stepSeries(const std::vector<double>& t, const std::vector<float>& v, double startUs, double durationUs,
                       const std::string& name, std::size_t maxSteps) {
    if (t.empty()) {
        return "null";
    }
    std::vector<double> times = t;
    std::vector<float> values = v;
    if (t.size() > maxSteps && durationUs > 0) {
        analysis::Series series;
        for (std::size_t i = 0; i < t.size(); ++i) {
            series.add(t[i], v[i]);
        }
        const std::size_t columns = maxSteps / 2;
        const double columnUs = durationUs / static_cast<double>(columns);
        const std::vector<float> extremes = minMaxColumns(series, startUs, columnUs, columns);
        times.clear();
        values.clear();
        for (std::size_t i = 0; i < extremes.size(); ++i) {
            if (!std::isnan(extremes[i])) {
                times.push_back(startUs + static_cast<double>(i / 2) * columnUs + (i % 2 ? columnUs / 2 : 0.0));
                values.push_back(extremes[i]);
            }
        }
    }
    return "{\"name\": " + jsonString(name) + ", \"changes\": " + std::to_string(t.size()) +
           ", \"t\": " + packedNumbers(times, TickScale, startUs) + ", \"v\": " + packedNumbers(values, 1) + "}";
}

// A path thinned to at most `maxPoints`: the distance between kept samples grows until they fit.
std::string pathJson(const analysis::Path& path, const std::vector<double>& edges, double extent, double startUs,
                     std::size_t maxPoints) {
    if (path.empty()) {
        return "null";
    }
    double distance = extent / 4000;
    std::vector<std::size_t> kept;
    for (int attempt = 0; attempt < 8; ++attempt) {
        kept = thinPath(path, edges.size() * 4 < maxPoints ? edges : std::vector<double>{}, distance);
        if (kept.size() <= maxPoints || !(distance > 0)) {
            break;
        }
        distance *= 1.2 * static_cast<double>(kept.size()) / static_cast<double>(maxPoints);
    }
    std::vector<double> t, x, y;
    for (const std::size_t i : kept) {
        t.push_back(path.t[i]);
        x.push_back(path.x[i]);
        y.push_back(path.y[i]);
    }
    return "{\"samples\": " + std::to_string(path.size()) + ", \"distance\": " + number(distance) +
           ", \"t\": " + packedNumbers(t, TickScale, startUs) + ", \"x\": " + packedNumbers(x, PositionScale) +
           ", \"y\": " + packedNumbers(y, PositionScale) + "}";
}

// The speed along the path (units/ms) at each of its samples.
analysis::Series speedOf(const analysis::Path& path) {
    analysis::Series speed;
    const analysis::PathMotion motion(path);
    for (std::size_t i = 0; i < path.size(); ++i) {
        speed.add(path.t[i], 1000 * analysis::length(motion.velocityOf(i)));
    }
    return speed;
}

template <typename Item, typename Format>
std::string list(const std::vector<Item>& items, Format format) {
    std::string out = "[";
    for (std::size_t i = 0; i < items.size(); ++i) {
        out += (i == 0 ? "" : ", ") + format(items[i]);
    }
    return out + "]";
}

}  // namespace

std::vector<float> minMaxColumns(const analysis::Series& series, double startUs, double columnUs, std::size_t columns) {
    std::vector<float> out(2 * columns, Gap);
    const std::size_t n = series.size();
    std::size_t i = 0;
    while (i < n && series.t[i] < startUs) ++i;
    for (std::size_t column = 0; column < columns && i < n; ++column) {
        const double end = startUs + static_cast<double>(column + 1) * columnUs;
        const bool last = column + 1 == columns;
        if (!last && series.t[i] >= end) {
            continue;
        }
        std::size_t lowest = i, highest = i;
        for (; i < n && (last || series.t[i] < end); ++i) {
            if (series.v[i] < series.v[lowest]) lowest = i;
            if (series.v[i] > series.v[highest]) highest = i;
        }
        out[2 * column] = static_cast<float>(series.v[std::min(lowest, highest)]);
        out[2 * column + 1] = static_cast<float>(series.v[std::max(lowest, highest)]);
    }
    return out;
}

std::vector<std::size_t> thinPath(const analysis::Path& path, const std::vector<double>& edges, double minDistance) {
    std::vector<std::size_t> kept;
    const std::size_t n = path.size();
    if (n == 0) {
        return kept;
    }
    kept.push_back(0);
    std::size_t edge = 0;
    const double squared = minDistance * minDistance;
    for (std::size_t i = 1; i < n; ++i) {
        bool atEdge = false;
        while (edge < edges.size() && edges[edge] <= path.t[i]) {
            atEdge = atEdge || edges[edge] > path.t[i - 1];
            ++edge;
        }
        if (atEdge && kept.back() != i - 1) {
            kept.push_back(i - 1);
        }
        const double dx = path.x[i] - path.x[kept.back()];
        const double dy = path.y[i] - path.y[kept.back()];
        if (atEdge || i + 1 == n || dx * dx + dy * dy >= squared) {
            kept.push_back(i);
        }
    }
    return kept;
}

std::string pageData(const oltbTraceEvent* events, std::size_t count, const analysis::Result& result,
                     const PageOptions& options) {
    Channels channels = split(events, count);
    // The head's samples and following errors as the analysis read them.
    const std::shared_ptr<const analysis::HeadSeries> headSeries =
        result.series ? result.series : analysis::headSeries(events, count, result);
    const analysis::HeadSeries* const head = headSeries.get();
    const double startUs = count > 0 ? events[0].Time : 0.0;
    const double durationUs = result.durationUs;
    const analysis::Series& errorX = head->followingErrorX;
    const analysis::Series& errorY = head->followingErrorY;
    const analysis::Path commanded = analysis::joinAxes(head->commandedX, head->commandedY);
    const analysis::Path actual = analysis::joinAxes(head->actualX, head->actualY);

    std::string data =
        "{\"source\": " + jsonString(options.source) + ", \"tool\": \"oltb " OLTB_TOOL_VERSION "\"" +
        ", \"head\": " + std::to_string(result.head) + ", \"unitsPerMm\": " + number(options.unitsPerMm) +
        ", \"settleBand\": " + number(result.settleBandUnits) + ",\n \"events\": " + std::to_string(count) +
        ", \"startUs\": " + number(startUs) + ", \"durationUs\": " + number(durationUs) + ",\n \"signals\": [";
    bool firstSignal = true;
    for (std::size_t type = 0; type < channels.events.size(); ++type) {
        if (channels.events[type] > 0) {
            const std::string name = signalNameOf(static_cast<int>(type));
            data += std::string(firstSignal ? "" : ", ") +
                    "{\"name\": " + jsonString(name.empty() ? "type " + std::to_string(type) : name) +
                    ", \"events\": " + std::to_string(channels.events[type]) +
                    ", \"lost\": " + std::to_string(channels.lost[type]) + "}";
            firstSignal = false;
        }
    }
    data += "],\n \"analysis\": " + analysis::toJson(result);
    data += ",\n \"repeats\": " + (options.repeats.empty() ? std::string("null") : options.repeats);
    data +=
        ",\n \"missing\": " + list(analysis::notMeasured(result), [](const std::string& s) { return jsonString(s); });
    const auto indices = [](std::size_t i) { return std::to_string(i); };
    const std::vector<std::size_t> markOrder = marksByEdges(result.marks);
    const std::vector<std::size_t> jumpOrder = jumpsBySettling(result.jumps);
    data += ",\n \"markOrder\": " + list(markOrder, indices);
    data += ",\n \"jumpOrder\": " + list(jumpOrder, indices);
    // A close-up takes one or two kilobytes: at most a tenth of the budget.
    const std::size_t closeUps = std::min(options.closeUps, options.byteBudget / 20'000);
    data += ",\n \"markCloseUps\": " + markCloseUps(result, commanded, actual, markOrder, closeUps);
    data += ",\n \"jumpCloseUps\": " + jumpCloseUps(result, commanded, actual, jumpOrder, closeUps);
    data += ",\n \"labels\": " + list(channels.labels, [](const std::pair<double, int>& label) {
                return "{\"t\": " + number(label.first) + ", \"label\": " + std::to_string(label.second) + "}";
            });
    // Packed, a change of the laser or a point of a path takes a few bytes at most; their limits keep them to a
    // small part of the budget, and the time plots take the rest.
    const std::size_t maxSteps = std::min(MaxSteps, options.byteBudget / 100);
    const std::size_t maxPathPoints = std::min(MaxPathPoints, options.byteBudget / 50);
    data += ",\n \"gate\": " + stepSeries(channels.gateT, channels.gateV, startUs, durationUs, "Gate", maxSteps);
    data += ",\n \"power\": " +
            stepSeries(channels.powerT, channels.powerV, startUs, durationUs, channels.powerName, maxSteps);

    const std::vector<std::pair<const char*, const analysis::Series*>> names{
        {"cx", &head->commandedX}, {"cy", &head->commandedY}, {"ax", &head->actualX}, {"ay", &head->actualY}};
    data += ",\n \"names\": {";
    const analysis::HeadChannels channelTypes = analysis::channelsOf(result.head);
    const oltbTraceEventType types[] = {channelTypes.commandedX, channelTypes.commandedY, channelTypes.actualX,
                                        channelTypes.actualY};
    for (std::size_t i = 0; i < names.size(); ++i) {
        data += std::string(i == 0 ? "" : ", ") + "\"" + names[i].first + "\": " + jsonString(signalNameOf(types[i]));
    }
    data += "}";

    // The paths are bounded in size; what is left of the budget is for the time plots, the larger part. The gate
    // edges split the drawn path into laser on and laser off.
    double low = 0, high = 0;
    for (const auto& named : names) {
        for (const double v : named.second->v) {
            low = std::min(low, v);
            high = std::max(high, v);
        }
    }
    const std::vector<double>& edges = channels.gateT;
    data += ",\n \"path\": {\"commanded\": " + pathJson(commanded, edges, high - low, startUs, maxPathPoints);
    data += ",\n  \"actual\": " + pathJson(actual, edges, high - low, startUs, maxPathPoints) + "}";
    const analysis::Series commandedSpeed = speedOf(commanded);
    const analysis::Series actualSpeed = speedOf(actual);
    const std::vector<NamedSeries> timeSeries{{"cx", &head->commandedX, PositionScale, true},
                                              {"ax", &head->actualX, PositionScale, true},
                                              {"cy", &head->commandedY, PositionScale, true},
                                              {"ay", &head->actualY, PositionScale, true},
                                              {"sc", &commandedSpeed, SpeedScale, false},
                                              {"sa", &actualSpeed, SpeedScale, false},
                                              {"fx", &errorX, ErrorScale, false},
                                              {"fy", &errorY, ErrorScale, false}};
    double finestUs = 0;
    const std::size_t left = options.byteBudget > data.size() ? options.byteBudget - data.size() : 0;
    const std::string levels = timeLevels(timeSeries, startUs, durationUs, left, finestUs);
    data += ",\n \"finestColumnUs\": " + number(finestUs) + ",\n \"levels\": " + levels + "}\n";
    return data;
}

}  // namespace oltb::report
