// Fuzz target: a GetConfig response payload of any length and content, decoded into the configuration record and
// encoded back. Under 17 bytes decoding must fail with "Illegal message length"; otherwise the record takes the
// version from byte 0 and exactly the defined bits of the four masks, which the encoded payload carries again.
#include "fuzz/FuzzCheck.h"

#include "client/TraceConfiguration.h"

#include <cstddef>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace OLVEN::TALIX3::TraceBuffer;

// The bits that name a signal, per mask as it sits in the payload (offsets 1, 5, 9, 13: groups 0, 1, 3, 2).
struct MaskInPayload {
    std::size_t offset;
    std::uint32_t definedBits;
};
constexpr MaskInPayload Masks[] = {
    {1, 0x07FFFFFFU},   // PortA .. AbortMark, bits 0..26
    {5, 0x15151515U},   // head channels at bits 0, 2, 4 of every byte
    {9, 0x4B0003FFU},   // Spi0Rx .. Quadrature1B, IOEventChange 24, PositionEventChange 25, ControlEventChange 27,
                        // Label 30
    {13, 0x000003FFU},  // LaserPower0_16 .. LaserPower1_1
};

std::uint32_t maskAt(const std::byte* payload, std::size_t offset) {
    std::uint32_t mask = 0;
    for (unsigned i = 0; i < 4; ++i) mask |= std::to_integer<std::uint32_t>(payload[offset + i]) << (8 * i);
    return mask;
}

// The signal flags of the record as raw bytes, from PortA to Label.
const unsigned char* flagBytes(const oltbTraceBufferConfig_Struct& config) {
    return reinterpret_cast<const unsigned char*>(&config.PortA);
}
constexpr std::size_t FlagCount =
    offsetof(oltbTraceBufferConfig_Struct, Label) + sizeof(bool) - offsetof(oltbTraceBufferConfig_Struct, PortA);

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto* bytes = reinterpret_cast<const std::byte*>(data);
    const std::vector<std::byte> response(bytes, bytes + size);

    oltbTraceBufferConfig_Struct config;
    try {
        config = decodeConfigPayload(response);
    } catch (const std::runtime_error& error) {
        FUZZ_CHECK(size < ConfigPayloadSize);
        FUZZ_CHECK(std::string(error.what()) == "Illegal message length");
        return 0;
    }
    FUZZ_CHECK(size >= ConfigPayloadSize);
    FUZZ_CHECK(config.Version == data[0]);
    static_assert(FlagCount == 63, "one flag per signal");
    for (std::size_t i = 0; i < FlagCount; ++i) FUZZ_CHECK(flagBytes(config)[i] <= 1);

    const auto encoded = encodeConfigPayload(config);
    FUZZ_CHECK(std::to_integer<unsigned>(encoded[0]) == SentConfigVersion);
    for (const MaskInPayload& mask : Masks) {
        FUZZ_CHECK(maskAt(encoded.data(), mask.offset) == (maskAt(bytes, mask.offset) & mask.definedBits));
    }

    const oltbTraceBufferConfig_Struct again =
        decodeConfigPayload(std::vector<std::byte>(encoded.begin(), encoded.end()));
    FUZZ_CHECK(std::memcmp(flagBytes(again), flagBytes(config), FlagCount) == 0);
    return 0;
}
