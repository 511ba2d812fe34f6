// Fuzz target: the reader's response-frame scan over any received bytes, at any place in the word grid. A reported
// frame lies inside the data and has the shape 4D 4D 4D 4D | L | L payload bytes | B2 B2; it is the first one where
// a word may begin, or, when there is none, the first one anywhere, and then no frame may still be completing;
// without a frame, the outcome tells whether the data ends in the beginning of one that the next receive may complete.
#include "fuzz/FuzzCheck.h"

#include "client/ResponseFrameScanner.h"

#include <algorithm>

namespace {

using namespace OLVEN::TALIX3::TraceBuffer;

// The frame's shape at `start`: 1 complete, 0 cannot be one, -1 the data ends before it does.
int frameAt(const std::uint8_t* data, std::size_t size, std::size_t start) {
    for (std::size_t i = start; i < start + 4; ++i) {
        if (i == size) return -1;
        if (data[i] != 0x4D) return 0;
    }
    if (start + 4 >= size || start + data[start + 4] + 7 > size) return -1;
    const std::size_t end = start + data[start + 4] + 7;
    return data[end - 2] == 0xB2 && data[end - 1] == 0xB2 ? 1 : 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* input, std::size_t inputSize) {
    if (inputSize == 0) return 0;
    // The first byte chooses the place of the data in the word grid (8 and above: no grid).
    const int wordPosition = input[0] < 8 ? input[0] : NoWordGrid;
    const std::uint8_t* const data = input + 1;
    const std::size_t size = inputSize - 1;
    const ResponseFrameScan scan = scanForResponseFrame(reinterpret_cast<const std::byte*>(data), size, wordPosition);
    std::size_t firstAtWord = size;
    std::size_t firstComplete = size;
    std::size_t firstIncomplete = size;
    for (std::size_t start = size; start-- > 0;) {
        const int shape = frameAt(data, size, start);
        if (shape == 1 && (wordPosition == NoWordGrid || (wordPosition + start) % 8 == 0)) firstAtWord = start;
        if (shape == 1) firstComplete = start;
        if (shape == -1) firstIncomplete = start;
    }
    switch (scan.outcome) {
        case ResponseScanOutcome::frameFound:
            FUZZ_CHECK(scan.headerStart == (firstAtWord < size ? firstAtWord : firstComplete));
            FUZZ_CHECK(firstAtWord < size || firstIncomplete == size);
            FUZZ_CHECK(scan.frameEnd == scan.headerStart + scan.payloadLength + 7 && scan.frameEnd <= size);
            FUZZ_CHECK(scan.payloadStart == scan.headerStart + 5 && data[scan.headerStart + 4] == scan.payloadLength);
            break;
        case ResponseScanOutcome::maybeFrameStart:
            FUZZ_CHECK(firstAtWord == size && firstIncomplete < size);
            FUZZ_CHECK(scan.candidateStart == std::min(firstIncomplete, firstComplete));
            break;
        case ResponseScanOutcome::noFrame:
            FUZZ_CHECK(firstComplete == size && firstIncomplete == size);
            break;
    }
    return 0;
}
