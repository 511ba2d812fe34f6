// Signed positions: the 20-bit sign extension of a raw head value.
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

}  // namespace
}  // namespace OLVEN::TALIX3::TraceBuffer
