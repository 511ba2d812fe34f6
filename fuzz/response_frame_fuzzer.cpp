// Fuzz target: the reader's response-frame scan over any received bytes. A reported frame lies inside the data,
// has the shape 4D 4D 4D 4D | L | L payload bytes | B2 B2, and begins a run of 0x4D bytes; without a frame the
// outcome tells whether the data ends in 0x4D (the start of a frame the next receive may complete).
#include "FuzzCheck.h"

#include "client/ResponseFrameScanner.h"

namespace {

using namespace OLVEN::TALIX3::TraceBuffer;

constexpr std::uint8_t HeaderByte = 0x4D;
constexpr std::uint8_t TrailerByte = 0xB2;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const ResponseFrameScan scan = scanForResponseFrame(reinterpret_cast<const std::byte*>(data), size);
    switch (scan.outcome) {
    case ResponseScanOutcome::frameFound: {
        const std::size_t h = scan.headerStart;
        FUZZ_CHECK(h < scan.frameEnd && scan.frameEnd <= size);
        FUZZ_CHECK(scan.frameEnd - h == scan.payloadLength + 7);
        FUZZ_CHECK(scan.payloadStart == h + 5);
        for (std::size_t i = h; i < h + 4; ++i) FUZZ_CHECK(data[i] == HeaderByte);
        FUZZ_CHECK(h == 0 || data[h - 1] != HeaderByte);
        FUZZ_CHECK(data[h + 4] == scan.payloadLength);
        FUZZ_CHECK(data[scan.frameEnd - 2] == TrailerByte && data[scan.frameEnd - 1] == TrailerByte);
        break;
    }
    case ResponseScanOutcome::maybeFrameStart:
        FUZZ_CHECK(size > 0 && data[size - 1] == HeaderByte);
        break;
    case ResponseScanOutcome::noFrame:
        FUZZ_CHECK(size == 0 || data[size - 1] != HeaderByte);
        break;
    }
    return 0;
}
