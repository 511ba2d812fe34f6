// The configuration payload in both directions and the SetConfig / GetConfig commands that carry it.
#include "client/TraceConfiguration.h"

#include "client/ClientMessages.h"
#include "client/TraceBufferClient.h"
#include "client/TraceCommands.h"

#include <stdexcept>

namespace OLVEN::TALIX3::TraceBuffer {

namespace {

constexpr std::size_t Conf0Offset = 1;
constexpr std::size_t Conf1Offset = 5;
constexpr std::size_t Conf3Offset = 9;
constexpr std::size_t Conf2Offset = 13;

template <typename Signal, std::size_t N>
std::uint32_t maskOf(const oltbTraceBufferConfig_Struct& config, const std::array<SignalFlag<Signal>, N>& flags) {
    std::uint32_t mask = 0;
    for (const SignalFlag<Signal>& flag : flags) {
        if (config.*flag.field) {
            mask |= 1U << static_cast<std::uint32_t>(flag.signal);
        }
    }
    return mask;
}

template <typename Signal, std::size_t N>
void applyMask(std::uint32_t mask, const std::array<SignalFlag<Signal>, N>& flags,
               oltbTraceBufferConfig_Struct& config) {
    for (const SignalFlag<Signal>& flag : flags) {
        config.*flag.field = ((mask >> static_cast<std::uint32_t>(flag.signal)) & 1U) != 0;
    }
}

void putLittleEndian(std::uint32_t value, std::byte* destination) {
    for (unsigned i = 0; i < 4; ++i) {
        destination[i] = static_cast<std::byte>((value >> (8 * i)) & 0xFFU);
    }
}

std::uint32_t getLittleEndian(const std::byte* source) {
    std::uint32_t value = 0;
    for (unsigned i = 0; i < 4; ++i) {
        value |= std::to_integer<std::uint32_t>(source[i]) << (8 * i);
    }
    return value;
}

}  // namespace

std::array<std::byte, ConfigPayloadSize> encodeConfigPayload(const oltbTraceBufferConfig_Struct& config) noexcept {
    std::array<std::byte, ConfigPayloadSize> payload{};
    payload[0] = static_cast<std::byte>(SentConfigVersion);
    putLittleEndian(maskOf(config, TraceBufferConf0Flags), &payload[Conf0Offset]);
    putLittleEndian(maskOf(config, TraceBufferConf1Flags), &payload[Conf1Offset]);
    putLittleEndian(maskOf(config, TraceBufferConf3Flags), &payload[Conf3Offset]);
    putLittleEndian(maskOf(config, TraceBufferConf2Flags), &payload[Conf2Offset]);
    return payload;
}

oltbTraceBufferConfig_Struct decodeConfigPayload(const std::vector<std::byte>& payload) {
    if (payload.size() < ConfigPayloadSize) {
        throw std::runtime_error(ClientMessages::IllegalMessageLength);
    }
    oltbTraceBufferConfig_Struct config{};
    config.Version = std::to_integer<std::uint32_t>(payload[0]);
    applyMask(getLittleEndian(&payload[Conf0Offset]), TraceBufferConf0Flags, config);
    applyMask(getLittleEndian(&payload[Conf1Offset]), TraceBufferConf1Flags, config);
    applyMask(getLittleEndian(&payload[Conf3Offset]), TraceBufferConf3Flags, config);
    applyMask(getLittleEndian(&payload[Conf2Offset]), TraceBufferConf2Flags, config);
    return config;
}

void TraceBufferClient::SetConfig(const oltbTraceBufferConfig_Struct& config) {
    const std::lock_guard<std::mutex> commandLock(_commandMutex);
    requireConnection();
    const std::array<std::byte, ConfigPayloadSize> payload = encodeConfigPayload(config);
    (void)writeCommand(TraceCommandCode::SetConfig, std::vector<std::byte>(payload.begin(), payload.end()), false);
}

oltbTraceBufferConfig_Struct TraceBufferClient::GetConfig() {
    const std::lock_guard<std::mutex> commandLock(_commandMutex);
    requireConnection();
    return decodeConfigPayload(writeCommand(TraceCommandCode::GetConfig, {}, true));
}

}  // namespace OLVEN::TALIX3::TraceBuffer
