// The 17-byte configuration payload: which flag travels in which bit, the swapped order of the last two masks,
// and what a received payload may hold beyond the signals.
#include "client/ClientMessages.h"
#include "client/TraceConfiguration.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <vector>

namespace OLVEN::TALIX3::TraceBuffer {
namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes bytesOf(const std::array<std::byte, ConfigPayloadSize>& payload) {
    Bytes bytes;
    for (std::byte b : payload) bytes.push_back(std::to_integer<std::uint8_t>(b));
    return bytes;
}

std::vector<std::byte> payloadOf(const Bytes& bytes) {
    std::vector<std::byte> payload;
    for (std::uint8_t b : bytes) payload.push_back(std::byte{b});
    return payload;
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
    for (std::size_t i = 0; i < FlagCount; ++i) EXPECT_EQ(flagOf(actual, i), flagOf(expected, i)) << "flag " << i;
}

const Bytes EverySignal{0x06, 0xFF, 0xFF, 0xFF, 0x07, 0x15, 0x15, 0x15, 0x15,
                        0xFF, 0x03, 0x00, 0x4B, 0xFF, 0x03, 0x00, 0x00};

// Each flag alone sets exactly its own bit, and that bit alone decodes to exactly that flag; all flags together
// give every signal bit. The bits are those of the signal tables; the masks travel in the order Conf0, Conf1,
// Conf3, Conf2. Byte 0 is always version 6, whatever the record holds.
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
            const std::size_t flag = group.firstFlag + k;
            oltbTraceBufferConfig_Struct config{};
            config.Version = 6;
            setFlag(config, flag);
            setFlag(all, flag);

            Bytes expected(17, 0);
            expected[0] = 6;
            const std::uint32_t mask = 1U << group.bits[k];
            for (unsigned i = 0; i < 4; ++i) expected[group.offset + i] = static_cast<std::uint8_t>(mask >> (8 * i));
            EXPECT_EQ(bytesOf(encodeConfigPayload(config)), expected) << "flag " << flag;
            expectSameRecord(decodeConfigPayload(payloadOf(expected)), config);
        }
    }
    EXPECT_EQ(bytesOf(encodeConfigPayload(all)), EverySignal);  // Version 0 in the record
}

TEST(ConfigPayload, ReceivedBitsOfNoSignalAreIgnored) {
    const oltbTraceBufferConfig_Struct everySignal = decodeConfigPayload(payloadOf(EverySignal));
    // Odd Conf1 bits and every unused bit of the other masks set as well.
    Bytes allOnes(17, 0xFF);
    allOnes[0] = 6;
    expectSameRecord(decodeConfigPayload(payloadOf(allOnes)), everySignal);

    Bytes oddConf1Bits(17, 0);
    oddConf1Bits[0] = 6;
    for (std::size_t i = 5; i < 9; ++i) oddConf1Bits[i] = 0xAA;
    oltbTraceBufferConfig_Struct none{};
    none.Version = 6;
    expectSameRecord(decodeConfigPayload(payloadOf(oddConf1Bits)), none);
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
