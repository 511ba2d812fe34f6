// The traceable signals and the 17-byte configuration payload, the same in both directions (SetConfig payload,
// GetConfig response):
//   offset 0   version: 6 when sent; the server's version when received
//   offset 1   TraceBufferConf0 mask, 4 bytes little-endian
//   offset 5   TraceBufferConf1 mask
//   offset 9   TraceBufferConf3 mask   (3 before 2: the payload does not follow the group numbering)
//   offset 13  TraceBufferConf2 mask
// Bit v of a group's mask is set when the signal whose member has value v is traced; the signal's events carry
// type v plus the group's base (0, 32, 64, 96). Bits of no member are sent as 0 and ignored when received.
#pragma once

#include "api/oltb.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace OLVEN::TALIX3::TraceBuffer {

// Digital ports, DACs, laser lines (event types 0..26).
enum class TraceBufferConf0 : std::uint32_t {
    PortA = 0,
    PortB = 1,
    PortC = 2,
    PortDLow = 3,
    PortDHigh = 4,
    PortELow = 5,
    PortEHigh = 6,
    PortLaserIn = 7,
    PortLaserIn0 = 8,
    PortLaserIn1 = 9,
    PortLaserOut = 10,
    PortLaserOut0 = 11,
    PortLaserOut1 = 12,
    PortLaserOut2 = 13,
    Dac0 = 14,
    Dac1 = 15,
    LaserPower16 = 16,
    LaserPower8 = 17,
    LaserPower4 = 18,
    LaserPower2 = 19,
    LaserPower1 = 20,
    Fps = 21,
    Gate = 22,
    Lm = 23,
    LaserTriggered = 24,
    StartMark = 25,
    AbortMark = 26,
};

// Scan head positions (event types 32..60): three channels per byte of the mask, at its bits 0, 2 and 4.
enum class TraceBufferConf1 : std::uint32_t {
    Head0TxX = 0,
    Head0TxY = 2,
    Head0TxZ = 4,
    Head0RxX = 8,
    Head0RxY = 10,
    Head0RxZ = 12,
    Head1TxX = 16,
    Head1TxY = 18,
    Head1TxZ = 20,
    Head1RxX = 24,
    Head1RxY = 26,
    Head1RxZ = 28,
};

// Laser power of laser 0 and laser 1 (event types 64..73).
enum class TraceBufferConf2 : std::uint32_t {
    LaserPower0_16 = 0,
    LaserPower0_8 = 1,
    LaserPower0_4 = 2,
    LaserPower0_2 = 3,
    LaserPower0_1 = 4,
    LaserPower1_16 = 5,
    LaserPower1_8 = 6,
    LaserPower1_4 = 7,
    LaserPower1_2 = 8,
    LaserPower1_1 = 9,
};

// SPI receivers, quadrature encoders, event changes, labels (event types 96..126).
enum class TraceBufferConf3 : std::uint32_t {
    Spi0Rx = 0,
    Spi1Rx = 1,
    Spi2Rx = 2,
    Spi3Rx = 3,
    Quadrature0I = 4,
    Quadrature0A = 5,
    Quadrature0B = 6,
    Quadrature1I = 7,
    Quadrature1A = 8,
    Quadrature1B = 9,
    IOEventChange = 24,
    PositionEventChange = 25,
    ControlEventChange = 27,
    Label = 30,
};

// A signal and the flag of the configuration record that chooses it.
template <typename Signal>
struct SignalFlag {
    Signal signal;
    bool oltbTraceBufferConfig_Struct::*field;
};

