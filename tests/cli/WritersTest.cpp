// The tool's signal table against the public header, --signals lists, the exact bytes of the CSV and VCD
// writers (times to the tick, values within their widths, only changes, time that never goes back), and an HDF5
// file read back as the series written.
#include "tools/oltb/CaptureReader.h"
#include "tools/oltb/CsvWriter.h"
#include "tools/oltb/Errors.h"
#include "tools/oltb/H5Writer.h"
#include "tools/oltb/Outputs.h"
#include "tools/oltb/Signals.h"
#include "tools/oltb/VcdWriter.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <tuple>

namespace {

using namespace oltb::cli;

oltbTraceEvent eventOf(std::uint64_t timestamp, double time, int type, std::int32_t value, bool overflow = false) {
    return {timestamp, time, static_cast<oltbTraceEventType>(type), overflow, value};
}

std::vector<std::string> namesOf(const std::vector<const SignalInfo*>& signals) {
    std::vector<std::string> names;
    for (const SignalInfo* signal : signals) names.push_back(signal->name);
    return names;
}

// Each event type of api/oltb.h ("oltbEventPortA = 0, /* 16 */") once, with its width, group and flag.
TEST(SignalTable, HoldsEveryEventTypeOfTheHeaderWithItsWidthGroupAndFlag) {
    std::ifstream header(OLTB_SOURCE_DIR "/api/oltb.h");
    std::size_t types = 0;
    for (std::string line; std::getline(header, line);) {
        char name[64];
        int type = 0;
        unsigned bits = 0;
        if (std::sscanf(line.c_str(), " oltbEvent%63[A-Za-z0-9_] = %d , /* %u", name, &type, &bits) != 3 &&
            std::sscanf(line.c_str(), " oltbEvent%63[A-Za-z0-9_] = %d /* %u", name, &type, &bits) != 3) {
            continue;
        }
        ++types;
        const SignalInfo* signal = findSignalByType(type);
        ASSERT_NE(signal, nullptr) << name;
        EXPECT_EQ(std::string(signal->name), name);
        EXPECT_EQ(signal->bitsPerSample, bits) << name;
        EXPECT_EQ(findSignalByName(name), signal);
        EXPECT_EQ(std::string(signal->group), "Conf" + std::to_string(type / 32)) << name;
        EXPECT_EQ(isHeadPosition(signal->type), type >= 32 && type < 64) << name;
        oltbTraceBufferConfig_Struct config{};
        selectOnly(config, {signal});
        EXPECT_TRUE(config.*signal->configFlag);
        EXPECT_EQ(namesOf(signalsIn(config)), std::vector<std::string>{name});
    }
    EXPECT_EQ(types, 63U);
    EXPECT_EQ(allSignals().size(), 63U);
    EXPECT_EQ(findSignalByType(oltbEventTimeBase), nullptr);
}

TEST(SignalList, SelectsNamesAndGroupsInAnyCaseInTableOrderOnceAndRejectsTheRest) {
    EXPECT_EQ(namesOf(parseSignalList(" label , head0txx,Gate,HEAD0TXY,gate")),
              (std::vector<std::string>{"Gate", "Head0TxX", "Head0TxY", "Label"}));
    EXPECT_EQ(parseSignalList("conf1").size(), 12U);
    EXPECT_EQ(parseSignalList("Conf2,LaserPower0_8").size(), 10U);
    EXPECT_EQ(parseSignalList("ALL").size(), 63U);
    for (const char* list : {"Gate,,nope", "Port", "Conf4", "", " , "}) {
        EXPECT_THROW(parseSignalList(list), UnknownSignalError) << '"' << list << '"';
    }
    try {
        parseSignalList("Gate,Head2TxX");
        FAIL();
    } catch (const UnknownSignalError& error) {
        EXPECT_STREQ(error.what(), "unknown signal 'Head2TxX' (see: oltb signals)");
    }
    EXPECT_STREQ(outputFormatOf("DEMO.CSV").extension, ".csv");
    EXPECT_STREQ(outputFormatOf("-").extension, ".csv");
    EXPECT_STREQ(outputFormatOf("a.b/trace.Vcd").extension, ".vcd");
    for (const char* path : {"trace.txt", ".vcd", "trace.vcd.gz"})
        EXPECT_THROW(outputFormatOf(path), UsageError) << path;
}

TEST(CsvWriter, WritesHeaderThenOneExactRowPerEvent) {
    std::ostringstream out;
    CsvWriter writer(out);
    writer.write(eventOf(83886111, 0.015625, oltbEventGate, 1));
    writer.write(eventOf(18446744073709551615ULL, 123456.984375, oltbEventHead0TxX, -524288, true));
    writer.write(eventOf(5, -2.5, oltbEventLabel, 65535));
    writer.write(eventOf(1, 0.0, 27, 3));  // a type outside the table
    EXPECT_EQ(out.str(),
              "timestamp_ticks,time_us,signal,type,value,overflow\n"
              "83886111,0.015625,Gate,22,1,0\n"
              "18446744073709551615,123456.984375,Head0TxX,32,-524288,1\n"
              "5,-2.500000,Label,126,65535,0\n"
              "1,0.000000,unknown,27,3,0\n");
}

// Every variable starts as x; then only changes, at the event's time from the reference of its Time in ps, values
// in their widths (signed positions as two's complement); an earlier event is written at the last time.
TEST(VcdWriter, WritesEachChangeAtItsTimeInPicoseconds) {
    std::ostringstream out;
    VcdWriter writer(out, parseSignalList("Head0TxX,Gate,LaserPower16"), true);
    writer.write(eventOf(1128, 2.0, oltbEventGate, 1));  // 2 us after the reference at tick 1000
    writer.write(eventOf(1129, 2.015625, oltbEventGate, 1));
    writer.write(eventOf(1130, 2.03125, oltbEventHead0TxX, -524288));
    writer.write(eventOf(1192, 3.0, oltbEventLaserPower16, 0x1BEEF));
    writer.write(eventOf(1100, 1.5625, oltbEventGate, 0));
    writer.write(eventOf(1200, 3.125, oltbEventSpi0Rx, 1));
    writer.write(eventOf(1208, 3.25, oltbEventLaserPower16, 0));
    writer.finish();
    EXPECT_EQ(out.str(),
              "$version oltb trace of a laser scan controller card $end\n"
              "$comment\n  one tick of the card is 15.625 ns = 15625 ps.\n  time 0 is tick 1000 of the card's clock.\n"
              "  head positions are signed (two's complement); the card sends X negated, and X\n"
              "  is turned back here, so that X and Y count in the head's own directions.\n$end\n"
              "$timescale 1 ps $end\n$scope module oltb $end\n"
              "$var wire 16 ! LaserPower16 $end\n$var wire 1 \" Gate $end\n$var wire 32 # Head0TxX $end\n"
              "$upscope $end\n$enddefinitions $end\n#0\n$dumpvars\nbx !\nx\"\nbx #\n$end\n"
              "#2000000\n1\"\n#2031250\nb11111111111110000000000000000000 #\n#3000000\nb1011111011101111 !\n"
              "0\"\n#3250000\nb0 !\n#3265625\n");
    EXPECT_EQ(writer.eventsMovedForward(), 1U);
    EXPECT_EQ(writer.eventsSkipped(), 1U);
    EXPECT_EQ(VcdWriter::identifierOf(93), "~");
    EXPECT_EQ(VcdWriter::identifierOf(94), "!!") << "past the 94 single characters";
}

// For sigrok: only the 1-bit signals, named in the header, times rounded to the microsecond (to the nearest, and
// changes that fall on one time written there), values known at time 0 instead of x; the end a unit after the last.
TEST(VcdWriter, ForSigrokKeepsOneBitSignalsAtMicrosecondsStartingFromTheValuesKnown) {
    std::ostringstream out;
    VcdWriter writer(out, parseSignalList("Head0TxX,Gate,PortLaserOut0"), true, VcdTimeZero::FirstEvent,
                     VcdFormat{0, true},
                     {eventOf(900, -1.0, oltbEventGate, 1), eventOf(990, -0.1, oltbEventHead0TxX, 7)});
    writer.write(eventOf(1000, 0.0, oltbEventHead0TxX, 5));
    writer.write(eventOf(1031, 0.484375, oltbEventPortLaserOut0, 1));  // 0.48 us: at 0
    writer.write(eventOf(1032, 0.5, oltbEventGate, 0));                // 0.5 us: at 1
    writer.write(eventOf(1064, 1.0, oltbEventGate, 1));
    writer.finish();
    const std::string text = out.str();
    EXPECT_NE(text.find("  times are rounded to the nearest 1 us; changes closer than that share a time, the last one "
                        "holds.\n  time 0 is tick 1000"),
              std::string::npos)
        << text;
    EXPECT_NE(
        text.find("  for sigrok, which reads 1-bit signals only, left out: Head0TxX.\n$end\n$timescale 1 us $end\n"
                  "$scope module oltb $end\n$var wire 1 ! PortLaserOut0 $end\n$var wire 1 \" Gate $end\n$upscope"),
        std::string::npos)
        << text;
    EXPECT_EQ(text.substr(text.find("#0\n")), "#0\n$dumpvars\nx!\n1\"\n$end\n1!\n#1\n0\"\n1\"\n#2\n");
    EXPECT_EQ(writer.eventsSkipped(), 0U) << "the signals left out are named, not warned of";
    EXPECT_EQ(writer.endTime(), 2U);
}

#ifdef OLTB_WITH_HDF5
// Events of one tick in the order written whatever their signal, signals interleaved across chunk boundaries, a signal
// that was not announced, every field, and what the file tells about the series.
TEST(H5Capture, ReadsBackTheSeriesInTheOrderWrittenWithItsDescription) {
    const std::string path = ::testing::TempDir() + "oltb-series.h5";
    SeriesInfo info;
    info.signals = parseSignalList("Gate,Head0TxX,Label");
    info.host = "scanner-3";
    info.startLabel = 7;
    info.endLabel = 65535;
    info.startTimeUtc = "2024-05-01T12:34:56.789Z";
    std::vector<oltbTraceEvent> series;
    for (std::uint64_t tick = 1000; tick < 1000 + 9000; ++tick) {
        const double time = static_cast<double>(tick - 1000) / 64.0 - 1.0;
        series.push_back(eventOf(tick, time, oltbEventHead0TxX, -static_cast<std::int32_t>(tick), tick == 4000));
        series.insert(tick % 2 ? series.end() : series.end() - 1, eventOf(tick, time, oltbEventGate, tick % 3 == 0));
        if (tick % 2000 == 0) series.push_back(eventOf(tick, time, tick % 4000 ? oltbEventLabel : oltbEventSpi0Rx, 9));
    }
    H5Writer writer(path, info);
    for (const oltbTraceEvent& event : series) writer.write(event);
    writer.finish();

    CaptureReader reader(path);
    std::vector<oltbTraceEvent> read(series.size() + 1);
    std::size_t count = 0;
    while (const std::size_t batch =
               reader.read(read.data() + count, std::min<std::size_t>(1000, read.size() - count))) {
        count += batch;
    }
    ASSERT_EQ(count, series.size());
    const auto fields = [](const oltbTraceEvent& e) {
        return std::tuple(e.Timestamp, e.Time, e.Type, e.Overflow, e.Value);
    };
    for (std::size_t i = 0; i < count; ++i) ASSERT_EQ(fields(read[i]), fields(series[i])) << "event " << i;
    EXPECT_EQ(namesOf(reader.info().signals), (std::vector<std::string>{"Gate", "Head0TxX", "Spi0Rx", "Label"}));
    EXPECT_EQ(std::tie(reader.info().host, reader.info().startTimeUtc), std::tie(info.host, info.startTimeUtc));
    EXPECT_EQ(reader.info().startLabel, info.startLabel);
    EXPECT_EQ(reader.info().endLabel, info.endLabel);
    EXPECT_TRUE(reader.info().signedPositions);
    std::remove(path.c_str());
}
#endif

}  // namespace
