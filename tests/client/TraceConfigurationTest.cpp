// The 17-byte configuration payload: which flag travels in which bit, the swapped order of the last two masks,
// and what a received payload may hold beyond the signals.
#include "client/ClientMessages.h"
#include "client/TraceConfiguration.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <vector>

namespace OLVEN::TALIX3::TraceBuffer {
namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes bytesOf(const std::array<std::byte, ConfigPayloadSize>& payload) {
    Bytes bytes;
    for (std::byte b : payload) {
        bytes.push_back(std::to_integer<std::uint8_t>(b));
    }
    return bytes;
}

std::vector<std::byte> payloadOf(const Bytes& bytes) {
    std::vector<std::byte> payload;
    for (std::uint8_t b : bytes) {
        payload.push_back(std::byte{b});
    }
    return payload;
}

oltbTraceBufferConfig_Struct freshConfig() {
    oltbTraceBufferConfig_Struct config{};
    config.Version = 6;
    return config;
}

// The 63 signal flags of the record, in field order, reached through the record's bytes: one byte each, without
// gaps from PortA to Label.
constexpr std::size_t FlagCount = 63;
static_assert(offsetof(oltbTraceBufferConfig_Struct, Label) - offsetof(oltbTraceBufferConfig_Struct, PortA) ==
              FlagCount - 1);
static_assert(sizeof(bool) == 1);

bool flagOf(const oltbTraceBufferConfig_Struct& config, std::size_t index) {
    return reinterpret_cast<const unsigned char*>(&config)[offsetof(oltbTraceBufferConfig_Struct, PortA) + index] != 0;
}

void setFlag(oltbTraceBufferConfig_Struct& config, std::size_t index) {
    reinterpret_cast<unsigned char*>(&config)[offsetof(oltbTraceBufferConfig_Struct, PortA) + index] = 1;
}

void expectSameRecord(const oltbTraceBufferConfig_Struct& actual, const oltbTraceBufferConfig_Struct& expected) {
    EXPECT_EQ(actual.Version, expected.Version);
    for (std::size_t i = 0; i < FlagCount; ++i) {
        EXPECT_EQ(flagOf(actual, i), flagOf(expected, i)) << "flag " << i;
    }
}

TEST(ConfigPayload, FreshRecordIsVersionSixAndNoSignal) {
    Bytes expected(17, 0);
    expected[0] = 6;
    EXPECT_EQ(bytesOf(encodeConfigPayload(freshConfig())), expected);
}

TEST(ConfigPayload, EveryFlagSet) {
    oltbTraceBufferConfig_Struct config{};  // Version 0: byte 0 is 6 all the same
    for (std::size_t i = 0; i < FlagCount; ++i) {
        setFlag(config, i);
    }
    const Bytes expected{0x06, 0xFF, 0xFF, 0xFF, 0x07, 0x15, 0x15, 0x15, 0x15,
                         0xFF, 0x03, 0x00, 0x4B, 0xFF, 0x03, 0x00, 0x00};
    EXPECT_EQ(bytesOf(encodeConfigPayload(config)), expected);

    config.Version = 6;
    expectSameRecord(decodeConfigPayload(payloadOf(expected)), config);
}

TEST(ConfigPayload, SingleFlagExamples) {
    oltbTraceBufferConfig_Struct firsts = freshConfig();
    firsts.PortA = firsts.Head0TxX = firsts.LaserPower0_16 = firsts.Spi0Rx = true;
    EXPECT_EQ(bytesOf(encodeConfigPayload(firsts)),
              (Bytes{0x06, 0x01, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00,
                     0x01, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00}));

    struct Case {
        bool oltbTraceBufferConfig_Struct::*field;
        std::size_t offset;
        Bytes mask;
    };
    const Case cases[] = {
        {&oltbTraceBufferConfig_Struct::Head0TxY, 5, {0x04, 0x00, 0x00, 0x00}},
        {&oltbTraceBufferConfig_Struct::AbortMark, 1, {0x00, 0x00, 0x00, 0x04}},
        {&oltbTraceBufferConfig_Struct::Label, 9, {0x00, 0x00, 0x00, 0x40}},
        {&oltbTraceBufferConfig_Struct::LaserPower1_1, 13, {0x00, 0x02, 0x00, 0x00}},
    };
    for (const Case& c : cases) {
        oltbTraceBufferConfig_Struct config = freshConfig();
        config.*c.field = true;
        Bytes expected(17, 0);
        expected[0] = 6;
        std::copy(c.mask.begin(), c.mask.end(), expected.begin() + static_cast<std::ptrdiff_t>(c.offset));
        EXPECT_EQ(bytesOf(encodeConfigPayload(config)), expected) << "mask at offset " << c.offset;
    }
}

// Each flag alone sets exactly its own bit, and that bit alone decodes to exactly that flag. The bits are those
// of the signal tables; the masks travel in the order Conf0, Conf1, Conf3, Conf2.
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
    for (const Group& group : groups) {
        for (std::size_t k = 0; k < group.bits.size(); ++k) {
            const std::size_t flag = group.firstFlag + k;
            oltbTraceBufferConfig_Struct config = freshConfig();
            setFlag(config, flag);

            Bytes expected(17, 0);
            expected[0] = 6;
            const std::uint32_t mask = 1U << group.bits[k];
            for (unsigned i = 0; i < 4; ++i) {
                expected[group.offset + i] = static_cast<std::uint8_t>(mask >> (8 * i));
            }
            EXPECT_EQ(bytesOf(encodeConfigPayload(config)), expected) << "flag " << flag;
            expectSameRecord(decodeConfigPayload(payloadOf(expected)), config);
        }
    }
}

TEST(ConfigPayload, ReceivedBitsOfNoSignalAreIgnored) {
    const oltbTraceBufferConfig_Struct everySignal =
        decodeConfigPayload(payloadOf({0x06, 0xFF, 0xFF, 0xFF, 0x07, 0x15, 0x15, 0x15, 0x15,
                                       0xFF, 0x03, 0x00, 0x4B, 0xFF, 0x03, 0x00, 0x00}));
    // Odd Conf1 bits and every unused bit of the other masks set as well.
    const Bytes allOnes{0x06, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                        0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    expectSameRecord(decodeConfigPayload(payloadOf(allOnes)), everySignal);

    const Bytes oddConf1Bits{0x06, 0x00, 0x00, 0x00, 0x00, 0xAA, 0xAA, 0xAA, 0xAA,
                             0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};
    expectSameRecord(decodeConfigPayload(payloadOf(oddConf1Bits)), freshConfig());
}

TEST(ConfigPayload, ReceivedLengthAndVersion) {
    Bytes payload(17, 0);
    payload[0] = 200;
    payload[1] = 0x01;
    oltbTraceBufferConfig_Struct expected{};
    expected.Version = 200;
    expected.PortA = true;
    expectSameRecord(decodeConfigPayload(payloadOf(payload)), expected);

    payload.push_back(0xFF);  // bytes from offset 17 on are not looked at
    expectSameRecord(decodeConfigPayload(payloadOf(payload)), expected);

    for (const std::size_t size : {16U, 1U, 0U}) {
        try {
            (void)decodeConfigPayload(payloadOf(Bytes(size, 0xFF)));
            ADD_FAILURE() << size << " bytes decoded";
        } catch (const std::runtime_error& e) {
            EXPECT_STREQ(e.what(), "Illegal message length");
        }
    }
}

}  // namespace
}  // namespace OLVEN::TALIX3::TraceBuffer
