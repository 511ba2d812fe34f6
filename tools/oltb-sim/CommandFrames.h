// The command channel seen from the server. A client sends 19-byte command frames:
//   0x4D | command code | 17 payload bytes (zero unless the command carries a configuration)
// and gets one response frame for each:
//   4D 4D 4D 4D | payload length L | L payload bytes | B2 B2
// Frames have no length field of their own, so the reader cuts the byte stream into 19-byte pieces, however TCP
// delivered them, and resynchronises on the next 0x4D when a piece does not start with one.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace oltb::sim {

enum class CommandCode : std::uint8_t {
    stop = 0x10,
    start = 0x11,
    setConfig = 0x81,
    getConfig = 0x82,
};

constexpr std::uint8_t CommandFrameStart = 0x4D;
constexpr std::size_t CommandFrameSize = 19;
constexpr std::size_t CommandPayloadSize = 17;

bool isKnownCommand(std::uint8_t code) noexcept;

struct CommandFrame {
    std::uint8_t code = 0;
    std::array<std::uint8_t, CommandPayloadSize> payload{};
};

enum class CommandReadOutcome {
    frame,         // a whole frame was taken out
    needMoreData,  // fewer than 19 bytes wait, starting with 0x4D (or nothing waits)
    skippedBytes,  // bytes before the next 0x4D were thrown away
};

struct CommandRead {
    CommandReadOutcome outcome = CommandReadOutcome::needMoreData;
    CommandFrame frame;       // for frame
    std::size_t skipped = 0;  // for skippedBytes
};

class CommandFrameReader {
public:
    void feed(const std::uint8_t* data, std::size_t size);
    CommandRead next();
    std::size_t bufferedBytes() const noexcept { return _buffer.size() - _position; }

private:
    std::vector<std::uint8_t> _buffer;
    std::size_t _position = 0;
};

enum class ResponseShape {
    exact,          // 4D 4D 4D 4D, L, payload, B2 B2
    brokenTrailer,  // the last trailer byte is 0x00, so a client does not take the frame for a response
};

void appendResponseFrame(std::vector<std::uint8_t>& out, const std::uint8_t* payload, std::size_t payloadSize,
                         ResponseShape shape = ResponseShape::exact);

}  // namespace oltb::sim
