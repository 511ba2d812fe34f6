// The server's choice of traced signals: one 32-bit mask per signal group, bit v standing for event type
// base + v (groups 0, 1, 2, 3 with bases 0, 32, 64, 96). It travels as a 17-byte payload, the version byte first
// and then the masks of groups 0, 1, 3 and 2 (in that order), each little-endian.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace oltb::sim {

constexpr std::uint8_t ConfigurationVersion = 6;
constexpr std::size_t ConfigurationPayloadSize = 17;

class SignalSelection {
public:
    // Bits that stand for a signal; the others are dropped when a selection is taken in.
    static constexpr std::array<std::uint32_t, 4> DefinedBits = {0x07FFFFFF, 0x15151515, 0x000003FF, 0x4B0003FF};

    SignalSelection() = default;

    // The selection of a SetConfig payload (the version byte is not checked).
    static SignalSelection fromPayload(const std::uint8_t* payload) noexcept;
    std::array<std::uint8_t, ConfigurationPayloadSize> toPayload() const noexcept;

    bool isTraced(std::uint32_t type) const noexcept;
    void setTraced(std::uint32_t type, bool traced) noexcept;
    std::uint32_t mask(unsigned group) const noexcept { return _masks[group]; }

    friend bool operator==(const SignalSelection& a, const SignalSelection& b) noexcept { return a._masks == b._masks; }

private:
    std::array<std::uint32_t, 4> _masks{};
};

}  // namespace oltb::sim
