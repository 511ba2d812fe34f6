// The library against oltb-sim's marking job, checked the way a user checks a recorded job: acquire between the
// job's labels, convert the head positions, and compare with the job's documented geometry and timing.
#include "SimulatorProcess.h"
#include "tests/support/LastError.h"

#include "api/oltb.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>
#include <utility>

namespace oltb::testing {
namespace {

constexpr std::uint64_t kSampleTicks = 640;  // 10 us
constexpr std::uint64_t kTicksPerUs = 64;

using oltb::testing::takeLastError;

struct XY {
    std::int64_t x = 0;
    std::int64_t y = 0;
    friend bool operator==(const XY& a, const XY& b) { return a.x == b.x && a.y == b.y; }
};
std::ostream& operator<<(std::ostream& out, const XY& p) {
    return out << "(" << p.x << ", " << p.y << ")";
}

// A connected, configured and started client; disconnected at the end of the test.
class Client {
public:
    Client(const std::string& address, void (*select)(oltbTraceBufferConfig_Struct&)) {
        _handle = oltbConnect(address.c_str());
        if (_handle < 0) {
            ADD_FAILURE() << "connect: " << takeLastError();
            return;
        }
        oltbTraceBufferConfig_Struct config;
        oltbInitConfig(&config);
        select(config);
        config.Label = true;
        EXPECT_EQ(oltbSetConfig(_handle, &config), 0) << takeLastError();
        oltbTraceBufferConfig_Struct readBack;
        EXPECT_EQ(oltbGetConfig(_handle, &readBack), 0) << takeLastError();
        EXPECT_EQ(std::memcmp(&readBack, &config, sizeof config), 0) << "the server keeps the selection";
        EXPECT_EQ(oltbSetReadTimeout(_handle, 5000), 0);
        EXPECT_EQ(oltbStart(_handle), 0) << takeLastError();
    }
    ~Client() {
        if (_handle >= 0) {
            oltbDisconnect(_handle);
        }
    }
    bool ok() const { return _handle >= 0; }