// One table per group, in the order of the enumeration (and of the record's fields).
inline constexpr std::array<SignalFlag<TraceBufferConf0>, 27> TraceBufferConf0Flags{{
    {TraceBufferConf0::PortA, &oltbTraceBufferConfig_Struct::PortA},
    {TraceBufferConf0::PortB, &oltbTraceBufferConfig_Struct::PortB},
    {TraceBufferConf0::PortC, &oltbTraceBufferConfig_Struct::PortC},
    {TraceBufferConf0::PortDLow, &oltbTraceBufferConfig_Struct::PortDLow},
    {TraceBufferConf0::PortDHigh, &oltbTraceBufferConfig_Struct::PortDHigh},
    {TraceBufferConf0::PortELow, &oltbTraceBufferConfig_Struct::PortELow},
    {TraceBufferConf0::PortEHigh, &oltbTraceBufferConfig_Struct::PortEHigh},
    {TraceBufferConf0::PortLaserIn, &oltbTraceBufferConfig_Struct::PortLaserIn},
    {TraceBufferConf0::PortLaserIn0, &oltbTraceBufferConfig_Struct::PortLaserIn0},
    {TraceBufferConf0::PortLaserIn1, &oltbTraceBufferConfig_Struct::PortLaserIn1},
    {TraceBufferConf0::PortLaserOut, &oltbTraceBufferConfig_Struct::PortLaserOut},
    {TraceBufferConf0::PortLaserOut0, &oltbTraceBufferConfig_Struct::PortLaserOut0},
    {TraceBufferConf0::PortLaserOut1, &oltbTraceBufferConfig_Struct::PortLaserOut1},
    {TraceBufferConf0::PortLaserOut2, &oltbTraceBufferConfig_Struct::PortLaserOut2},
    {TraceBufferConf0::Dac0, &oltbTraceBufferConfig_Struct::Dac0},
    {TraceBufferConf0::Dac1, &oltbTraceBufferConfig_Struct::Dac1},
    {TraceBufferConf0::LaserPower16, &oltbTraceBufferConfig_Struct::LaserPower16},
    {TraceBufferConf0::LaserPower8, &oltbTraceBufferConfig_Struct::LaserPower8},
    {TraceBufferConf0::LaserPower4, &oltbTraceBufferConfig_Struct::LaserPower4},
    {TraceBufferConf0::LaserPower2, &oltbTraceBufferConfig_Struct::LaserPower2},
    {TraceBufferConf0::LaserPower1, &oltbTraceBufferConfig_Struct::LaserPower1},
    {TraceBufferConf0::Fps, &oltbTraceBufferConfig_Struct::Fps},
    {TraceBufferConf0::Gate, &oltbTraceBufferConfig_Struct::Gate},
    {TraceBufferConf0::Lm, &oltbTraceBufferConfig_Struct::Lm},
    {TraceBufferConf0::LaserTriggered, &oltbTraceBufferConfig_Struct::LaserTriggered},
    {TraceBufferConf0::StartMark, &oltbTraceBufferConfig_Struct::StartMark},
    {TraceBufferConf0::AbortMark, &oltbTraceBufferConfig_Struct::AbortMark},
}};

inline constexpr std::array<SignalFlag<TraceBufferConf1>, 12> TraceBufferConf1Flags{{
    {TraceBufferConf1::Head0TxX, &oltbTraceBufferConfig_Struct::Head0TxX},
    {TraceBufferConf1::Head0TxY, &oltbTraceBufferConfig_Struct::Head0TxY},
    {TraceBufferConf1::Head0TxZ, &oltbTraceBufferConfig_Struct::Head0TxZ},
    {TraceBufferConf1::Head0RxX, &oltbTraceBufferConfig_Struct::Head0RxX},
    {TraceBufferConf1::Head0RxY, &oltbTraceBufferConfig_Struct::Head0RxY},
    {TraceBufferConf1::Head0RxZ, &oltbTraceBufferConfig_Struct::Head0RxZ},
    {TraceBufferConf1::Head1TxX, &oltbTraceBufferConfig_Struct::Head1TxX},
    {TraceBufferConf1::Head1TxY, &oltbTraceBufferConfig_Struct::Head1TxY},
    {TraceBufferConf1::Head1TxZ, &oltbTraceBufferConfig_Struct::Head1TxZ},
    {TraceBufferConf1::Head1RxX, &oltbTraceBufferConfig_Struct::Head1RxX},
    {TraceBufferConf1::Head1RxY, &oltbTraceBufferConfig_Struct::Head1RxY},
    {TraceBufferConf1::Head1RxZ, &oltbTraceBufferConfig_Struct::Head1RxZ},
}};

