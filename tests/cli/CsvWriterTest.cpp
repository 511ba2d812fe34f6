// CSV rows: exact text of header and rows, times to the tick, negative times and values, overflow, and types the
// table does not know. The output format chosen by a file's name.
#include "tools/oltb/CsvWriter.h"
#include "tools/oltb/Errors.h"
#include "tools/oltb/Outputs.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

using namespace oltb::cli;

oltbTraceEvent eventOf(std::uint64_t timestamp, double time, int type, std::int32_t value, bool overflow = false) {
    oltbTraceEvent event{};
    event.Timestamp = timestamp;
    event.Time = time;
    event.Type = static_cast<oltbTraceEventType>(type);
    event.Overflow = overflow;
    event.Value = value;
    return event;
}

TEST(CsvWriter, WritesHeaderThenOneExactRowPerEvent) {
    std::ostringstream out;
    CsvWriter writer(out);
    writer.write(eventOf(83886111, 0.015625, oltbEventGate, 1));
    writer.write(eventOf(18446744073709551615ULL, 123456.984375, oltbEventHead0TxX, -524288, true));
    writer.write(eventOf(5, -2.5, oltbEventLabel, 65535));
    writer.write(eventOf(7, 0.0, oltbEventSpi0Rx, -1));
    writer.write(eventOf(1, 0.0, 27, 3));  // a type outside the table
    EXPECT_EQ(out.str(),
              "timestamp_ticks,time_us,signal,type,value,overflow\n"
              "83886111,0.015625,Gate,22,1,0\n"
              "18446744073709551615,123456.984375,Head0TxX,32,-524288,1\n"
              "5,-2.500000,Label,126,65535,0\n"
              "7,0.000000,Spi0Rx,96,-1,0\n"
              "1,0.000000,unknown,27,3,0\n");
}

TEST(OutputFormat, FollowsTheExtensionInAnyCase) {
    EXPECT_EQ(outputFormatOf("out/demo.csv"), OutputFormat::Csv);
    EXPECT_EQ(outputFormatOf("DEMO.CSV"), OutputFormat::Csv);
    EXPECT_EQ(outputFormatOf("-"), OutputFormat::Csv);
    EXPECT_EQ(outputFormatOf("a.b/trace.Vcd"), OutputFormat::Vcd);
    for (const char* path : {"trace.txt", "csv", ".vcd", "trace.vcd.gz", ""}) {
        EXPECT_THROW(outputFormatOf(path), UsageError) << path;
    }
}

}  // namespace