    std::vector<oltbTraceEvent> acquire(std::uint16_t startLabel, std::uint16_t endLabel) {
        std::uint32_t count = 0;
        if (oltbAcquire(_handle, startLabel, endLabel, &count) != 0) {
            ADD_FAILURE() << "acquire: " << takeLastError();
            return {};
        }
        std::vector<oltbTraceEvent> events(count);
        std::uint32_t handedOut = 0;
        EXPECT_EQ(oltbGetAcquiredElements(_handle, events.data(), 0, count, &handedOut), 0) << takeLastError();
        EXPECT_EQ(handedOut, count);
        EXPECT_EQ(oltbToSignedPosition(events.data(), count), 0);
        return events;
    }

private:
    int _handle = -1;
};

std::map<std::uint64_t, XY> positions(const std::vector<oltbTraceEvent>& events, oltbTraceEventType xType,
                                      oltbTraceEventType yType) {
    std::map<std::uint64_t, XY> byTick;
    for (const oltbTraceEvent& e : events) {
        if (e.Type == xType) byTick[e.Timestamp].x = e.Value;
        if (e.Type == yType) byTick[e.Timestamp].y = e.Value;
    }
    return byTick;
}

std::vector<oltbTraceEvent> ofType(const std::vector<oltbTraceEvent>& events, oltbTraceEventType type) {
    std::vector<oltbTraceEvent> selected;
    std::copy_if(events.begin(), events.end(), std::back_inserter(selected),
                 [type](const oltbTraceEvent& e) { return e.Type == type; });
    return selected;
}

// [gate on, gate off) intervals, from the gate's changes.
std::vector<std::pair<std::uint64_t, std::uint64_t>> gateIntervals(const std::vector<oltbTraceEvent>& events) {
    std::vector<std::pair<std::uint64_t, std::uint64_t>> intervals;
    bool on = false;
    for (const oltbTraceEvent& e : ofType(events, oltbEventGate)) {
        if (e.Value == 1 && !on) {
            intervals.emplace_back(e.Timestamp, 0);
        } else if (e.Value == 0 && on) {
            intervals.back().second = e.Timestamp;
        }
        on = e.Value == 1;
    }
    return intervals;
}

void selectJobSignals(oltbTraceBufferConfig_Struct& config) {
    config.Head0TxX = config.Head0TxY = config.Head0RxX = config.Head0RxY = true;
    config.Gate = config.LaserPower16 = true;
}

TEST(SimulatorJob, WholeJobBetweenLabelsOneAndTwoMatchesTheDocumentedShapes) {
    SimulatorProcess simulator("127.0.0.40", {"--speed", "10"});
    ASSERT_TRUE(simulator.ready()) << simulator.failure();
    Client client("127.0.0.40", selectJobSignals);
    ASSERT_TRUE(client.ok());
    const std::vector<oltbTraceEvent> events = client.acquire(1, 2);
    ASSERT_FALSE(events.empty());

    // Time order, and one continuous time scale over more than one time-base period.
    EXPECT_TRUE(std::is_sorted(events.begin(), events.end(), [](const oltbTraceEvent& a, const oltbTraceEvent& b) {
        return a.Timestamp < b.Timestamp;
    }));
    const std::vector<oltbTraceEvent> txX = ofType(events, oltbEventHead0TxX);
    ASSERT_GT(txX.size(), 2u);
    EXPECT_EQ(txX.front().Time, 0.0) << "label 1 lies on the sample where the job starts";
    for (std::size_t i = 1; i < txX.size(); ++i) {
        ASSERT_EQ(txX[i].Timestamp - txX[i - 1].Timestamp, kSampleTicks) << "sample " << i;
    }
    const std::uint64_t origin = txX.front().Timestamp;
    for (const oltbTraceEvent& e : events) {
        ASSERT_DOUBLE_EQ(e.Time, static_cast<double>(static_cast<std::int64_t>(e.Timestamp - origin)) / kTicksPerUs);
    }
    EXPECT_GT(txX.back().Timestamp - origin, std::uint64_t{1} << 24);
    EXPECT_NE(txX.back().Timestamp >> 24, origin >> 24) << "the capture crosses a time base";

    // The shapes' labels come as ordinary elements, in order.
    std::vector<std::int32_t> labels;
    for (const oltbTraceEvent& e : ofType(events, oltbEventLabel)) {
        labels.push_back(e.Value);
    }
    EXPECT_EQ(labels, (std::vector<std::int32_t>{10, 11, 12, 13, 14, 15, 16, 17}));

    // The gate is on exactly from each shape's first point to its last one, with the shape's power.
    const std::map<std::uint64_t, XY> commanded = positions(events, oltbEventHead0TxX, oltbEventHead0TxY);
    const auto intervals = gateIntervals(events);
    ASSERT_EQ(intervals.size(), 4u);
    const XY starts[] = {{-300000, -250000}, {-100000, -100000}, {350000, 250000}, {-150000, 250000}};
    const XY ends[] = {{300000, -250000}, {-100000, -100000}, {350000, 250000}, {-350000, 250000}};
    const std::int32_t powers[] = {0x4000, 0x6000, 0x8000, 0xC000};
    const std::vector<oltbTraceEvent> power = ofType(events, oltbEventLaserPower16);
    for (std::size_t k = 0; k < intervals.size(); ++k) {
        const auto [on, off] = intervals[k];
        ASSERT_EQ(commanded.count(on), 1u);
        ASSERT_EQ(commanded.count(off), 1u);
        EXPECT_EQ(commanded.at(on), starts[k]) << "shape " << k;
        EXPECT_EQ(commanded.at(off), ends[k]) << "shape " << k;
        const auto powerOn = std::find_if(power.begin(), power.end(),
                                          [on = on](const oltbTraceEvent& e) { return e.Timestamp == on; });
        ASSERT_NE(powerOn, power.end());
        EXPECT_EQ(powerOn->Value, powers[k]);
        const auto label = std::find_if(events.begin(), events.end(), [&](const oltbTraceEvent& e) {
            return e.Type == oltbEventLabel && e.Value == static_cast<std::int32_t>(10 + 2 * k);
        });
        EXPECT_EQ(label->Timestamp + kTicksPerUs, on) << "the shape's label comes 1 us before the gate";
    }

    // The square: every marked sample lies on its outline, and all four corners are visited.
    const auto [squareOn, squareOff] = intervals[1];
    std::vector<XY> corners;
    for (auto it = commanded.lower_bound(squareOn); it != commanded.end() && it->first <= squareOff; ++it) {
        const XY p = it->second;
        ASSERT_EQ(std::max(std::abs(p.x), std::abs(p.y)), 100000) << p;
        if (std::abs(p.x) == 100000 && std::abs(p.y) == 100000) {
            corners.push_back(p);
        }
    }
    EXPECT_EQ(corners, (std::vector<XY>{{-100000, -100000}, {100000, -100000}, {100000, 100000},
                                        {-100000, 100000}, {-100000, -100000}}));
    // The circle: radius 100000 around (250000, 250000), to the rounding of a unit.
    for (auto it = commanded.lower_bound(intervals[2].first); it != commanded.end() && it->first <= intervals[2].second;
         ++it) {
        const double radius = std::hypot(it->second.x - 250000.0, it->second.y - 250000.0);
        ASSERT_NEAR(radius, 100000.0, 1.0);
    }

    // The actual position is the commanded one 250 us (16000 ticks) earlier.
    const std::map<std::uint64_t, XY> actual = positions(events, oltbEventHead0RxX, oltbEventHead0RxY);
    std::size_t compared = 0;
    for (const auto& [tick, position] : actual) {
        const auto earlier = commanded.find(tick - 250 * kTicksPerUs);
        if (earlier != commanded.end()) {
            ASSERT_EQ(position, earlier->second) << "at tick " << tick;
            ++compared;
        }
    }
    EXPECT_GT(compared, actual.size() * 9 / 10);
}

void selectLineSignals(oltbTraceBufferConfig_Struct& config) {
    config.Head0TxX = config.Head0RxX = config.Head1TxX = config.Head1TxY = true;
    config.Gate = true;
}

TEST(SimulatorJob, ShapeAcquisitionShowsTheConfiguredFollowingErrorAndHeadOne) {
    SimulatorProcess simulator("127.0.0.41", {"--speed", "10", "--servo-delay-us", "400"});
    ASSERT_TRUE(simulator.ready()) << simulator.failure();
    Client client("127.0.0.41", selectLineSignals);
    ASSERT_TRUE(client.ok());
    const std::vector<oltbTraceEvent> events = client.acquire(10, 11);  // the line, marked along +X
    ASSERT_FALSE(events.empty());

    const auto intervals = gateIntervals(events);
    ASSERT_EQ(intervals.size(), 1u);
    const auto [on, off] = intervals.front();
    const auto gateOn = std::find_if(events.begin(), events.end(),
                                     [](const oltbTraceEvent& e) { return e.Type == oltbEventGate && e.Value == 1; });
    EXPECT_DOUBLE_EQ(gateOn->Time, 1.0) << "Time counts from label 10, 1 us before the gate";

    const std::map<std::uint64_t, XY> head0 = positions(events, oltbEventHead0TxX, oltbEventHead0RxX);
    const std::map<std::uint64_t, XY> head1 = positions(events, oltbEventHead1TxX, oltbEventHead1TxY);
    ASSERT_EQ(head0.count(on), 1u);
    EXPECT_EQ(head0.at(on).x, -300000);
    EXPECT_EQ(head1.at(on), (XY{150000, -125000})) << "head 1 is head 0 mirrored in X and halved";
    EXPECT_EQ(head0.at(off).x, 300000);

    // Once the actual position has started to move, it trails by 5000 units/ms * 0.4 ms.
    std::size_t steady = 0;
    for (auto it = head0.lower_bound(on + 400 * kTicksPerUs); it != head0.end() && it->first <= off; ++it) {
        ASSERT_EQ(it->second.x - it->second.y, 2000) << "at tick " << it->first;  // commanded x - actual x
        ++steady;
    }
    EXPECT_GT(steady, 10000u);
}

}  // namespace
}  // namespace oltb::testing
