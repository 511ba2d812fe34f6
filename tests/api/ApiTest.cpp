// The exported functions: the per-thread error store and its hand-out rules, the frame's handle and pointer checks,
// configuration records and positions, and, through a connection to the fake server, the read timeout, the
// configuration and the hand-out of an acquired series in portions.
#include "api/TraceBufferErrorHandler.h"
#include "api/oltb.h"
#include "tests/support/FakeServer.h"
#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

namespace {

using namespace oltb::testing;

std::string takeLastErrorInto(int bufferSize) {
    std::string buffer(static_cast<std::size_t>(bufferSize), '#');
    oltbGetLastError(buffer.data(), bufferSize);
    return std::string(buffer.c_str());
}

TEST(ErrorStore, LengthIsTextPlusTwoAndTheTextIsHandedOutOnce) {
    std::thread([] {
        EXPECT_EQ(oltbGetLastErrorLen(), 0) << "a new thread has no error";
        ASSERT_EQ(oltbStart(123456), -1);
        EXPECT_EQ(takeLastError(), "Illegal handle!");
    }).join();
    ASSERT_EQ(oltbStart(-1), -1);
    EXPECT_EQ(oltbGetLastErrorLen(), 17);
    EXPECT_EQ(oltbGetLastErrorLen(), 17) << "asking for the length does not consume the text";
    for (int size : {0, -1}) {
        char buffer[4] = {'a', 'b', 'c', '\0'};
        oltbGetLastError(buffer, size);
        EXPECT_STREQ(buffer, "abc") << "a size of " << size << " touches nothing";
    }
    oltbGetLastError(nullptr, 10);
    EXPECT_EQ(oltbGetLastErrorLen(), 17) << "a null buffer counts as a size of 0";
    EXPECT_EQ(takeLastErrorInto(16), "Illegal handle.") << "an exact fit: 15 characters and the zero";
    EXPECT_EQ(oltbGetLastErrorLen(), 0);
    EXPECT_EQ(takeLastError(), "");
    ASSERT_EQ(oltbStart(-1), -1);
    oltbTraceBufferConfig_Struct config;
    ASSERT_EQ(oltbInitConfig(&config), 0);
    EXPECT_EQ(oltbGetLastErrorLen(), 0) << "every call starts with an empty store";
}

TEST(ErrorStore, BufferTooSmallLosesTheText) {
    const std::string fortyCharacters(40, 'e');
    const std::pair<int, std::string> cases[] = {
        {15, ""}, {22, ""}, {23, "Error buffer too small"}, {40, "Error buffer too small"}, {41, fortyCharacters}};
    for (const auto& [size, expected] : cases) {
        OLVEN::TALIX3::TraceBuffer::TraceBufferErrorHandler::getThreadLocalInstance().InsertError(
            fortyCharacters.c_str());
        EXPECT_EQ(takeLastErrorInto(size), expected) << size;
        EXPECT_EQ(oltbGetLastErrorLen(), 0);
    }
}

TEST(HandleChecks, EveryFunctionReportsIllegalHandlesAndNullOutParameters) {
    oltbTraceEvent events[4];
    oltbTraceBufferConfig_Struct config;
    uint32_t count = 77;
    int timeout = 77;
    const std::pair<const char*, std::function<int(int)>> functions[] = {
        {"Start", [](int h) { return oltbStart(h); }},
        {"Stop", [](int h) { return oltbStop(h); }},
        {"Clear", [](int h) { return oltbClear(h); }},
        {"GetConfig", [&](int h) { return oltbGetConfig(h, &config); }},
        {"SetConfig", [&](int h) { return oltbSetConfig(h, &config); }},
        {"GetReadTimeout", [&](int h) { return oltbGetReadTimeout(h, &timeout); }},
        {"SetReadTimeout", [](int h) { return oltbSetReadTimeout(h, 5); }},
        {"TryRead", [&](int h) { return oltbTryRead(h, events, 0, 4, &count); }},
        {"Read", [&](int h) { return oltbRead(h, events, 0, 4, &count); }},
        {"Acquire", [&](int h) { return oltbAcquire(h, 1, 2, &count); }},
        {"GetAcquiredElements", [&](int h) { return oltbGetAcquiredElements(h, events, 0, 4, &count); }},
    };
    for (const auto& [name, call] : functions) {
        EXPECT_EQ(call(-1), -1) << name;
        EXPECT_EQ(takeLastError(), "Illegal handle.") << name;
        for (int unknown : {0, 987654}) {
            EXPECT_EQ(call(unknown), -1) << name;
            EXPECT_EQ(takeLastError(), "Illegal handle!") << name << " " << unknown;
        }
    }
    EXPECT_EQ(count, 77U) << "a failing call leaves its out-parameters untouched";
    EXPECT_EQ(timeout, 77);

    bool connected = true;
    for (int handle : {-3, 99}) {
        EXPECT_EQ(oltbIsConnected(handle, &connected), 0);
        EXPECT_FALSE(connected);
    }
    for (int handle : {0, 5}) EXPECT_EQ(oltbDisconnect(handle), 0) << "an unknown handle is a successful no-op";
    EXPECT_EQ(oltbGetLastErrorLen(), 0);
    EXPECT_EQ(oltbDisconnect(-1), -1);
    EXPECT_EQ(takeLastError(), "Illegal handle.");
    EXPECT_EQ(oltbConnect(nullptr), -1);
    EXPECT_EQ(takeLastError(), "basic_string::_M_construct null not valid");
    const std::function<int()> nullOut[] = {
        [] { return oltbIsConnected(-1, nullptr); },   [] { return oltbGetReadTimeout(-1, nullptr); },
        [] { return oltbGetConfig(987654, nullptr); }, [] { return oltbAcquire(987654, 1, 2, nullptr); },
        [] { return oltbInitConfig(nullptr); },        [] { return oltbToSignedPosition(nullptr, 3); }};
    for (const auto& call : nullOut) {
        EXPECT_EQ(call(), -1);
        EXPECT_EQ(takeLastError(), "Out parameter is a null pointer!") << "checked before the handle";
    }
}

TEST(NoConnection, InitConfigAndPositions) {
    oltbTraceBufferConfig_Struct config;
    std::memset(&config, 0xFF, sizeof(config));
    EXPECT_EQ(oltbInitConfig(&config), 0);
    EXPECT_EQ(config.Version, 6U);
    const auto* flags = reinterpret_cast<const unsigned char*>(&config.PortA);
    EXPECT_TRUE(std::all_of(flags, flags + 63, [](unsigned char flag) { return flag == 0; }));

    const std::pair<uint32_t, int32_t> values[] = {
        {0, 0},          {0x7FFFF, 524287},    {0x80000, -524288}, {0xFFFFF, -1}, {0xFFF80000, -524288},
        {0x00100000, 0}, {0x12345678, 0x45678}};
    for (const auto& [raw, expected] : values) EXPECT_EQ(oltbToSignedPositionVal(raw), expected) << std::hex << raw;

    oltbTraceEvent events[4] = {};
    const std::pair<oltbTraceEventType, uint32_t> raw[] = {{oltbEventHead0TxY, 0x80000},
                                                           {oltbEventHead1RxX, 0x00001},
                                                           {oltbEventHead0TxX, 0xFFFFFFFF},
                                                           {oltbEventDac0, 0xFFFFF}};
    for (int i = 0; i < 4; ++i) {
        events[i].Type = raw[i].first;
        events[i].Value = static_cast<int32_t>(raw[i].second);
    }
    ASSERT_EQ(oltbToSignedPosition(events, 4), 0);
    EXPECT_EQ(events[0].Value, -524288);
    EXPECT_EQ(events[1].Value, -1) << "X channels are negated";
    EXPECT_EQ(events[2].Value, 1) << "bits above bit 19 never matter";
    EXPECT_EQ(events[3].Value, 0xFFFFF) << "other types are left alone";
    EXPECT_EQ(oltbToSignedPosition(nullptr, 0), 0);
}

TEST(Connection, ReadTimeoutAndConfigurationRoundTrip) {
    FakeServer server("127.0.0.72");
    const int handle = oltbConnect("127.0.0.72");
    ASSERT_GT(handle, 0) << takeLastError();
    int timeout = 0;
    ASSERT_EQ(oltbGetReadTimeout(handle, &timeout), 0);
    EXPECT_EQ(timeout, 10000);
    ASSERT_EQ(oltbSetReadTimeout(handle, -5), 0);
    ASSERT_EQ(oltbGetReadTimeout(handle, &timeout), 0);
    EXPECT_EQ(timeout, -5) << "stored unchanged";

    server.setReactionOnce(GetConfigCode, Reaction::payload(Bytes(16, 0xFF)));
    oltbTraceBufferConfig_Struct config;
    std::memset(&config, 0x5A, sizeof(config));
    const oltbTraceBufferConfig_Struct before = config;
    EXPECT_EQ(oltbGetConfig(handle, &config), -1);
    EXPECT_EQ(takeLastError(), "Illegal message length");
    EXPECT_EQ(std::memcmp(&config, &before, sizeof(config)), 0) << "a failed call leaves the record alone";

    oltbInitConfig(&config);
    config.Gate = config.Head0TxY = true;
    ASSERT_EQ(oltbSetConfig(handle, &config), 0);
    oltbTraceBufferConfig_Struct readBack;
    ASSERT_EQ(oltbGetConfig(handle, &readBack), 0);
    EXPECT_EQ(std::memcmp(&readBack.PortA, &config.PortA, 63), 0);
    EXPECT_EQ(oltbDisconnect(handle), 0);
    bool connected = true;
    EXPECT_EQ(oltbIsConnected(handle, &connected), 0);
    EXPECT_FALSE(connected);
}

TEST(Connection, AcquiredSeriesIsHandedOutInPortions) {
    FakeServer server("127.0.0.75");
    const int handle = oltbConnect("127.0.0.75");
    ASSERT_GT(handle, 0) << takeLastError();
    std::uint32_t count = 0;
    std::vector<oltbTraceEvent> buffer(110);
    EXPECT_EQ(oltbGetAcquiredElements(handle, buffer.data(), 0, 4, &count), -1);
    EXPECT_EQ(takeLastError(), "No acquired elements available!");
    ASSERT_EQ(oltbStart(handle), 0);
    server.send(concat({makeWord(oltbEventLabel, 100 - 16, 1U << 16), counterWords(1000, 10, 200, 100),
                        makeWord(oltbEventLabel, 5000, 2U << 16), makeWord(oltbEventSpi0Rx, 9000, 99)}));
    ASSERT_EQ(oltbAcquire(handle, 1, 2, &count), 0) << takeLastError();
    ASSERT_EQ(count, 10U);
    ASSERT_EQ(oltbGetAcquiredElements(handle, buffer.data(), 100, 0, &count), 0);
    EXPECT_EQ(count, 0U) << "count 0 copies nothing and keeps the series ready";
    for (std::uint32_t expected : {4U, 8U, 10U}) {
        ASSERT_EQ(oltbGetAcquiredElements(handle, buffer.data(), 100, 4, &count), 0);
        EXPECT_EQ(count, expected) << "the count is the total handed out so far";
    }
    for (std::uint32_t i = 0; i < 10; ++i) {
        EXPECT_EQ(buffer[100 + i].Value, static_cast<std::int32_t>(1000 + i)) << "element " << i << " at 100 + " << i;
        EXPECT_DOUBLE_EQ(buffer[100 + i].Time, (100.0 + 100.0 * i) / 64.0) << "counted from the start label";
    }
    EXPECT_EQ(oltbGetAcquiredElements(handle, buffer.data(), 100, 4, &count), -1);
    EXPECT_EQ(takeLastError(), "No acquired elements available!");

    server.send(concat({makeWord(oltbEventLabel, 6000, 1U << 16), counterWords(2000, 3, 6100, 100),
                        makeWord(oltbEventLabel, 7000, 2U << 16)}));
    ASSERT_EQ(oltbAcquire(handle, 1, 2, &count), 0) << takeLastError();
    ASSERT_EQ(oltbGetAcquiredElements(handle, buffer.data(), 0, 1, &count), 0);  // a series half handed out
    server.send(concat({makeWord(oltbEventLabel, 8000, 2U << 16)}));
    EXPECT_EQ(oltbAcquire(handle, 1, 2, &count), -1);
    EXPECT_EQ(takeLastError(), "Expected start label but got end label!");
    EXPECT_EQ(oltbGetAcquiredElements(handle, buffer.data(), 0, 4, &count), -1) << "a failed acquisition ends the last";
    EXPECT_EQ(takeLastError(), "No acquired elements available!");
    EXPECT_EQ(oltbDisconnect(handle), 0);
}

}  // namespace
