// The analysis against synthetic traces whose figures are known by construction, what it says when signals are
// missing, and oltb analyze's JSON and exit codes.
#include "analysis/AnalysisReport.h"
#include "analysis/Comparison.h"
#include "analysis/Repeats.h"
#include "analysis/SyntheticTrace.h"
#include "analysis/TraceAnalysis.h"
#include "tests/support/ChildProcess.h"
#include "tools/oltb/CsvWriter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>

namespace {

using namespace oltb::analysis;

bool mentions(const Result& result, const std::string& signal) {
    for (const MissingFigure& missing : result.missing) {
        if (missing.signals.find(signal) != std::string::npos) return true;
    }
    return false;
}

// Heads built otherwise than the simulator's: a pure delay, a first-order lag behind a delay, a second-order loop.
// Their physics is known in closed form, so the figures are checked against it, not against another program.
struct Head {
    const char* name;
    double delay, firstOrder, naturalHz, damping, laserOn, laserOff;
    std::vector<bool> settled;  // per jump of exampleJob (jump delays 300, 300, 120; the last one ends the trace)
};

class Heads : public ::testing::TestWithParam<Head> {};

TEST_P(Heads, FiguresFollowTheHeadsPhysics) {
    const Head h = GetParam();
    SyntheticSettings settings;
    settings.delayUs = h.delay;
    settings.firstOrderUs = h.firstOrder;
    settings.naturalHz = h.naturalHz;
    settings.damping = h.damping;
    settings.laserOnOffsetUs = h.laserOn;
    settings.laserOffOffsetUs = h.laserOff;
    const Result result = analyze(syntheticTrace(settings, exampleJob()));
    // The steady lag: the delay, plus a first-order lag's time constant, or 2 z / w of a second-order loop.
    const double lag = h.delay + h.firstOrder + (h.naturalHz > 0 ? 2 * h.damping / (2 * M_PI * h.naturalHz * 1e-6) : 0);
    ASSERT_TRUE(result.trackingErrorXUs && result.trackingErrorYUs);
    EXPECT_NEAR(*result.trackingErrorXUs, lag, 0.5);
    EXPECT_NEAR(*result.trackingErrorYUs, lag, 0.5);
    if (h.naturalHz > 0 && h.delay == 0) {
        ASSERT_TRUE(result.servoX.fitHolds && result.servoX.naturalFrequencyHz);
        EXPECT_NEAR(*result.servoX.naturalFrequencyHz, h.naturalHz, 0.02 * h.naturalHz);
        EXPECT_NEAR(*result.servoX.damping, h.damping, 0.02);
    }

    ASSERT_EQ(result.marks.size(), 3U);
    EXPECT_NEAR(*result.marks[1].length, 80000, 1) << "the square is one polyline";
    EXPECT_EQ(result.corners.size(), 3U);
    // The mirror reaches half the mark speed (edge dose 2): at once behind a pure delay, after T ln 2 behind a
    // first-order lag; it goes below half speed or reaches the end point as late after the command's end.
    const double best = h.delay + h.firstOrder * std::log(2.0);
    for (std::size_t k = 0; k < 2 && h.naturalHz == 0; ++k) {
        const Mark& mark = result.marks[k];
        SCOPED_TRACE("mark " + std::to_string(k));
        const double speed = *mark.speed / 1000;
        EXPECT_NEAR(*mark.laserOnDelayUs, h.delay + h.laserOn, 0.1);
        // A few us later where the mirror still creeps back from the jump before (a first-order lag settles slowly).
        EXPECT_NEAR(*mark.bestOnDelayUs, best, h.firstOrder > 0 ? 5.0 : 3.0);
        EXPECT_NEAR(*mark.bestOffDelayUs, best, 3.0);
        if (h.firstOrder == 0) {
            // Behind a pure delay the mirror is laserOn us into the mark when the gate opens, at full speed.
            EXPECT_NEAR(*mark.startMissing, speed * std::max(0.0, h.laserOn), 15);
            EXPECT_NEAR(*mark.endMissing, speed * std::max(0.0, -h.laserOff), 15);
            EXPECT_NEAR(*mark.speedAtOn, h.laserOn > 10 ? 1.0 : h.laserOn < -10 ? 0.0 : *mark.speedAtOn, 0.05);
        } else {
            // Half way to full speed the first-order mirror has lost T (ln 2 - 1/2) of its lag at the start ...
            EXPECT_NEAR(*mark.startMissingAtBest, speed * h.firstOrder * (std::log(2.0) - 0.5), 20);
            // ... and at the end it still has half of its lag T v to go.
            EXPECT_NEAR(*mark.endMissingAtBest, speed * h.firstOrder / 2, 10);
        }
    }

    ASSERT_EQ(result.jumps.size(), h.settled.size());
    for (std::size_t j = 0; j < result.jumps.size(); ++j) {
        const Jump& jump = result.jumps[j];
        EXPECT_EQ(jump.settled, h.settled[j]) << "jump " << j;
        const double speed = jump.length / (jump.endUs - jump.startUs);
        if (h.firstOrder == 0 && h.naturalHz == 0 && jump.settled) {
            // The mirror enters the band of 100 units this long before it arrives.
            EXPECT_NEAR(*jump.settleUs, h.delay - 100 / speed, 2.0) << j;
        } else if (h.firstOrder > 0 && !jump.cutShort) {
            // A first-order lag closes its lag of T v in T ln(T v / 100) after the delay, seen or predicted.
            EXPECT_NEAR(jump.settled ? *jump.settleUs : *jump.predictedSettleUs,
                        h.delay + h.firstOrder * std::log(h.firstOrder * speed / 100), jump.settled ? 2.0 : 20.0)
                << j;
        }
        EXPECT_EQ(jump.atLeastUs.has_value(), !jump.settled && !jump.cutShort) << j;
    }
    for (std::size_t row = 0; row < result.jumpDelayTable.size(); ++row) {
        const JumpDelay& r = result.jumpDelayTable[row];
        EXPECT_EQ(r.delayUs.has_value(), std::all_of(result.jumps.begin(), result.jumps.end(),
                                                     [&](const Jump& j) {
                                                         return j.cutShort || j.length > r.upToLength || j.settled ||
                                                                j.predictedSettleUs;
                                                     }))
            << "a row is known when every jump up to its length settled or was predicted";
        if (row > 0 && r.delayUs && result.jumpDelayTable[row - 1].delayUs) {
            EXPECT_GE(*r.delayUs, *result.jumpDelayTable[row - 1].delayUs) << "a row covers the shorter jumps too";
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Synthetic, Heads,
    ::testing::Values(Head{"delay", 237.3, 0, 0, 1, 0, 0, {true, true, false, false}},
                      Head{"delay, laser early and late", 100.0, 0, 0, 1, -100, 100, {true, true, true, false}},
                      Head{"delay, laser late and early", 180.0, 0, 0, 1, 53.4, -41.2, {true, true, false, false}},
                      Head{"first-order lag", 40.0, 60, 0, 1, 0, 0, {true, true, false, false}},
                      Head{"second-order loop", 0, 0, 900, 0.7, 0, 0, {false, false, false, false}}),
    [](const auto& test) {
        std::string name = test.param.name;
        for (char& c : name) c = std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
        return name;
    });

// Runs of one job side by side and one after the other: pairs found by the commanded points, a change told better or
// worse, a run of another job refused.
TEST(Tuning, ComparisonPairsByGeometryAndRunsMustBeOneJob) {
    SyntheticSettings late;
    late.laserOnOffsetUs = 60;
    SyntheticSettings tuned;
    tuned.leadUs = 1730;  // a trace that starts later
    const Result before = analyze(syntheticTrace(late, exampleJob()));
    const Result after = analyze(syntheticTrace(tuned, exampleJob()));
    const Comparison same = compare(before, after);
    EXPECT_TRUE(same.jobDifference.empty()) << same.jobDifference;
    EXPECT_EQ(same.marks.size(), 3U);
    EXPECT_EQ(same.jumps.size(), 4U);
    const auto found = std::find_if(same.figures.begin(), same.figures.end(), [](const FigureChange& c) {
        return c.figure == "marks at 5000 units/ms: start missing";
    });
    ASSERT_NE(found, same.figures.end());
    EXPECT_EQ(found->verdict, "better") << found->words;  // 300 units missing before, none after

    std::vector<Move> other = exampleJob();
    other[1].x += 5000;  // the first mark ends elsewhere
    EXPECT_FALSE(compare(before, analyze(syntheticTrace({}, other))).jobDifference.empty());

    SyntheticSettings repeated;
    repeated.repeats = 3;
    repeated.labels = true;
    std::vector<oltbTraceEvent> events = syntheticTrace(repeated, exampleJob());
    const Repeatability runs = analyzeEach(events.data(), events.size(), 1, 2);
    EXPECT_EQ(runs.runs, 3U);
    ASSERT_FALSE(runs.figures.empty());
    EXPECT_EQ(runs.figures.front().runs, 3U);
    EXPECT_NEAR(runs.figures.front().stddev, 0, 0.05) << "the same job three times";
    repeated.repeats = 1;
    std::vector<oltbTraceEvent> mixed = syntheticTrace(repeated, exampleJob());
    for (oltbTraceEvent event : syntheticTrace(repeated, other)) {
        event.Time += mixed.back().Time + 1000;
        mixed.push_back(event);
    }
    EXPECT_THROW(analyzeEach(mixed.data(), mixed.size(), 1, 2), RunsError);
}

TEST(Analysis, SaysWhichSignalsAreMissing) {
    struct Row {
        bool commanded, actual, gate;
        int traceHead, analyzedHead;
        const char* missingSignal;  // named in the notes; nullptr: nothing missing
        bool tracking, marks, laserTiming;
    };
    const Row rows[] = {
        {true, true, true, 1, 1, nullptr, true, true, true},
        {false, true, true, 0, 0, "Head0TxX", false, true, false},
        {true, false, true, 0, 0, "Head0RxY", false, true, false},
        {true, true, false, 0, 0, "Gate", true, false, false},
        {true, true, true, 1, 0, "Head0RxX", false, true, false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.missingSignal ? row.missingSignal : "none");
        SyntheticSettings settings;
        settings.commanded = row.commanded;
        settings.actual = row.actual;
        settings.gate = row.gate;
        settings.head = row.traceHead;
        Options options;
        options.head = row.analyzedHead;
        const Result result = analyze(syntheticTrace(settings, exampleJob()), options);
        EXPECT_EQ(row.missingSignal == nullptr, result.missing.empty());
        EXPECT_TRUE(row.missingSignal == nullptr || mentions(result, row.missingSignal));
        EXPECT_EQ(row.tracking, result.trackingErrorXUs.has_value());
        EXPECT_EQ(row.marks, !result.marks.empty());
        EXPECT_EQ(row.laserTiming, result.laserOnOffsetUs.has_value());
    }
}

TEST(AnalyzeCommand, WritesJsonThatParsesBackAndRefusesOtherFiles) {
    std::vector<oltbTraceEvent> events = syntheticTrace({}, exampleJob());
    events[6].Overflow = events[10].Overflow = events[7].Overflow = true;  // Head0TxY twice, Head0RxX once
    const std::string directory = oltb::testing::scratchDirectory();
    {
        std::ofstream out(directory + "/job.csv");
        oltb::cli::CsvWriter writer(out);
        for (const oltbTraceEvent& event : events) writer.write(event);
    }
    std::ofstream(directory + "/other.csv") << "time,x\n1,2\n";
    struct Run {
        std::vector<std::string> arguments;
        int exitCode;
        const char* text;
    };
    const Run runs[] = {
        {{"analyze", directory + "/job.csv", "--json"}, 0, "\"tracking_error_us\": {\"x\": 237."},
        {{"analyze", directory + "/job.csv", "--units-per-mm", "1000"}, 0, "60.000 mm"},
        {{"analyze", directory + "/other.csv"}, 2, "other.csv: line 1: not a capture written by oltb"},
        {{"analyze", directory + "/absent.csv"}, 4, "absent.csv"},
    };
    std::string json;
    for (const Run& run : runs) {
        oltb::testing::ChildProcess tool(OLTB_TOOL_PATH, run.arguments);
        EXPECT_EQ(tool.waitForExit(std::chrono::seconds(30)), run.exitCode) << run.arguments[1];
        const std::string out = tool.standardOutput() + tool.standardError();
        EXPECT_NE(out.find(run.text), std::string::npos) << out;
        json = json.empty() ? tool.standardOutput() : json;
    }
    // The JSON of a trace with figures missing must be valid too: null, never NaN.
    SyntheticSettings withoutActual;
    withoutActual.actual = false;
    std::ofstream(directory + "/full.json") << json;
    std::ofstream(directory + "/partial.json") << toJson(analyze(syntheticTrace(withoutActual, exampleJob())));
    if (!std::filesystem::exists("/usr/bin/python3")) GTEST_SKIP() << "no python3 to parse the JSON back";
    oltb::testing::ChildProcess python(
        "/usr/bin/python3",
        {"-c",
         "import json, sys\n"
         "full, partial = (json.load(open(p)) for p in sys.argv[1:])\n"
         "assert full['lost_events'] == {'Head0TxY': 2, 'Head0RxX': 1}, full['lost_events']\n"
         "assert len(full['marks']) == 3 and len(full['jumps']) == 4 and full['jumps'][2]['settled'] is False\n"
         "assert set(full['settings']) == {'laser_on_delay_us', 'laser_off_delay_us', 'jump_delay_us', 'mark_delay_us',"
         " 'polygon_delay_us'} and full['settings']['jump_delay_us']['now'] == 300\n"
         "assert partial['tracking_error_us']['x'] is None and partial['marks'][0]['laser_on_offset_us'] is None\n",
         directory + "/full.json", directory + "/partial.json"});
    EXPECT_EQ(python.waitForExit(std::chrono::seconds(30)), 0) << python.standardError();
}

}  // namespace
