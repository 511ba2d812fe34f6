// Value change dumps as viewers read them: header, timescale, one variable per signal with its sample width,
// times counted in ps from the reference of Time, values within their widths, signed positions as two's
// complement, and time that never goes back.
#include "tests/cli/VcdParser.h"
#include "tools/oltb/Signals.h"
#include "tools/oltb/VcdWriter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <sstream>

namespace {

using namespace oltb::cli;
using oltb::testing::parseVcd;
using oltb::testing::signedValueOf;
using oltb::testing::VcdDump;

VcdDump parsed(const std::string& text) {
    VcdDump dump;
    std::string error;
    EXPECT_TRUE(parseVcd(text, dump, error)) << error << "\n" << text;
    return dump;
}

const std::vector<const SignalInfo*> DemoSignals = parseSignalList("Head0TxX,Head0TxY,LaserPower16,Gate,Label");

TEST(VcdWriter, DeclaresEverySignalWithItsWidthADistinctPrintableIdentifierAndATickExactTimescale) {
    std::ostringstream out;
    const std::vector<const SignalInfo*> all = parseSignalList("all");
    VcdWriter writer(out, all, true);
    writer.finish();
    const VcdDump dump = parsed(out.str());
    EXPECT_EQ(dump.timescale, "1 ps");
    EXPECT_EQ(VcdWriter::PicosecondsPerTick * 64, 1000000U);  // 64 ticks are exactly 1 us
    ASSERT_EQ(dump.variables.size(), 63U);
    std::set<std::string> identifiers;
    for (std::size_t index = 0; index < all.size(); ++index) {
        const auto& variable = dump.variables[index];
        EXPECT_EQ(variable.name, all[index]->name);
        EXPECT_EQ(variable.size, all[index]->bitsPerSample);
        EXPECT_EQ(variable.type, "wire");
        EXPECT_TRUE(std::all_of(variable.identifier.begin(), variable.identifier.end(),
                                [](char c) { return c >= '!' && c <= '~'; }));
        identifiers.insert(variable.identifier);
    }
    EXPECT_EQ(identifiers.size(), 63U);
    EXPECT_EQ(VcdWriter::identifierOf(94).size(), 2U);  // past the 94 single characters
}

struct Written {
    std::uint64_t timestamp;
    double time;
    oltbTraceEventType type;
    std::int32_t value;
};
using Changes = std::vector<std::pair<std::uint64_t, std::int64_t>>;  // ticks after time 0, value

// Each signal starts undefined at time 0; then only its changes, at the event's time from the reference of Time
// (or from the first event when that lies earlier), never going back.
TEST(VcdWriter, WritesEachChangeAtItsTimeInPicoseconds) {
    struct Case {
        const char* name;
        std::vector<Written> events;
        std::vector<std::pair<const char*, Changes>> expected;
    };
    const Case cases[] = {
        {"first event 2 us after the start label at tick 1000",
         {{1128, 2.0, oltbEventGate, 1}, {1129, 2.015625, oltbEventGate, 0}, {1192, 3.0, oltbEventLaserPower16, 0xBEEF}},
         {{"Gate", {{128, 1}, {129, 0}}}, {"LaserPower16", {{192, 0xBEEF}}}}},
        {"signed positions at full width",
         {{0, 0.0, oltbEventHead0TxX, -1}, {1, 1 / 64.0, oltbEventHead0TxX, -524288},
          {2, 2 / 64.0, oltbEventHead0TxX, 524288}, {3, 3 / 64.0, oltbEventHead0TxX, 0},
          {4, 4 / 64.0, oltbEventHead0TxX, 5}},
         {{"Head0TxX", {{0, -1}, {1, -524288}, {2, 524288}, {3, 0}, {4, 5}}}}},
        {"repeated values are no changes",
         {{0, 0.0, oltbEventLabel, 7}, {1, 1 / 64.0, oltbEventLabel, 7}, {2, 2 / 64.0, oltbEventGate, 1},
          {3, 3 / 64.0, oltbEventGate, 1}, {4, 4 / 64.0, oltbEventLaserPower16, 0}},
         {{"Label", {{0, 7}}}, {"Gate", {{2, 1}}}, {"LaserPower16", {{4, 0}}}}},
        {"an earlier event is moved forward to the last time written",
         {{100, 0.0, oltbEventGate, 1}, {200, 1.5625, oltbEventGate, 0}, {150, 0.78125, oltbEventGate, 1}},
         {{"Gate", {{0, 1}, {100, 0}, {100, 1}}}}},
        {"first event before the reference",
         {{500, -1.0, oltbEventGate, 1}, {564, 0.0, oltbEventGate, 0}},
         {{"Gate", {{0, 1}, {64, 0}}}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::ostringstream out;
        VcdWriter writer(out, DemoSignals, true);
        for (const Written& e : c.events) {
            oltbTraceEvent event{};
            event.Timestamp = e.timestamp;
            event.Time = e.time;
            event.Type = e.type;
            event.Value = e.value;
            writer.write(event);
        }
        writer.finish();
        const VcdDump dump = parsed(out.str());
        for (const auto& [name, expected] : c.expected) {
            const auto changes = dump.changesOf(name);
            ASSERT_EQ(changes.size(), expected.size() + 1) << name;
            EXPECT_EQ(changes[0].time, 0U);
            EXPECT_EQ(changes[0].value, "x");
            const unsigned size = dump.variableNamed(name)->size;
            Changes actual;
            for (std::size_t i = 1; i < changes.size(); ++i) {
                EXPECT_EQ(changes[i].time % VcdWriter::PicosecondsPerTick, 0U);
                actual.emplace_back(changes[i].time / VcdWriter::PicosecondsPerTick,
                                    size == 32 ? signedValueOf(changes[i].value, 32)
                                               : static_cast<std::int64_t>(std::stoull(changes[i].value, nullptr, 2)));
            }
            EXPECT_EQ(actual, expected) << name;
            EXPECT_GT(dump.lastTime, changes.back().time);  // the end lies behind the last change
        }
    }
}

TEST(VcdWriter, WritesValuesInTheirWidthsAndCountsWhatItMovedOrSkipped) {
    std::ostringstream out;
    VcdWriter writer(out, DemoSignals, true);
    writer.write({1000, 0.0, oltbEventGate, false, 1});
    writer.write({1064, 1.0, oltbEventHead0TxX, false, -1});
    writer.write({900, -1.5625, oltbEventGate, false, 0});
    writer.write({1100, 1.5, oltbEventSpi0Rx, false, 1});
    writer.finish();
    EXPECT_NE(out.str().find("time 0 is tick 1000 "), std::string::npos);
    EXPECT_NE(out.str().find("\n1\"\n"), std::string::npos) << "a 1-bit value is written as 1<id>";
    EXPECT_EQ(parsed(out.str()).changesOf("Head0TxX").back().value, std::string(32, '1'));
    EXPECT_EQ(VcdWriter::formatValue(0x1FF, 8, "&"), "b11111111 &");  // never wider than the variable
    EXPECT_EQ(writer.eventsMovedForward(), 1U);
    EXPECT_EQ(writer.eventsSkipped(), 1U);
}

}  // namespace
