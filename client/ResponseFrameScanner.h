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

// The trace data between answers is a sequence of 8-byte words, and the server sends an answer between two words.
inline constexpr std::size_t TraceWordBytes = 8;
inline constexpr int NoWordGrid = -1;

// Scans data[0, size) for a response frame: a place where four 0x4D bytes are followed by a length byte and, behind
// that many payload bytes, the trailer B2 B2. A header may lie anywhere in a run of 0x4D bytes, so a trace word that
// ends in 0x4D does not hide an answer behind it. A frame whose end has not arrived yet (cut in its header, behind
// its length byte or in its payload) is reported as maybeFrameStart, so that the reader can complete it.
//
// `wordPosition` is the place of data[0] in the word grid of the trace data (0 to 7). The first complete frame that
// begins where a word may begin is taken: trace words cannot look like one there (their fourth byte is a type, and
// 0x4D is none), while inside a word 4D 4D 4D 4D and a length pointing at a real answer's trailer can. Without such a
// frame, the first complete one elsewhere is taken (a server that sent a broken word), but only when no frame may
// still be completing; until then the candidate (the earlier of the two) waits. With NoWordGrid every place may
// begin a word: the first complete frame is taken.
ResponseFrameScan scanForResponseFrame(const std::byte* data, std::size_t size, int wordPosition = NoWordGrid) noexcept;

}  // namespace OLVEN::TALIX3::TraceBuffer
