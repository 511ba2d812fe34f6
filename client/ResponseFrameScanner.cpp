// The response-frame scan: counts consecutive 0x4D bytes and tests for the frame shape where the count reaches 4.
#include "client/ResponseFrameScanner.h"

namespace OLVEN::TALIX3::TraceBuffer {

namespace {

constexpr std::byte HeaderByte{0x4D};
constexpr std::byte TrailerByte{0xB2};
constexpr unsigned HeaderLength = 4;

}  // namespace

ResponseFrameScan scanForResponseFrame(const std::byte* data, std::size_t size) noexcept {
    ResponseFrameScan scan;
    unsigned headerBytes = 0;
    for (std::size_t i = 0; i < size; ++i) {
        if (data[i] != HeaderByte) {
            headerBytes = 0;
            continue;
        }
        ++headerBytes;
        // The run's count goes on past 4, so a run of five or more 0x4D bytes is tested at its fourth byte only.
        if (headerBytes != HeaderLength || size <= i + 3) {
            continue;
        }
        const std::size_t payloadLength = std::to_integer<std::size_t>(data[i + 1]);
        const std::size_t trailer = i + payloadLength + 2;
        if (payloadLength > 0 && trailer + 1 >= size) {
            continue;
        }
        if (data[trailer] == TrailerByte && data[trailer + 1] == TrailerByte) {
            scan.outcome = ResponseScanOutcome::frameFound;
            scan.headerStart = i + 1 - HeaderLength;
            scan.frameEnd = trailer + 2;
            scan.payloadStart = i + 2;
            scan.payloadLength = payloadLength;
            return scan;
        }
    }
    scan.outcome = headerBytes != 0 ? ResponseScanOutcome::maybeFrameStart : ResponseScanOutcome::noFrame;
    return scan;
}

}  // namespace OLVEN::TALIX3::TraceBuffer
