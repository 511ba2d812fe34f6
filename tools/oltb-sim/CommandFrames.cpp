// Cutting the client's bytes into command frames, and building response frames.
#include "tools/oltb-sim/CommandFrames.h"

#include <algorithm>
#include <cassert>

namespace oltb::sim {

bool isKnownCommand(const std::uint8_t code) noexcept {
    switch (static_cast<CommandCode>(code)) {
        case CommandCode::stop:
        case CommandCode::start:
        case CommandCode::setConfig:
        case CommandCode::getConfig:
            return true;
    }
    return false;
}

void CommandFrameReader::feed(const std::uint8_t* const data, const std::size_t size) {
    // What was taken goes, so that the buffer holds at most a piece of a frame besides the new bytes.
    _buffer.erase(_buffer.begin(), _buffer.begin() + static_cast<std::ptrdiff_t>(_position));
    _position = 0;
    _buffer.insert(_buffer.end(), data, data + size);
}

CommandRead CommandFrameReader::next() {
    CommandRead read;
    const auto begin = _buffer.begin() + static_cast<std::ptrdiff_t>(_position);
    if (begin == _buffer.end()) {
        return read;
    }
    if (*begin != CommandFrameStart) {
        const auto frameStart = std::find(begin, _buffer.end(), CommandFrameStart);
        read.outcome = CommandReadOutcome::skippedBytes;
        read.skipped = static_cast<std::size_t>(frameStart - begin);
        _position += read.skipped;
        return read;
    }
    if (bufferedBytes() < CommandFrameSize) {
        return read;
    }
    read.outcome = CommandReadOutcome::frame;
    read.frame.code = _buffer[_position + 1];
    std::copy_n(begin + 2, CommandPayloadSize, read.frame.payload.begin());
    _position += CommandFrameSize;
    return read;
}

void appendResponseFrame(std::vector<std::uint8_t>& out, const std::uint8_t* const payload,
                         const std::size_t payloadSize, const ResponseShape shape) {
    assert(payloadSize <= 255);
    out.insert(out.end(), {0x4D, 0x4D, 0x4D, 0x4D, static_cast<std::uint8_t>(payloadSize)});
    out.insert(out.end(), payload, payload + payloadSize);
    out.push_back(0xB2);
    out.push_back(shape == ResponseShape::exact ? 0xB2 : 0x00);
}

}  // namespace oltb::sim
