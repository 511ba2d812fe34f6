// The report page's thinning: the envelope of every column survives, the path keeps the laser's edges, and a long
// trace stays within the page's budget while a short one keeps every sample. The close-ups go to the marks and
// jumps that came out worst, and only so many; so do those of the comparison page.
#include "analysis/SyntheticTrace.h"
#include "tools/oltb/report/CompareData.h"
#include "tools/oltb/report/PageData.h"
#include "tools/oltb/report/PageDetails.h"

#include <gtest/gtest.h>

#include <cmath>
#include <optional>

namespace {

using namespace oltb;

std::size_t count(const std::string& page, const std::string& text) {
    std::size_t found = 0;
    for (std::size_t at = page.find(text); at != std::string::npos; at = page.find(text, at + 1)) ++found;
    return found;
}

TEST(PageData, ColumnsKeepTheirExtremesInTheOrderTheyCame) {
    analysis::Series series;
    for (const auto& [t, v] : {std::pair{0.0, 5.0}, {1, -3}, {2, 7}, {10, 9}, {11, 1}, {12, 4}, {30, 2}, {45, 6}}) {
        series.add(t, v);
    }
    const std::vector<float> columns = report::minMaxColumns(series, 0, 10, 4);
    ASSERT_EQ(columns.size(), 8u);
    EXPECT_EQ(columns[0], -3);  // the low came first
    EXPECT_EQ(columns[1], 7);
    EXPECT_EQ(columns[2], 9);  // the high came first
    EXPECT_EQ(columns[3], 1);
    EXPECT_TRUE(std::isnan(columns[4]) && std::isnan(columns[5])) << "an empty column is a gap";
    EXPECT_EQ(columns[6], 2);  // the last column takes what lies beyond the grid
    EXPECT_EQ(columns[7], 6);
}

TEST(PageData, ThinnedPathKeepsEndsSpacingAndBothSidesOfEachGateEdge) {
    analysis::Path path;
    for (int i = 0; i <= 100; ++i) {
        path.t.push_back(i);
        path.x.push_back(i);
        path.y.push_back(0);
    }
    const std::vector<std::size_t> kept = report::thinPath(path, {15.5, 50}, 10);
    const std::vector<std::size_t> expected{0, 10, 15, 16, 26, 36, 46, 49, 50, 60, 70, 80, 90, 100};
    EXPECT_EQ(kept, expected);
}

TEST(PageData, LongTraceStaysWithinTheBudgetAndShortOneKeepsEverySample) {
    analysis::SyntheticSettings settings;
    settings.repeats = 40;
    const std::vector<oltbTraceEvent> events = analysis::syntheticTrace(settings, analysis::exampleJob());
    const analysis::Result result = analysis::analyze(events);
    report::PageOptions options;
    options.byteBudget = 250'000;  // the analysis of 120 marks alone takes about 100 kB
    const std::string thinned = report::pageData(events.data(), events.size(), result, options);
    EXPECT_LT(thinned.size(), options.byteBudget) << events.size() << " events";
    EXPECT_EQ(thinned.find("\"times\""), std::string::npos) << "too long for every sample";
    EXPECT_EQ(thinned.find("\"finestColumnUs\": 0,"), std::string::npos);
    options.byteBudget = 100'000'000;
    const std::string whole = report::pageData(events.data(), events.size(), result, options);
    EXPECT_NE(whole.find("\"times\""), std::string::npos);
    EXPECT_NE(whole.find("\"finestColumnUs\": 0,"), std::string::npos);
}

TEST(PageData, WorstMarksTakeTheLargestMissingLengthAndTheLargestEdgeDoseInTurn) {
    struct Edges {
        std::optional<double> startMissing, endMissing, speedAtOn, speedAtOff;
    };
    const std::vector<Edges> table{
        {10, 10, 1.0, 1.0},    // 0: fine
        {-500, 20, 0.9, 1.0},  // 1: marks 500 units before the start: the largest missing length
        {50, 30, 1.0, 0.05},   // 2: a dot at the end (dose 20): the largest dose
        {{}, {}, {}, {}},      // 3: not measured
        {200, 0, 0.5, 1.0},    // 4: second by missing length
        {5, 5, 0.2, 1.0},      // 5: second by dose
    };
    std::vector<analysis::Mark> marks(table.size());
    for (std::size_t i = 0; i < table.size(); ++i) {
        marks[i].startMissing = table[i].startMissing;
        marks[i].endMissing = table[i].endMissing;
        marks[i].speedAtOn = table[i].speedAtOn;
        marks[i].speedAtOff = table[i].speedAtOff;
    }
    EXPECT_EQ(report::marksByEdges(marks), (std::vector<std::size_t>{1, 2, 4, 5, 0}));
}

TEST(PageData, WorstJumpsAreTheUnsettledFarthestOffThenTheSlowestThenTheCutShort) {
    std::vector<analysis::Jump> jumps(5);
    jumps[0].settled = true, jumps[0].settleUs = 300;
    jumps[1].distanceAtNext = 150;
    jumps[2].cutShort = true;
    jumps[3].settled = true, jumps[3].settleUs = 900;
    jumps[4].distanceAtNext = 4000;
    EXPECT_EQ(report::jumpsBySettling(jumps), (std::vector<std::size_t>{4, 1, 3, 0, 2}));
}

TEST(PageData, CloseUpsGoToSoManyMarksAndJumps) {
    analysis::SyntheticSettings settings;
    settings.repeats = 4;
    const std::vector<oltbTraceEvent> events = analysis::syntheticTrace(settings, analysis::exampleJob());
    const analysis::Result result = analysis::analyze(events);
    report::PageOptions options;
    options.closeUps = 3;
    const std::string page = report::pageData(events.data(), events.size(), result, options);
    ASSERT_GT(result.marks.size(), 3u);
    EXPECT_EQ(count(page, "\"start\": {\"gate_us\": "), 3u);
    EXPECT_EQ(count(page, "\"end\": {\"gate_us\": "), 3u);
    EXPECT_EQ(count(page, "\"next_us\": "), 3u);
}

TEST(ComparePage, LongCapturesGiveCloseUpsOfSoManyPairsAndSayHowManyThereAre) {
    analysis::SyntheticSettings settings;
    settings.repeats = 40;
    const std::vector<oltbTraceEvent> before = analysis::syntheticTrace(settings, analysis::exampleJob());
    settings.laserOnOffsetUs = 40;
    const std::vector<oltbTraceEvent> after = analysis::syntheticTrace(settings, analysis::exampleJob());
    const analysis::Result b = analysis::analyze(before), a = analysis::analyze(after);
    const analysis::Comparison comparison = analysis::compare(b, a);
    report::ComparePageOptions options;
    options.marks = 5;
    const std::string page = report::compareData({before.data(), before.size(), &b, "before"},
                                                 {after.data(), after.size(), &a, "after"}, comparison, options);
    ASSERT_EQ(comparison.marks.size(), 120u);
    EXPECT_NE(page.find("\"marks\": {\"pairs\": 120, "), std::string::npos);
    EXPECT_EQ(count(page, "\"start\": {\"gate_us\": "), 2 * options.marks);  // each pair on both sides
    EXPECT_EQ(count(page, "\"next_us\": "), 2 * options.jumpsPerLength * 3) << "three lengths of jumps";
    EXPECT_LT(page.size(), 100'000u);
}

// 20 ms of positions and a label a minute later: the grids stop at a few columns per sample, so that the page is
// made from the events, not from the pause between them (which used to give a million columns; an hour, 10^8).
TEST(PageData, GridsFollowTheSamplesNotTheSpanOfTime) {
    std::vector<oltbTraceEvent> events;
    for (std::uint64_t i = 0; i < 2000; ++i) {
        for (const oltbTraceEventType type : {oltbEventHead0TxX, oltbEventHead0RxX}) {
            events.push_back({640 * i, 10.0 * static_cast<double>(i), type, false, static_cast<std::int32_t>(i)});
        }
    }
    events.push_back({3840000000ULL, 6e7, oltbEventLabel, false, 5});
    analysis::Result result;
    result.durationUs = 6e7;
    const std::string data = report::pageData(events.data(), events.size(), result, {});
    std::size_t most = 0;
    for (std::size_t at = data.find("\"columns\": "); at != std::string::npos;
         at = data.find("\"columns\": ", at + 1)) {
        most = std::max<std::size_t>(most, std::stoul(data.substr(at + 11)));
    }
    EXPECT_GT(most, 0U);
    EXPECT_LE(most, 4 * 2000U);
}

}  // namespace
