// The library against oltb-sim's marking job, checked the way a user checks a recorded job: acquire between the
// job's labels, convert the head positions, and compare with the job's documented geometry and timing, and a job
// of the user's own with what --explain says of it.
#include "tests/support/ChildProcess.h"
#include "tests/support/TestSupport.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <map>

namespace {

using namespace oltb::testing;

constexpr std::uint64_t TicksPerUs = 64;

using XY = std::pair<std::int64_t, std::int64_t>;

// Selects the signals (and the labels), starts, acquires and converts the positions.
std::vector<oltbTraceEvent> acquire(const char* address, void (*select)(oltbTraceBufferConfig_Struct&),
                                    std::uint16_t startLabel, std::uint16_t endLabel) {
    const int handle = oltbConnect(address);
    oltbTraceBufferConfig_Struct config;
    oltbInitConfig(&config);
    select(config);
    config.Label = true;
    std::uint32_t count = 0;
    std::vector<oltbTraceEvent> events;
    if (handle > 0 && oltbSetConfig(handle, &config) == 0 && oltbSetReadTimeout(handle, 5000) == 0 &&
        oltbStart(handle) == 0 && oltbAcquire(handle, startLabel, endLabel, &count) == 0) {
        events.resize(count);
        EXPECT_EQ(oltbGetAcquiredElements(handle, events.data(), 0, count, &count), 0) << takeLastError();
        EXPECT_EQ(oltbToSignedPosition(events.data(), count), 0);
    } else {
        ADD_FAILURE() << takeLastError();
    }
    oltbDisconnect(handle);
    return events;
}

std::map<std::uint64_t, XY> positions(const std::vector<oltbTraceEvent>& events, int xType, int yType) {
    std::map<std::uint64_t, XY> byTick;
    for (const oltbTraceEvent& e : events) {
        if (e.Type == xType) byTick[e.Timestamp].first = e.Value;
        if (e.Type == yType) byTick[e.Timestamp].second = e.Value;
    }
    return byTick;
}

// [gate on, gate off) intervals, from the gate's changes.
std::vector<std::pair<std::uint64_t, std::uint64_t>> gateIntervals(const std::vector<oltbTraceEvent>& events) {
    std::vector<std::pair<std::uint64_t, std::uint64_t>> intervals;
    for (const oltbTraceEvent& e : events) {
        if (e.Type != oltbEventGate) continue;
        if (e.Value == 1 && (intervals.empty() || intervals.back().second != 0)) intervals.emplace_back(e.Timestamp, 0);
        if (e.Value == 0 && !intervals.empty() && intervals.back().second == 0) intervals.back().second = e.Timestamp;
    }
    return intervals;
}

// With the scan head as a pure delay and no laser delays, the gate is on exactly while the path marks.
TEST(SimulatorJob, WholeJobBetweenLabelsOneAndTwoMatchesTheDocumentedShapes) {
    Simulator simulator("127.0.0.40",
                        {"--speed", "10", "--servo", "delay", "--laser-on-delay-us", "0", "--laser-off-delay-us", "0"});
    ASSERT_TRUE(simulator.ready()) << simulator.standardError();
    const std::vector<oltbTraceEvent> events = acquire(
        "127.0.0.40",
        [](oltbTraceBufferConfig_Struct& c) {
            c.Head0TxX = c.Head0TxY = c.Head0RxX = c.Head0RxY = c.Gate = c.LaserPower16 = true;
        },
        1, 2);
    ASSERT_FALSE(events.empty());
    // Time order, one continuous time scale over more than one time-base period, samples every 10 us.
    std::vector<std::uint64_t> txX;
    std::vector<std::int32_t> labels;
    for (std::size_t i = 0; i < events.size(); ++i) {
        ASSERT_TRUE(i == 0 || events[i].Timestamp >= events[i - 1].Timestamp) << i;
        ASSERT_DOUBLE_EQ(
            events[i].Time,
            static_cast<double>(static_cast<std::int64_t>(events[i].Timestamp - events[0].Timestamp)) / 64);
        if (events[i].Type == oltbEventHead0TxX) txX.push_back(events[i].Timestamp);
        if (events[i].Type == oltbEventLabel) labels.push_back(events[i].Value);
    }
    EXPECT_EQ(events[0].Time, 0.0) << "label 1 lies on the sample where the job starts";
    for (std::size_t i = 1; i < txX.size(); ++i) ASSERT_EQ(txX[i] - txX[i - 1], 640U) << "sample " << i;
    EXPECT_NE(txX.back() >> 24, txX.front() >> 24) << "the capture crosses a time base";
    EXPECT_EQ(labels, (std::vector<std::int32_t>{10, 11, 12, 13, 14, 15, 16, 17})) << "as ordinary elements";

    // The gate is on exactly from each shape's first point to its last one, with the shape's power, from the
    // shape's label on.
    const std::map<std::uint64_t, XY> commanded = positions(events, oltbEventHead0TxX, oltbEventHead0TxY);
    const auto intervals = gateIntervals(events);
    ASSERT_EQ(intervals.size(), 4U);
    const XY starts[] = {{-300000, -250000}, {-100000, -100000}, {350000, 250000}, {-150000, 250000}};
    const XY ends[] = {{300000, -250000}, {-100000, -100000}, {350000, 250000}, {-350000, 250000}};
    const std::int32_t powers[] = {0x4000, 0x6000, 0x8000, 0xC000};
    for (std::size_t k = 0; k < intervals.size(); ++k) {
        const auto [on, off] = intervals[k];
        EXPECT_EQ(commanded.at(on), starts[k]) << "shape " << k;
        EXPECT_EQ(commanded.at(off), ends[k]) << "shape " << k;
        const auto at = [&, on = on](int type, std::int32_t value) {
            return std::any_of(events.begin(), events.end(), [&](const oltbTraceEvent& e) {
                return e.Type == type && e.Value == value && e.Timestamp == on;
            });
        };
        EXPECT_TRUE(at(oltbEventLaserPower16, powers[k])) << "shape " << k;
        EXPECT_TRUE(at(oltbEventLabel, static_cast<std::int32_t>(10 + 2 * k))) << "shape " << k;
    }
    // The square: every marked sample on its outline; the circle: radius 100000 around (250000, 250000).
    for (auto it = commanded.lower_bound(intervals[1].first); it != commanded.upper_bound(intervals[1].second); ++it) {
        ASSERT_EQ(std::max(std::abs(it->second.first), std::abs(it->second.second)), 100000) << it->first;
    }
    for (auto it = commanded.lower_bound(intervals[2].first); it != commanded.upper_bound(intervals[2].second); ++it) {
        ASSERT_NEAR(std::hypot(it->second.first - 250000.0, it->second.second - 250000.0), 100000.0, 1.0);
    }
    // The actual position is the commanded one 250 us earlier.
    std::size_t compared = 0;
    const std::map<std::uint64_t, XY> actual = positions(events, oltbEventHead0RxX, oltbEventHead0RxY);
    for (const auto& [tick, position] : actual) {
        const auto earlier = commanded.find(tick - 250 * TicksPerUs);
        if (earlier == commanded.end()) continue;
        ASSERT_EQ(position, earlier->second) << "at tick " << tick;
        ++compared;
    }
    EXPECT_GT(compared, actual.size() * 9 / 10);
}

TEST(SimulatorJob, ShapeAcquisitionShowsTheConfiguredFollowingErrorAndHeadOne) {
    Simulator simulator("127.0.0.41", {"--speed", "10", "--servo-delay-us", "400", "--laser-on-delay-us", "7",
                                       "--laser-off-delay-us", "0"});
    ASSERT_TRUE(simulator.ready()) << simulator.standardError();
    const std::vector<oltbTraceEvent> events = acquire(
        "127.0.0.41",
        [](oltbTraceBufferConfig_Struct& c) {
            c.Head0TxX = c.Head0RxX = c.Head1TxX = c.Head1TxY = c.Gate = c.LaserPower0_16 = c.LaserPower1_16 = true;
        },
        10, 11);  // the line, marked along +X
    std::int32_t power[2] = {0, 0};
    for (const oltbTraceEvent& e : events) {
        if (e.Type == oltbEventLaserPower0_16 || e.Type == oltbEventLaserPower1_16) {
            power[e.Type == oltbEventLaserPower1_16] = std::max(power[e.Type == oltbEventLaserPower1_16], e.Value);
        }
    }
    EXPECT_EQ(power[1] * 2, power[0]) << "the laser of head 1 at half power";
    const auto intervals = gateIntervals(events);
    ASSERT_EQ(intervals.size(), 1U);
    const auto [on, off] = intervals.front();
    const auto gateOn =
        std::find_if(events.begin(), events.end(), [](const oltbTraceEvent& e) { return e.Type == oltbEventGate; });
    EXPECT_DOUBLE_EQ(gateOn->Time, 7.0) << "Time counts from label 10, where the line starts, 7 us before the gate";
    const std::uint64_t start = on - 7 * TicksPerUs;
    const std::map<std::uint64_t, XY> head0 = positions(events, oltbEventHead0TxX, oltbEventHead0RxX);
    const std::map<std::uint64_t, XY> head1 = positions(events, oltbEventHead1TxX, oltbEventHead1TxY);
    EXPECT_EQ(head0.at(start).first, -300000);
    EXPECT_EQ(head0.at(off).first, 300000);
    EXPECT_EQ(head1.at(start), (XY{150000, -125000})) << "head 1 is head 0 mirrored in X and halved";
    std::size_t steady = 0;  // once the actual position moves, it trails by 5000 units/ms * 0.4 ms
    for (auto it = head0.lower_bound(on + 400 * TicksPerUs); it != head0.upper_bound(off); ++it, ++steady) {
        ASSERT_EQ(it->second.first - it->second.second, 2000) << "at tick " << it->first;
    }
    EXPECT_GT(steady, 10000U);
}

// A SetConfig while the simulator streams changes what it streams at once, as on the card.
TEST(SimulatorJob, SetConfigWhileStreamingTakesEffectAtOnce) {
    Simulator simulator("127.0.0.47", {"--speed", "10"});
    ASSERT_TRUE(simulator.ready()) << simulator.standardError();
    const int handle = oltbConnect("127.0.0.47");
    ASSERT_GT(handle, 0) << takeLastError();
    oltbTraceBufferConfig_Struct config;
    oltbInitConfig(&config);
    config.Head0TxX = true;
    ASSERT_EQ(oltbSetConfig(handle, &config), 0) << takeLastError();
    ASSERT_EQ(oltbSetReadTimeout(handle, 2000), 0);
    ASSERT_EQ(oltbStart(handle), 0) << takeLastError();
    config.Gate = true;
    ASSERT_EQ(oltbSetConfig(handle, &config), 0) << takeLastError();
    std::vector<oltbTraceEvent> events(4096);
    bool gate = false;
    for (int read = 0; read < 200 && !gate; ++read) {  // 800,000 positions: 8 s of the job, 13 runs
        std::uint32_t count = 0;
        ASSERT_EQ(oltbRead(handle, events.data(), 0, 4096, &count), 0) << takeLastError();
        gate = std::any_of(events.begin(), events.begin() + count,
                           [](const oltbTraceEvent& e) { return e.Type == oltbEventGate; });
    }
    EXPECT_TRUE(gate);
    EXPECT_EQ(oltbDisconnect(handle), 0);
}

// A job of the user's own: a file with an error keeps the simulator from starting; a good one runs, and its trace
// shows the gate and the lag that --explain computes from the model.
TEST(SimulatorJob, UserJobRunsAndItsTraceAgreesWithTheExplanation) {
    const std::string bad = scratchDirectory() + "/bad.job", good = scratchDirectory() + "/line.job";
    std::ofstream(bad) << "label 1\njump 0 0\nmark 1 2 3\n";
    std::ofstream(good) << "label 3\npower 0x5000\njump -200000 100000\nspeed mark 8000\nmark 200000 100000\nlabel 4\n";
    ChildProcess refused(OLTB_SIM_PATH, {"--address", "127.0.0.42", "--job", bad});
    EXPECT_EQ(refused.waitForExit(10s), 1);
    EXPECT_EQ(refused.standardError(), "oltb-sim: " + bad + ":3: 'mark' takes 2 arguments (X Y), got 3\n");
    ChildProcess explain(OLTB_SIM_PATH, {"--job", good, "--explain"});
    ASSERT_EQ(explain.waitForExit(10s), 0) << explain.standardError();
    const std::string truth = explain.standardOutput();
    const auto truthOf = [&truth](const std::string& key) {
        const std::size_t at = truth.find("\"" + key + "\": ");
        return at == std::string::npos ? NAN : std::stod(truth.substr(at + key.size() + 4));
    };

    Simulator simulator("127.0.0.42", {"--speed", "10", "--job", good});
    ASSERT_TRUE(simulator.ready()) << simulator.standardError();
    const std::vector<oltbTraceEvent> events = acquire(
        "127.0.0.42", [](oltbTraceBufferConfig_Struct& c) { c.Head0TxX = c.Head0RxX = c.Gate = true; }, 3,
        4);  // label 3 is the job's first command: the times of both count from it
    const auto intervals = gateIntervals(events);
    ASSERT_EQ(intervals.size(), 1U);
    const double origin = static_cast<double>(events.front().Timestamp) - events.front().Time * TicksPerUs;
    const double gateOn = (static_cast<double>(intervals[0].first) - origin) / TicksPerUs;
    const double gateOff = (static_cast<double>(intervals[0].second) - origin) / TicksPerUs;
    double motionStart = NAN;
    for (const oltbTraceEvent& e : events) {
        if (e.Type == oltbEventHead0TxX && e.Value == -200000) motionStart = e.Time;  // its last sample there
    }
    const std::map<std::uint64_t, XY> head0 = positions(events, oltbEventHead0TxX, oltbEventHead0RxX);
    const auto middle = head0.lower_bound((intervals[0].first + intervals[0].second) / 2);
    ASSERT_NE(middle, head0.end());
    const double lag = static_cast<double>(middle->second.first - middle->second.second) / 8;  // at 8 units/us
    EXPECT_NEAR(gateOn, truthOf("gate_on_us"), 0.01);
    EXPECT_NEAR(gateOff, truthOf("gate_off_us"), 0.01);
    EXPECT_NEAR(lag, truthOf("tracking_error_us"), 2.0);
    EXPECT_NEAR(gateOn - (motionStart + lag), truthOf("laser_on_offset_us"), 3.0);
}

}  // namespace
