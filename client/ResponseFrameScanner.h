// Finds a command response frame in bytes received from the trace buffer server. The stream carries trace words
// and, while a command waits, one response frame:
//   4D 4D 4D 4D | L (payload length, 0..255) | L payload bytes | B2 B2
// Trace data is not framed, so a frame is recognised only by this shape. A pure function over bytes: the reader
// thread calls it on its receive buffer, and it accepts any input.
#pragma once

#include <cstddef>

namespace OLVEN::TALIX3::TraceBuffer {

enum class ResponseScanOutcome {
    frameFound,       // a whole frame lies in the data
    noFrame,          // no frame, and nothing at the end of the data that could begin one
    maybeFrameStart,  // no frame, but a frame may begin at candidateStart and end in bytes not yet received
};

struct ResponseFrameScan {
    ResponseScanOutcome outcome = ResponseScanOutcome::noFrame;
    // frameFound: the frame is data[headerStart, frameEnd), its payload data[payloadStart, payloadStart +
    // payloadLength).
    std::size_t headerStart = 0;
    std::size_t frameEnd = 0;
    std::size_t payloadStart = 0;
    std::size_t payloadLength = 0;
    // maybeFrameStart: the first place where the bytes received so far are the beginning of a frame.
    std::size_t candidateStart = 0;
};

// Scans data[0, size) for the first response frame: the first place where four 0x4D bytes are followed by a length
// byte and, behind that many payload bytes, the trailer B2 B2. A header may lie anywhere in a run of 0x4D bytes, so
// a trace word that ends in 0x4D does not hide an answer behind it. A frame whose end has not arrived yet (cut in
// its header, behind its length byte or in its payload) is reported as maybeFrameStart, so that the reader can
// complete it.
ResponseFrameScan scanForResponseFrame(const std::byte* data, std::size_t size) noexcept;

}  // namespace OLVEN::TALIX3::TraceBuffer
