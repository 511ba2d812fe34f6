// The response-frame scan: every place behind four 0x4D bytes is tried as a length byte, checked by the trailer
// that must follow the payload.
#include "client/ResponseFrameScanner.h"

namespace OLVEN::TALIX3::TraceBuffer {

namespace {

constexpr std::byte HeaderByte{0x4D};
constexpr std::byte TrailerByte{0xB2};
constexpr std::size_t HeaderLength = 4;
constexpr std::size_t LengthAndTrailer = 3;

}  // namespace

ResponseFrameScan scanForResponseFrame(const std::byte* data, std::size_t size) noexcept {
    ResponseFrameScan scan;
    bool candidateSeen = false;
    std::size_t run = 0;  // 0x4D bytes in a row before index i
    for (std::size_t i = 0; i <= size; run = i < size && data[i] == HeaderByte ? run + 1 : 0, ++i) {
        if (run < HeaderLength) {
            // At the end of the data, a shorter run may be the beginning of a header.
            if (i == size && run > 0 && !candidateSeen) {
                candidateSeen = true;
                scan.candidateStart = size - run;
            }
            continue;
        }
        const std::size_t headerStart = i - HeaderLength;
        if (i == size) {  // the length byte has not arrived
            if (!candidateSeen) scan.candidateStart = headerStart;
            candidateSeen = true;
            continue;
        }
        const std::size_t payloadLength = std::to_integer<std::size_t>(data[i]);
        const std::size_t frameEnd = i + payloadLength + LengthAndTrailer;
        if (frameEnd > size) {
            if (!candidateSeen) scan.candidateStart = headerStart;
            candidateSeen = true;
            continue;
        }
        if (data[frameEnd - 2] == TrailerByte && data[frameEnd - 1] == TrailerByte) {
            scan.outcome = ResponseScanOutcome::frameFound;
            scan.headerStart = headerStart;
            scan.frameEnd = frameEnd;
            scan.payloadStart = i + 1;
            scan.payloadLength = payloadLength;
            return scan;
        }
    }
    scan.outcome = candidateSeen ? ResponseScanOutcome::maybeFrameStart : ResponseScanOutcome::noFrame;
    return scan;
}

}  // namespace OLVEN::TALIX3::TraceBuffer
