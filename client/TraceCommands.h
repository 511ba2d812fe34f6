// Command frame, client to server, always 19 bytes in one send:
//   4D | command code (low 8 bits) | 17 payload bytes (all zero for a command without payload)
// No length, checksum or terminator. Every frame is answered by one response frame (see ResponseFrameScanner.h), in
// the order the frames were sent; an answer carries nothing that names its command.
#pragma once

#include <cstddef>
#include <cstdint>

namespace OLVEN::TALIX3::TraceBuffer {

// The only command codes the client sends.
enum class TraceCommandCode : std::uint32_t {
    Stop = 16,        // no payload, no response payload
    Start = 17,       // no payload, no response payload
    SetConfig = 129,  // 17-byte configuration payload, no response payload
    GetConfig = 130,  // no payload; the response carries the 17-byte configuration
};

inline constexpr std::byte CommandMarker{0x4D};
inline constexpr std::size_t CommandPayloadSize = 17;
inline constexpr std::size_t CommandFrameSize = 2 + CommandPayloadSize;
inline constexpr unsigned ResponseTimeoutMs = 3000;

}  // namespace OLVEN::TALIX3::TraceBuffer
