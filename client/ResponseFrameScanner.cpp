// The response-frame scan: every place behind four 0x4D bytes is tried as a length byte, checked by the trailer
// that must follow the payload; a frame where a trace word may begin is preferred.
#include "client/ResponseFrameScanner.h"

#include <algorithm>

namespace OLVEN::TALIX3::TraceBuffer {

namespace {

constexpr std::byte HeaderByte{0x4D};
constexpr std::byte TrailerByte{0xB2};
constexpr std::size_t HeaderLength = 4;
constexpr std::size_t LengthAndTrailer = 3;

}  // namespace

ResponseFrameScan scanForResponseFrame(const std::byte* data, std::size_t size, int wordPosition) noexcept {
    ResponseFrameScan scan;
    bool candidateSeen = false;
    bool elsewhereSeen = false;  // a complete frame that does not begin where a word may
    ResponseFrameScan elsewhere;
    const auto maybeAt = [&](std::size_t start) {
        if (!candidateSeen) scan.candidateStart = start;
        candidateSeen = true;
    };
    std::size_t run = 0;  // 0x4D bytes in a row before index i
    for (std::size_t i = 0; i <= size; run = i < size && data[i] == HeaderByte ? run + 1 : 0, ++i) {
        if (run < HeaderLength) {
            // At the end of the data, a shorter run may be the beginning of a header.
            if (i == size && run > 0) maybeAt(size - run);
            continue;
        }
        const std::size_t headerStart = i - HeaderLength;
        if (i == size) {  // the length byte has not arrived
            maybeAt(headerStart);
            continue;
        }
        const std::size_t payloadLength = std::to_integer<std::size_t>(data[i]);
        const std::size_t frameEnd = i + payloadLength + LengthAndTrailer;
        if (frameEnd > size) {
            maybeAt(headerStart);
            continue;
        }
        if (data[frameEnd - 2] != TrailerByte || data[frameEnd - 1] != TrailerByte) continue;
        ResponseFrameScan found;
        found.outcome = ResponseScanOutcome::frameFound;
        found.headerStart = headerStart;
        found.frameEnd = frameEnd;
        found.payloadStart = i + 1;
        found.payloadLength = payloadLength;
        if (wordPosition == NoWordGrid ||
            (static_cast<std::size_t>(wordPosition) + headerStart) % TraceWordBytes == 0) {
            scan = found;
            return scan;
        }
        if (!elsewhereSeen) elsewhere = found;
        elsewhereSeen = true;
    }
    // Every return gives `scan`, which is then built in the caller's result (choosing between two local results
    // made GCC read one of them after its stack frame was given up, outside the red zone).
    if (!candidateSeen) {
        if (elsewhereSeen) scan = elsewhere;
        return scan;
    }
    scan.outcome = ResponseScanOutcome::maybeFrameStart;
    if (elsewhereSeen) scan.candidateStart = std::min(scan.candidateStart, elsewhere.headerStart);
    return scan;
}

}  // namespace OLVEN::TALIX3::TraceBuffer
