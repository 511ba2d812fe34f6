// The 17-byte configuration payload and the masks behind it.
#include "tools/oltb-sim/SignalSelection.h"

namespace oltb::sim {
namespace {

// Offset of each group's mask in the payload: group 3 comes before group 2 on the wire.
constexpr std::array<std::size_t, 4> MaskOffset = {1, 5, 13, 9};

std::uint32_t readLittleEndian32(const std::uint8_t* bytes) noexcept {
    return std::uint32_t{bytes[0]} | (std::uint32_t{bytes[1]} << 8) | (std::uint32_t{bytes[2]} << 16) |
           (std::uint32_t{bytes[3]} << 24);
}

}  // namespace

SignalSelection SignalSelection::fromPayload(const std::uint8_t* const payload) noexcept {
    SignalSelection selection;
    for (unsigned group = 0; group < 4; ++group) {
        selection._masks[group] = readLittleEndian32(payload + MaskOffset[group]) & DefinedBits[group];
    }
    return selection;
}

std::array<std::uint8_t, ConfigurationPayloadSize> SignalSelection::toPayload() const noexcept {
    std::array<std::uint8_t, ConfigurationPayloadSize> payload{};
    payload[0] = ConfigurationVersion;
    for (unsigned group = 0; group < 4; ++group) {
        for (unsigned byte = 0; byte < 4; ++byte) {
            payload[MaskOffset[group] + byte] = static_cast<std::uint8_t>(_masks[group] >> (8 * byte));
        }
    }
    return payload;
}

bool SignalSelection::isTraced(const std::uint32_t type) const noexcept {
    return type < 128 && ((_masks[type / 32] >> (type % 32)) & 1U) != 0;
}

void SignalSelection::setTraced(const std::uint32_t type, const bool traced) noexcept {
    if (type >= 128) {
        return;
    }
    const std::uint32_t bit = (std::uint32_t{1} << (type % 32)) & DefinedBits[type / 32];
    _masks[type / 32] = traced ? (_masks[type / 32] | bit) : (_masks[type / 32] & ~bit);
}

}  // namespace oltb::sim
