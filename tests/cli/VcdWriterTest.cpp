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
using oltb::testing::VcdChange;
using oltb::testing::VcdDump;

oltbTraceEvent eventOf(std::uint64_t timestamp, double time, oltbTraceEventType type, std::int32_t value) {
    oltbTraceEvent event{};
    event.Timestamp = timestamp;
    event.Time = time;
    event.Type = type;
    event.Value = value;
    return event;
}

VcdDump parsed(const std::string& text) {
    VcdDump dump;
    std::string error;
    EXPECT_TRUE(parseVcd(text, dump, error)) << error << "\n" << text;
    return dump;
}

const std::vector<const SignalInfo*> DemoSignals = parseSignalList("Head0TxX,Head0TxY,LaserPower16,Gate,Label");

TEST(VcdWriter, DeclaresOneVariablePerSignalWithItsSampleWidthAndExactTickTimescale) {
    std::ostringstream out;
    VcdWriter writer(out, DemoSignals, true);
    writer.finish();
    const VcdDump dump = parsed(out.str());
    EXPECT_EQ(dump.timescale, "1 ps");
    EXPECT_EQ(VcdWriter::PicosecondsPerTick * 64, 1000000U); // 64 ticks are exactly 1 us
    ASSERT_EQ(dump.variables.size(), DemoSignals.size());
    std::set<std::string> identifiers;
    for (std::size_t index = 0; index < DemoSignals.size(); ++index) {
        EXPECT_EQ(dump.variables[index].name, DemoSignals[index]->name);
        EXPECT_EQ(dump.variables[index].size, DemoSignals[index]->bitsPerSample);
        EXPECT_EQ(dump.variables[index].type, "wire");
        identifiers.insert(dump.variables[index].identifier);
    }
    EXPECT_EQ(identifiers.size(), DemoSignals.size());
}

TEST(VcdWriter, CountsTimeInPicosecondsFromTheReferenceOfTime) {
    // The first event lies 2 us (128 ticks) after the start label at tick 1000.
    std::ostringstream out;
    VcdWriter writer(out, DemoSignals, true);
    writer.write(eventOf(1128, 2.0, oltbEventGate, 1));
    writer.write(eventOf(1129, 2.015625, oltbEventGate, 0));
    writer.write(eventOf(1192, 3.0, oltbEventLaserPower16, 0xBEEF));
    writer.finish();
    const VcdDump dump = parsed(out.str());
    EXPECT_NE(out.str().find("time 0 is tick 1000 "), std::string::npos);
    const std::vector<VcdChange> gate = dump.changesOf("Gate");
    ASSERT_EQ(gate.size(), 3U); // x at time 0, then 1 and 0
    EXPECT_EQ(gate[0].value, "x");
    EXPECT_EQ(gate[1].time, 128U * 15625U);
    EXPECT_EQ(gate[1].value, "1");
    EXPECT_EQ(gate[2].time, 129U * 15625U);
    EXPECT_EQ(gate[2].value, "0");
    const std::vector<VcdChange> power = dump.changesOf("LaserPower16");
    ASSERT_EQ(power.size(), 2U);
    EXPECT_EQ(power[1].time, 192U * 15625U);
    EXPECT_EQ(power[1].value, "1011111011101111");
    EXPECT_GT(dump.lastTime, power[1].time); // the end lies behind the last change
}

TEST(VcdWriter, WritesSignedPositionsAsFullWidthTwosComplement) {
    std::ostringstream out;
    VcdWriter writer(out, DemoSignals, true);
    const std::int32_t positions[] = {-1, -524288, 524288, 0, 5};
    std::uint64_t tick = 0;
    for (const std::int32_t position : positions) {
        writer.write(eventOf(tick, static_cast<double>(tick) / 64.0, oltbEventHead0TxX, position));
        ++tick;
    }
    writer.finish();
    const VcdDump dump = parsed(out.str());
    const std::vector<VcdChange> head = dump.changesOf("Head0TxX");
    ASSERT_EQ(head.size(), 1U + std::size(positions));
    for (std::size_t index = 0; index < std::size(positions); ++index) {
        EXPECT_EQ(signedValueOf(head[index + 1].value, 32), positions[index]) << head[index + 1].value;
    }
    EXPECT_EQ(head[1].value, std::string(32, '1'));
}

TEST(VcdWriter, KeepsValuesWithinTheirWidthsAndWritesOnlyChanges) {
    std::ostringstream out;
    VcdWriter writer(out, DemoSignals, false);
    writer.write(eventOf(0, 0.0, oltbEventLabel, 7));
    writer.write(eventOf(1, 0.015625, oltbEventLabel, 7));
    writer.write(eventOf(2, 0.03125, oltbEventGate, 1));
    writer.write(eventOf(3, 0.046875, oltbEventGate, 1));
    writer.write(eventOf(4, 0.0625, oltbEventLaserPower16, 0));
    writer.finish();
    const VcdDump dump = parsed(out.str());
    EXPECT_EQ(dump.changesOf("Label").size(), 2U);
    EXPECT_EQ(dump.changesOf("Gate").size(), 2U);
    EXPECT_EQ(dump.changesOf("LaserPower16").back().value, "0");
    EXPECT_NE(out.str().find("\n1\"\n"), std::string::npos) << "a 1-bit value is written as 1<id>";
    EXPECT_EQ(VcdWriter::formatValue(0x1FF, 8, "&"), "b11111111 &"); // never wider than the variable
}

TEST(VcdWriter, NeverLetsTimeGoBackAndSkipsSignalsItDoesNotDeclare) {
    std::ostringstream out;
    VcdWriter writer(out, DemoSignals, true);
    writer.write(eventOf(100, 0.0, oltbEventGate, 1));
    writer.write(eventOf(200, 1.5625, oltbEventGate, 0));
    writer.write(eventOf(150, 0.78125, oltbEventGate, 1));
    writer.write(eventOf(220, 1.875, oltbEventSpi0Rx, 1));
    writer.finish();
    const auto gate = parsed(out.str()).changesOf("Gate");
    ASSERT_EQ(gate.size(), 4U);
    EXPECT_EQ(gate[3].time, 100U * 15625U);
    EXPECT_EQ(writer.eventsMovedForward(), 1U);
    EXPECT_EQ(writer.eventsSkipped(), 1U);
}

TEST(VcdWriter, StartsAtTheFirstEventWhenItLiesBeforeItsReference) {
    std::ostringstream out;
    VcdWriter writer(out, DemoSignals, true);
    writer.write(eventOf(500, -1.0, oltbEventGate, 1));
    writer.write(eventOf(564, 0.0, oltbEventGate, 0));
    writer.finish();
    const VcdDump dump = parsed(out.str());
    const auto gate = dump.changesOf("Gate");
    ASSERT_EQ(gate.size(), 3U);
    EXPECT_EQ(gate[1].time, 0U);
    EXPECT_EQ(gate[2].time, 64U * 15625U);
}

TEST(VcdWriter, GivesEverySignalADistinctPrintableIdentifier) {
    std::ostringstream out;
    VcdWriter writer(out, parseSignalList("all"), true);
    writer.finish();
    std::set<std::string> identifiers;
    for (const auto& variable : parsed(out.str()).variables) {
        EXPECT_TRUE(std::all_of(variable.identifier.begin(), variable.identifier.end(),
                                [](char c) { return c >= '!' && c <= '~'; }));
        identifiers.insert(variable.identifier);
    }
    EXPECT_EQ(identifiers.size(), 63U);
    EXPECT_EQ(VcdWriter::identifierOf(94).size(), 2U); // past the 94 single characters
}

}  // namespace