inline constexpr std::array<SignalFlag<TraceBufferConf2>, 10> TraceBufferConf2Flags{{
    {TraceBufferConf2::LaserPower0_16, &oltbTraceBufferConfig_Struct::LaserPower0_16},
    {TraceBufferConf2::LaserPower0_8, &oltbTraceBufferConfig_Struct::LaserPower0_8},
    {TraceBufferConf2::LaserPower0_4, &oltbTraceBufferConfig_Struct::LaserPower0_4},
    {TraceBufferConf2::LaserPower0_2, &oltbTraceBufferConfig_Struct::LaserPower0_2},
    {TraceBufferConf2::LaserPower0_1, &oltbTraceBufferConfig_Struct::LaserPower0_1},
    {TraceBufferConf2::LaserPower1_16, &oltbTraceBufferConfig_Struct::LaserPower1_16},
    {TraceBufferConf2::LaserPower1_8, &oltbTraceBufferConfig_Struct::LaserPower1_8},
    {TraceBufferConf2::LaserPower1_4, &oltbTraceBufferConfig_Struct::LaserPower1_4},
    {TraceBufferConf2::LaserPower1_2, &oltbTraceBufferConfig_Struct::LaserPower1_2},
    {TraceBufferConf2::LaserPower1_1, &oltbTraceBufferConfig_Struct::LaserPower1_1},
}};

inline constexpr std::array<SignalFlag<TraceBufferConf3>, 14> TraceBufferConf3Flags{{
    {TraceBufferConf3::Spi0Rx, &oltbTraceBufferConfig_Struct::Spi0Rx},
    {TraceBufferConf3::Spi1Rx, &oltbTraceBufferConfig_Struct::Spi1Rx},
    {TraceBufferConf3::Spi2Rx, &oltbTraceBufferConfig_Struct::Spi2Rx},
    {TraceBufferConf3::Spi3Rx, &oltbTraceBufferConfig_Struct::Spi3Rx},
    {TraceBufferConf3::Quadrature0I, &oltbTraceBufferConfig_Struct::Quadrature0I},
    {TraceBufferConf3::Quadrature0A, &oltbTraceBufferConfig_Struct::Quadrature0A},
    {TraceBufferConf3::Quadrature0B, &oltbTraceBufferConfig_Struct::Quadrature0B},
    {TraceBufferConf3::Quadrature1I, &oltbTraceBufferConfig_Struct::Quadrature1I},
    {TraceBufferConf3::Quadrature1A, &oltbTraceBufferConfig_Struct::Quadrature1A},
    {TraceBufferConf3::Quadrature1B, &oltbTraceBufferConfig_Struct::Quadrature1B},
    {TraceBufferConf3::IOEventChange, &oltbTraceBufferConfig_Struct::IOEventChange},
    {TraceBufferConf3::PositionEventChange, &oltbTraceBufferConfig_Struct::PositionEventChange},
    {TraceBufferConf3::ControlEventChange, &oltbTraceBufferConfig_Struct::ControlEventChange},
    {TraceBufferConf3::Label, &oltbTraceBufferConfig_Struct::Label},
}};

// The members of a group in table order.
template <typename Signal, std::size_t N>
constexpr std::array<Signal, N> signalsOf(const std::array<SignalFlag<Signal>, N>& flags) {
    std::array<Signal, N> signals{};
    for (std::size_t i = 0; i < N; ++i) {
        signals[i] = flags[i].signal;
    }
    return signals;
}

inline constexpr auto TraceBufferConf0Members = signalsOf(TraceBufferConf0Flags);
inline constexpr auto TraceBufferConf1Members = signalsOf(TraceBufferConf1Flags);
inline constexpr auto TraceBufferConf2Members = signalsOf(TraceBufferConf2Flags);
inline constexpr auto TraceBufferConf3Members = signalsOf(TraceBufferConf3Flags);

inline constexpr std::size_t ConfigPayloadSize = 17;
// Byte 0 of every configuration the client sends, whatever the record's Version holds.
inline constexpr std::uint8_t SentConfigVersion = 6;

// The payload for `config`; its Version is not read.
std::array<std::byte, ConfigPayloadSize> encodeConfigPayload(const oltbTraceBufferConfig_Struct& config) noexcept;

// The record described by a GetConfig response: every field written, bytes from offset 17 on ignored.
// Throws "Illegal message length" for fewer than 17 bytes.
oltbTraceBufferConfig_Struct decodeConfigPayload(const std::vector<std::byte>& payload);

}  // namespace OLVEN::TALIX3::TraceBuffer
