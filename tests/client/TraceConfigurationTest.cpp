// The 17-byte configuration payload: each flag travels in its own bit, the last two masks in swapped order, and
// byte 0 is always version 6. (Lengths, versions and bits of no signal in received payloads: the fuzz target.)
#include "client/TraceConfiguration.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <vector>

namespace OLVEN::TALIX3::TraceBuffer {
namespace {

using Bytes = std::vector<std::uint8_t>;

// The 63 signal flags of the record lie one byte each, without gaps, from PortA to Label.
unsigned char& flag(oltbTraceBufferConfig_Struct& config, std::size_t index) {
    return reinterpret_cast<unsigned char*>(&config)[offsetof(oltbTraceBufferConfig_Struct, PortA) + index];
}

TEST(ConfigPayload, EachFlagTravelsInItsOwnBit) {
    struct Group {
        std::size_t firstFlag;
        std::size_t offset;
        std::vector<unsigned> bits;
    };
    const Group groups[] = {
        {0, 1, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26}},
        {27, 5, {0, 2, 4, 8, 10, 12, 16, 18, 20, 24, 26, 28}},
        {39, 13, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9}},
        {49, 9, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 24, 25, 27, 30}},
    };
    oltbTraceBufferConfig_Struct all{};
    for (const Group& group : groups) {
        for (std::size_t k = 0; k < group.bits.size(); ++k) {
            oltbTraceBufferConfig_Struct config{};
            config.Version = 6;
            flag(config, group.firstFlag + k) = 1;
            flag(all, group.firstFlag + k) = 1;
            Bytes expected(17, 0);
            expected[0] = 6;
            for (unsigned i = 0; i < 4; ++i)
                expected[group.offset + i] = static_cast<std::uint8_t>((1U << group.bits[k]) >> (8 * i));
            const auto encoded = encodeConfigPayload(config);
            EXPECT_EQ(Bytes(reinterpret_cast<const std::uint8_t*>(encoded.data()),
                            reinterpret_cast<const std::uint8_t*>(encoded.data()) + encoded.size()),
                      expected)
                << "flag " << group.firstFlag + k;
            const oltbTraceBufferConfig_Struct decoded = decodeConfigPayload({encoded.begin(), encoded.end()});
            EXPECT_EQ(decoded.Version, 6U);
            EXPECT_EQ(std::memcmp(&decoded.PortA, &config.PortA, 63), 0) << "flag " << group.firstFlag + k;
        }
    }
    const auto encoded = encodeConfigPayload(all);  // Version 0 in the record
    EXPECT_EQ(
        Bytes(reinterpret_cast<const std::uint8_t*>(encoded.data()),
              reinterpret_cast<const std::uint8_t*>(encoded.data()) + encoded.size()),
        (Bytes{0x06, 0xFF, 0xFF, 0xFF, 0x07, 0x15, 0x15, 0x15, 0x15, 0xFF, 0x03, 0x00, 0x4B, 0xFF, 0x03, 0x00, 0x00}));
}

}  // namespace
}  // namespace OLVEN::TALIX3::TraceBuffer
