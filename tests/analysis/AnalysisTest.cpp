// The analysis against synthetic traces whose figures are known by construction, what it says when signals are
// missing, and oltb analyze's JSON and exit codes.
#include "analysis/AnalysisReport.h"
#include "analysis/SyntheticTrace.h"
#include "analysis/TraceAnalysis.h"
#include "tests/support/ChildProcess.h"
#include "tools/oltb/CsvWriter.h"

#include <gtest/gtest.h>

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

struct Case {
    double delay, firstOrder, laserOn, laserOff;
    std::vector<bool> settled;  // per jump of exampleJob (dwells 300, 300, 120, then the end of the trace)
};

class Accuracy : public ::testing::TestWithParam<Case> {};

TEST_P(Accuracy, FiguresAsConstructed) {
    const Case c = GetParam();
    SyntheticSettings settings;
    settings.delayUs = c.delay;
    settings.firstOrderUs = c.firstOrder;
    settings.laserOnOffsetUs = c.laserOn;
    settings.laserOffOffsetUs = c.laserOff;
    const Result result = analyze(syntheticTrace(settings, exampleJob()));
    // A first-order lag adds its time constant to the delay while the command moves at constant speed.
    const double lag = c.delay + c.firstOrder;
    const double tolerance = c.firstOrder > 0 ? 1.0 : 0.5;
    ASSERT_TRUE(result.trackingErrorXUs && result.trackingErrorYUs && result.pathTrackingErrorUs);
    EXPECT_NEAR(*result.trackingErrorXUs, lag, tolerance);
    EXPECT_NEAR(*result.trackingErrorYUs, lag, tolerance);
    EXPECT_LT(*result.followingErrorX.rms, c.firstOrder > 0 ? 50.0 : 2.0);
    EXPECT_LT(*result.pathDeviation.max, c.firstOrder > 0 ? 400.0 : 2.0);

    ASSERT_EQ(result.marks.size(), 3U);
    EXPECT_NEAR(*result.marks[0].length, 60000, 1);
    EXPECT_NEAR(*result.marks[0].speed, 5000, 1);
    for (const Mark& mark : result.marks) {
        ASSERT_TRUE(mark.laserOnOffsetUs && mark.laserOffOffsetUs);
        EXPECT_NEAR(*mark.laserOnOffsetUs, c.laserOn - c.firstOrder, tolerance);
        EXPECT_NEAR(*mark.laserOffOffsetUs, c.laserOff - c.firstOrder, tolerance);
    }
    EXPECT_NEAR(*result.suggestedOnDelayChangeUs, c.firstOrder - c.laserOn, tolerance);
    EXPECT_NEAR(*result.suggestedOffDelayChangeUs, c.firstOrder - c.laserOff, tolerance);

    ASSERT_EQ(result.jumps.size(), c.settled.size());
    for (std::size_t j = 0; j < result.jumps.size(); ++j) {
        const Jump& jump = result.jumps[j];
        EXPECT_EQ(jump.settled, c.settled[j]) << "jump " << j;
        if (c.firstOrder == 0) {
            // The mirror enters the band of 100 units this long before it arrives.
            const double speed = jump.length / (jump.endUs - jump.startUs);
            ASSERT_TRUE(jump.settleUs) << "jump " << j;
            EXPECT_NEAR(*jump.settleUs, c.delay - 100 / speed, 10.0) << "jump " << j;
        }
    }
    ASSERT_FALSE(result.jumpDelayTable.empty());
    EXPECT_EQ(result.jumpDelayTable.back().upToLength, 50000);
    for (std::size_t row = 1; row < result.jumpDelayTable.size(); ++row) {
        const auto& shorter = result.jumpDelayTable[row - 1].delayUs;
        const auto& longer = result.jumpDelayTable[row].delayUs;
        if (shorter && longer) {
            EXPECT_GE(*longer, *shorter) << "a row covers the shorter jumps too";
        }
    }
    EXPECT_TRUE(result.missing.empty()) << result.missing[0].figure;
}

INSTANTIATE_TEST_SUITE_P(Traces, Accuracy,
                         ::testing::Values(Case{237.3, 0, 0, 0, {true, true, false, true}},
                                           Case{100.0, 0, -100, 100, {true, true, true, true}},
                                           Case{499.7, 0, 73.4, -61.2, {false, false, false, true}},
                                           Case{180.0, 0, -3.5, 6.25, {true, true, false, true}},
                                           Case{200.0, 40, 0, 0, {true, true, false, true}}));

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
         "assert partial['tracking_error_us']['x'] is None and partial['marks'][0]['laser_on_offset_us'] is None\n",
         directory + "/full.json", directory + "/partial.json"});
    EXPECT_EQ(python.waitForExit(std::chrono::seconds(30)), 0) << python.standardError();
}

}  // namespace
