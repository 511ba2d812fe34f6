// The analysis against the simulator's ground truth: for settings across the range users meet (tracking errors from
// 100 to 500 us, damping 0.5 to 1, laser delays off by up to 100 us either way), the figures measured from a trace
// of the built-in job agree with what oltb-sim --explain computes from its model.
#include "analysis/TraceAnalysis.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/TestSupport.h"

#include <cmath>

namespace {

using namespace oltb::testing;

// Every number that follows "key": in the text, in order.
std::vector<double> valuesOf(const std::string& text, const std::string& key) {
    std::vector<double> values;
    for (std::size_t at = text.find("\"" + key + "\": "); at != std::string::npos; at = text.find("\"" + key + "\": ", at + 1)) {
        const std::string rest = text.substr(at + key.size() + 4, 16);
        values.push_back(rest.rfind("null", 0) == 0 ? NAN : rest.rfind("true", 0) == 0 ? 1 : rest.rfind("false", 0) == 0 ? 0 : std::stod(rest));
    }
    return values;
}

void expectAnalysisAgreesWithTheModel(const char* address, const std::vector<std::string>& settings) {
    ChildProcess explain(OLTB_SIM_PATH, [&] { auto all = settings; all.push_back("--explain"); return all; }());
    ASSERT_EQ(explain.waitForExit(30s), 0) << explain.standardError();
    const std::string truth = explain.standardOutput();
    Simulator simulator(address, [&] { auto all = settings; all.insert(all.end(), {"--speed", "10"}); return all; }());
    ASSERT_TRUE(simulator.ready()) << simulator.standardError();
    const int handle = oltbConnect(address);
    oltbTraceBufferConfig_Struct config;
    oltbInitConfig(&config);
    config.Head0TxX = config.Head0TxY = config.Head0RxX = config.Head0RxY = config.Gate = config.Label = true;
    std::uint32_t count = 0;
    ASSERT_TRUE(oltbSetConfig(handle, &config) == 0 && oltbStart(handle) == 0 && oltbAcquire(handle, 1, 2, &count) == 0)
        << takeLastError();
    std::vector<oltbTraceEvent> events(count);
    ASSERT_EQ(oltbGetAcquiredElements(handle, events.data(), 0, count, &count), 0);
    oltbToSignedPosition(events.data(), count);
    oltbDisconnect(handle);

    const oltb::analysis::Result result = oltb::analysis::analyze(events);
    EXPECT_NEAR(*result.trackingErrorXUs, valuesOf(truth, "least_squares_shift_us")[0], 2.0);
    EXPECT_NEAR(*result.trackingErrorYUs, valuesOf(truth, "least_squares_shift_us")[0], 2.0);
    EXPECT_NEAR(*result.laserOnOffsetUs, valuesOf(truth, "laser_on_offset_us_median")[0], 3.0);
    EXPECT_NEAR(*result.laserOffOffsetUs, valuesOf(truth, "laser_off_offset_us_median")[0], 3.0);
    const std::vector<double> on = valuesOf(truth, "laser_on_offset_us"), off = valuesOf(truth, "laser_off_offset_us");
    ASSERT_EQ(result.marks.size(), on.size());
    for (std::size_t k = 0; k < on.size(); ++k) {
        EXPECT_NEAR(*result.marks[k].laserOnOffsetUs, on[k], 8.0) << "mark " << k;
        EXPECT_NEAR(*result.marks[k].laserOffOffsetUs, off[k], 8.0) << "mark " << k;
    }
    const std::vector<double> settle = valuesOf(truth, "settle_us"), settled = valuesOf(truth, "settled");
    ASSERT_EQ(result.jumps.size(), settle.size());
    for (std::size_t k = 0; k < settle.size(); ++k) {
        if (result.jumps[k].cutShort) continue;  // the trace ends before the last jump is decided
        EXPECT_EQ(result.jumps[k].settled, settled[k] == 1) << "jump " << k;
        if (result.jumps[k].settled) {
            EXPECT_NEAR(*result.jumps[k].settleUs, settle[k], 10.0) << "jump " << k;
        }
    }
}

TEST(AnalysisAccuracy, FiguresAgreeWithTheSimulatorsModel) {
    runSideBySide({
        {"stiff, laser as tuned", [] { expectAnalysisAgreesWithTheModel("127.0.0.43", {"--tracking-error-us", "100", "--damping", "1"}); }},
        {"slow, ringing, laser 100 us early on",
         [] { expectAnalysisAgreesWithTheModel("127.0.0.44", {"--tracking-error-us", "500", "--damping", "0.5",
                                                              "--laser-on-delay-us", "400", "--laser-off-delay-us", "400"}); }},
        {"laser 100 us late off", [] { expectAnalysisAgreesWithTheModel("127.0.0.45", {"--tracking-error-us", "300", "--damping", "0.7",
                                                                                       "--laser-on-delay-us", "200", "--laser-off-delay-us", "100"}); }},
        {"jump delay too short", [] { expectAnalysisAgreesWithTheModel("127.0.0.46", {"--damping", "0.5", "--jump-delay-us", "300"}); }},
    });
}

}  // namespace
