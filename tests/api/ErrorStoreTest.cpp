// The per-thread error store and the exported functions that need no connection: the hand-out rules of
// oltbGetLastError, per-thread isolation, the frame's handle checks, configuration records and positions.
#include "api/TraceBufferErrorHandler.h"
#include "api/oltb.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>

namespace {

using OLVEN::TALIX3::TraceBuffer::TraceBufferErrorHandler;

std::string takeLastError(int bufferSize = 256) {
    std::string buffer(static_cast<std::size_t>(bufferSize), '#');
    oltbGetLastError(buffer.data(), bufferSize);
    return std::string(buffer.c_str());
}

void storeText(const char* text) {
    TraceBufferErrorHandler::getThreadLocalInstance().InsertError(text);
}

TEST(ErrorStore, NewThreadHasNoError) {
    std::thread([] {
        EXPECT_EQ(oltbGetLastErrorLen(), 0);
        char buffer[10];
        std::memset(buffer, 'x', sizeof(buffer));
        oltbGetLastError(buffer, 10);
        EXPECT_STREQ(buffer, "");
    }).join();
}

TEST(ErrorStore, LengthIsTextPlusTwoAndTextIsHandedOutOnce) {
    ASSERT_EQ(oltbStart(-1), -1);
    EXPECT_EQ(oltbGetLastErrorLen(), 17);
    EXPECT_EQ(oltbGetLastErrorLen(), 17) << "asking for the length does not consume the text";
    EXPECT_EQ(takeLastError(16), "Illegal handle.") << "an exact fit: 15 characters and the zero";
    EXPECT_EQ(oltbGetLastErrorLen(), 0);
    EXPECT_EQ(takeLastError(), "");
}

TEST(ErrorStore, BufferTooSmallLosesTheText) {
    struct Case {
        int bufferSize;
        const char* expected;
    };
    const std::string fortyCharacters(40, 'e');
    for (const Case& c : {Case{15, ""}, Case{22, ""}, Case{23, "Error buffer too small"},
                          Case{40, "Error buffer too small"}, Case{41, fortyCharacters.c_str()}}) {
        SCOPED_TRACE(c.bufferSize);
        storeText(fortyCharacters.c_str());
        EXPECT_EQ(takeLastError(c.bufferSize), c.expected);
        EXPECT_EQ(oltbGetLastErrorLen(), 0);
    }
}

TEST(ErrorStore, NonPositiveSizeTouchesNothing) {
    for (int size : {0, -1, -1000}) {
        ASSERT_EQ(oltbStart(-1), -1);
        char buffer[4] = {'a', 'b', 'c', '\0'};
        oltbGetLastError(buffer, size);
        EXPECT_STREQ(buffer, "abc");
        EXPECT_EQ(oltbGetLastErrorLen(), 17);
    }
    oltbGetLastError(nullptr, 0);
    EXPECT_EQ(takeLastError(), "Illegal handle.");
}

TEST(ErrorStore, EveryCallStartsWithAnEmptyStore) {
    ASSERT_EQ(oltbStart(-1), -1);
    EXPECT_EQ(oltbToSignedPositionVal(1), 1);
    EXPECT_EQ(oltbGetLastErrorLen(), 0) << "a successful call leaves no text behind";
}

TEST(ErrorStore, ThreadsDoNotSeeEachOthersErrors) {
    ASSERT_EQ(oltbStart(-1), -1);
    std::thread([] {
        EXPECT_EQ(oltbGetLastErrorLen(), 0);
        ASSERT_EQ(oltbStart(123456), -1);
        EXPECT_EQ(takeLastError(), "Illegal handle!");
    }).join();
    EXPECT_EQ(takeLastError(), "Illegal handle.");
}

TEST(HandleChecks, EveryFunctionReportsIllegalHandles) {
    oltbTraceEvent events[4];
    oltbTraceBufferConfig_Struct config;
    uint32_t count = 0;
    int timeout = 0;
    const struct {
        const char* name;
        int (*call)(int, oltbTraceEvent*, oltbTraceBufferConfig_Struct*, uint32_t*, int*);
    } functions[] = {
        {"Start", [](int h, oltbTraceEvent*, oltbTraceBufferConfig_Struct*, uint32_t*, int*) { return oltbStart(h); }},
        {"Stop", [](int h, oltbTraceEvent*, oltbTraceBufferConfig_Struct*, uint32_t*, int*) { return oltbStop(h); }},
        {"Clear", [](int h, oltbTraceEvent*, oltbTraceBufferConfig_Struct*, uint32_t*, int*) { return oltbClear(h); }},
        {"GetConfig", [](int h, oltbTraceEvent*, oltbTraceBufferConfig_Struct* c, uint32_t*, int*) { return oltbGetConfig(h, c); }},
        {"SetConfig", [](int h, oltbTraceEvent*, oltbTraceBufferConfig_Struct* c, uint32_t*, int*) { return oltbSetConfig(h, c); }},
        {"GetReadTimeout", [](int h, oltbTraceEvent*, oltbTraceBufferConfig_Struct*, uint32_t*, int* t) { return oltbGetReadTimeout(h, t); }},
        {"SetReadTimeout", [](int h, oltbTraceEvent*, oltbTraceBufferConfig_Struct*, uint32_t*, int*) { return oltbSetReadTimeout(h, 5); }},
        {"TryRead", [](int h, oltbTraceEvent* e, oltbTraceBufferConfig_Struct*, uint32_t* n, int*) { return oltbTryRead(h, e, 0, 4, n); }},
        {"Read", [](int h, oltbTraceEvent* e, oltbTraceBufferConfig_Struct*, uint32_t* n, int*) { return oltbRead(h, e, 0, 4, n); }},
        {"Acquire", [](int h, oltbTraceEvent*, oltbTraceBufferConfig_Struct*, uint32_t* n, int*) { return oltbAcquire(h, 1, 2, n); }},
        {"GetAcquiredElements", [](int h, oltbTraceEvent* e, oltbTraceBufferConfig_Struct*, uint32_t* n, int*) { return oltbGetAcquiredElements(h, e, 0, 4, n); }},
    };
    for (const auto& function : functions) {
        SCOPED_TRACE(function.name);
        count = 77;
        timeout = 77;
        EXPECT_EQ(function.call(-1, events, &config, &count, &timeout), -1);
        EXPECT_EQ(takeLastError(), "Illegal handle.");
        EXPECT_EQ(function.call(987654, events, &config, &count, &timeout), -1);
        EXPECT_EQ(takeLastError(), "Illegal handle!");
        EXPECT_EQ(count, 77u) << "a failing call leaves its out-parameters untouched";
        EXPECT_EQ(timeout, 77);
    }
}

TEST(HandleChecks, NullOutParametersAreRejectedBeforeTheHandle) {
    EXPECT_EQ(oltbIsConnected(-1, nullptr), -1);
    EXPECT_EQ(takeLastError(), "Out parameter is a null pointer!");
    EXPECT_EQ(oltbGetReadTimeout(-1, nullptr), -1);
    EXPECT_EQ(takeLastError(), "Out parameter is a null pointer!");
    EXPECT_EQ(oltbGetConfig(987654, nullptr), -1);
    EXPECT_EQ(takeLastError(), "Out parameter is a null pointer!");
    EXPECT_EQ(oltbAcquire(987654, 1, 2, nullptr), -1);
    EXPECT_EQ(takeLastError(), "Out parameter is a null pointer!");
}

TEST(HandleChecks, DisconnectAndIsConnectedOfUnknownHandles) {
    EXPECT_EQ(oltbDisconnect(5), 0);
    EXPECT_EQ(oltbGetLastErrorLen(), 0);
    EXPECT_EQ(oltbDisconnect(-1), -1);
    EXPECT_EQ(takeLastError(), "Illegal handle.");
    for (int handle : {-3, 99}) {
        bool connected = true;
        EXPECT_EQ(oltbIsConnected(handle, &connected), 0);
        EXPECT_FALSE(connected);
        EXPECT_EQ(oltbGetLastErrorLen(), 0);
    }
}

TEST(HandleChecks, NullAddressLeavesTheLibraryText) {
    EXPECT_EQ(oltbConnect(nullptr), -1);
    EXPECT_EQ(takeLastError(), "basic_string::_M_construct null not valid");
}

TEST(ConfigRecord, InitClearsEveryFlagAndSetsVersionSix) {
    oltbTraceBufferConfig_Struct config;
    std::memset(&config, 0xFF, sizeof(config));
    ASSERT_EQ(oltbStart(-1), -1);
    EXPECT_EQ(oltbInitConfig(&config), 0);
    EXPECT_EQ(oltbGetLastErrorLen(), 0);
    EXPECT_EQ(config.Version, 6u);
    const auto* flags = reinterpret_cast<const unsigned char*>(&config.PortA);
    const auto* end = reinterpret_cast<const unsigned char*>(&config) + sizeof(config);
    for (const unsigned char* flag = flags; flag < end; ++flag) {
        EXPECT_EQ(*flag, 0) << "byte " << (flag - flags);
    }
    EXPECT_EQ(oltbInitConfig(nullptr), -1);
    EXPECT_EQ(takeLastError(), "Out parameter is a null pointer!");
}

TEST(Positions, SingleValuesAreSignExtendedFromTwentyBits) {
    const struct {
        uint32_t raw;
        int32_t expected;
    } cases[] = {{0, 0},           {0x7FFFF, 524287},       {0x80000, -524288}, {0xFFFFF, -1},
                 {0xFFF80000, -524288}, {0x00100000, 0}, {0x12345678, 0x45678}};
    for (const auto& c : cases) {
        EXPECT_EQ(oltbToSignedPositionVal(c.raw), c.expected) << std::hex << c.raw;
    }
}

TEST(Positions, ArrayConversionNegatesXChannelsOnly) {
    oltbTraceEvent events[4] = {};
    events[0].Type = oltbEventHead0TxY;
    events[0].Value = 0x80000;
    events[1].Type = oltbEventHead1RxX;
    events[1].Value = 0x00001;
    events[2].Type = oltbEventHead0TxX;
    events[2].Value = static_cast<int32_t>(0xFFFFFFFFu);
    events[3].Type = oltbEventDac0;
    events[3].Value = 0xFFFFF;
    ASSERT_EQ(oltbToSignedPosition(events, 4), 0);
    EXPECT_EQ(events[0].Value, -524288);
    EXPECT_EQ(events[1].Value, -1);
    EXPECT_EQ(events[2].Value, 1) << "bits above bit 19 never matter";
    EXPECT_EQ(events[3].Value, 0xFFFFF);

    EXPECT_EQ(oltbToSignedPosition(nullptr, 0), 0);
    EXPECT_EQ(oltbToSignedPosition(nullptr, 3), -1);
    EXPECT_EQ(takeLastError(), "Out parameter is a null pointer!");
}

}  // namespace
