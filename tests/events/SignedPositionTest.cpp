// Signed positions: 20-bit sign extension, negated X channels, everything else untouched.
#include "events/TraceDecoder.h"

#include <gtest/gtest.h>

namespace OLVEN::TALIX3::TraceBuffer {
namespace {

TEST(SignedPosition, ValueIsTheSignExtensionOfTheLow20Bits) {
    const std::pair<std::uint32_t, std::int32_t> cases[] = {
        {0, 0},        {0x7FFFF, 524287},      {0x80000, -524288}, {0xFFFFF, -1},
        {0x100000, 0}, {0xFFF80000, -524288}, {0x12345678, 0x45678}, {0xFFFFFFFF, -1}};
    for (const auto& [raw, expected] : cases) EXPECT_EQ(TraceDecoder::toSignedPositionValue(raw), expected) << raw;
}

TEST(SignedPosition, ArrayConvertsHeadChannelsAndNegatesX) {
    const oltbTraceEventType extended[] = {oltbEventHead0TxY, oltbEventHead0TxZ, oltbEventHead0RxY, oltbEventHead0RxZ,
                                           oltbEventHead1TxY, oltbEventHead1TxZ, oltbEventHead1RxY, oltbEventHead1RxZ};
    const oltbTraceEventType negated[] = {oltbEventHead0TxX, oltbEventHead0RxX, oltbEventHead1TxX, oltbEventHead1RxX};
    const oltbTraceEventType untouched[] = {oltbEventDac0, oltbEventSpi0Rx, oltbEventLabel, oltbEventPortA,
                                            static_cast<oltbTraceEventType>(33)};
    const std::pair<std::int32_t, std::int32_t> values[] = {
        {0x80000, -524288}, {0x00001, 1}, {0xFFFFF, -1}, {static_cast<std::int32_t>(0xABC7FFFF), 524287}};
    for (const auto& [raw, signedValue] : values) {
        std::vector<oltbTraceEvent> events;
        for (auto type : extended) events.push_back({0, 0.0, type, false, raw});
        for (auto type : negated) events.push_back({0, 0.0, type, false, raw});
        for (auto type : untouched) events.push_back({0, 0.0, type, false, raw});
        TraceDecoder::ToSignedPosition(events.data(), static_cast<unsigned>(events.size()));
        std::size_t i = 0;
        for (auto type : extended) EXPECT_EQ(events[i++].Value, signedValue) << type;
        for (auto type : negated) EXPECT_EQ(events[i++].Value, -signedValue) << type;
        for (auto type : untouched) EXPECT_EQ(events[i++].Value, raw) << type;
    }
    TraceDecoder::ToSignedPosition(nullptr, 0);
}

}  // namespace
}  // namespace OLVEN::TALIX3::TraceBuffer
