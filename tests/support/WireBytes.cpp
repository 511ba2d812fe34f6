// Byte sequences of the trace buffer protocol as the fake server sends them and tests build them:
// response frames (4D 4D 4D 4D, length, payload, B2 B2), command frames (4D, code, 17 bytes), the
// 17-byte configuration payload and the packed 64-bit trace words, all little-endian.
#include "tests/support/FakeServer.h"

#include <algorithm>
#include <stdexcept>

namespace oltb::testing {

namespace {

constexpr std::size_t kMaxResponsePayload = 255;

void appendLittleEndian32(Bytes& out, std::uint32_t value) {
    for (int shift = 0; shift < 32; shift += 8) {
        out.push_back(static_cast<std::uint8_t>(value >> shift));
    }
}

} // namespace

Reaction Reaction::emptyResponse() { return payloadResponse({}); }

Reaction Reaction::payloadResponse(const Bytes& payload) {
    Reaction reaction;
    reaction.chunks.push_back(responseFrame(payload));
    return reaction;
}

Reaction Reaction::silent() { return Reaction{}; }

Reaction Reaction::close() {
    Reaction reaction;
    reaction.closeAfter = true;
    return reaction;
}

Bytes responseFrame(const Bytes& payload) {
    if (payload.size() > kMaxResponsePayload) {
        throw std::invalid_argument("responseFrame: a payload holds at most 255 bytes");
    }
    Bytes frame(4, kFrameMarker);
    frame.push_back(static_cast<std::uint8_t>(payload.size()));
    frame.insert(frame.end(), payload.begin(), payload.end());
    frame.push_back(kFrameTrailer);
    frame.push_back(kFrameTrailer);
    return frame;
}

Bytes configPayload(std::uint8_t version, std::uint32_t conf0, std::uint32_t conf1, std::uint32_t conf2,
                    std::uint32_t conf3) {
    Bytes payload{version};
    appendLittleEndian32(payload, conf0);
    appendLittleEndian32(payload, conf1);
    appendLittleEndian32(payload, conf3);
    appendLittleEndian32(payload, conf2);
    return payload;
}

Bytes commandFrame(std::uint8_t code, const Bytes& payload) {
    if (payload.size() > kCommandPayloadSize) {
        throw std::invalid_argument("commandFrame: a payload holds at most 17 bytes");
    }
    Bytes frame(kCommandFrameSize, 0);
    frame[0] = kFrameMarker;
    frame[1] = code;
    std::copy(payload.begin(), payload.end(), frame.begin() + 2);
    return frame;
}

Bytes traceWord(std::uint64_t word) {
    Bytes bytes;
    for (int shift = 0; shift < 64; shift += 8) {
        bytes.push_back(static_cast<std::uint8_t>(word >> shift));
    }
    return bytes;
}

std::uint64_t packWord(std::uint8_t type, std::uint32_t timestamp24, std::uint32_t payload, bool overflow) {
    return (std::uint64_t{timestamp24} & 0xFFFFFFu) | (std::uint64_t{type & 0x7Fu} << 24) |
           (overflow ? std::uint64_t{0x80000000u} : 0u) | (std::uint64_t{payload} << 32);
}

Bytes makeWord(std::uint8_t type, std::uint32_t timestamp24, std::uint32_t payload, bool overflow) {
    return traceWord(packWord(type, timestamp24, payload, overflow));
}

Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

} // namespace oltb::testing
