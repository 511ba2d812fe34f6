// Signed positions: scan-head channels carry positions as raw 20-bit two's-complement numbers in the low bits
// of Value. The conversion sign-extends them and negates the X channels of both heads; all other event types
// pass unchanged.
#include "events/TraceDecoder.h"

namespace OLVEN::TALIX3::TraceBuffer {

namespace {

constexpr std::uint32_t PositionSignBit = 0x80000;
constexpr std::uint32_t PositionMagnitudeMask = 0x7FFFF;
constexpr std::uint32_t PositionSignExtension = 0xFFF80000;

}  // namespace

std::int32_t TraceDecoder::toSignedPositionValue(std::uint32_t value) noexcept {
    const std::uint32_t extended =
        (value & PositionSignBit) != 0 ? (value | PositionSignExtension) : (value & PositionMagnitudeMask);
    return static_cast<std::int32_t>(extended);
}

void TraceDecoder::ToSignedPosition(oltbTraceEvent* events, unsigned int count) noexcept {
    for (unsigned int index = 0; index < count; ++index) {
        oltbTraceEvent& event = events[index];
        switch (event.Type) {
            case oltbEventHead0TxY:
            case oltbEventHead0TxZ:
            case oltbEventHead0RxY:
            case oltbEventHead0RxZ:
            case oltbEventHead1TxY:
            case oltbEventHead1TxZ:
            case oltbEventHead1RxY:
            case oltbEventHead1RxZ:
                event.Value = toSignedPositionValue(static_cast<std::uint32_t>(event.Value));
                break;
            case oltbEventHead0TxX:
            case oltbEventHead0RxX:
            case oltbEventHead1TxX:
            case oltbEventHead1RxX:
                event.Value = -toSignedPositionValue(static_cast<std::uint32_t>(event.Value));
                break;
            default:
                break;
        }
    }
}

}  // namespace OLVEN::TALIX3::TraceBuffer
