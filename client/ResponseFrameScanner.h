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
    noFrame,          // no frame, and the data does not end in 0x4D
    maybeFrameStart,  // no frame, but the data ends in a run of 0x4D bytes that may begin one
};

struct ResponseFrameScan {
    ResponseScanOutcome outcome = ResponseScanOutcome::noFrame;
    // Set only for frameFound: the frame is data[headerStart, frameEnd), its payload
    // data[payloadStart, payloadStart + payloadLength).
    std::size_t headerStart = 0;
    std::size_t frameEnd = 0;
    std::size_t payloadStart = 0;
    std::size_t payloadLength = 0;
};

// Scans data[0, size) for the first response frame. A header is only ever the first four bytes of a run of 0x4D:
// the shape is tested once per run, where the run reaches four bytes, and a failed test is not repeated further
// along the same run. So a trace byte 0x4D just before a header hides that frame.
ResponseFrameScan scanForResponseFrame(const std::byte* data, std::size_t size) noexcept;

}  // namespace OLVEN::TALIX3::TraceBuffer
