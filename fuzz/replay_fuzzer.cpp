// Fuzz target: any rows after the CSV header as a capture served by oltb-sim --replay, with every signal selected.
// A capture the replay's check accepts is served once and then ends, in at most two words per event, and the
// words' ticks never go back.
#include "fuzz/CaptureCheck.h"

#include "tools/oltb-sim/ReplayStream.h"
#include "tools/oltb/CsvWriter.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace oltb::sim;
    const std::string path = fuzzFile("replay.csv", std::string(oltb::cli::CsvWriter::Header) + "\n" +
                                                        std::string(reinterpret_cast<const char*>(data), size));
    ReplayCapture capture;
    try {
        capture = scanCapture(path);
    } catch (const ReplayError& error) {
        checkRefusal(error.what(), path);
        return 0;
    }
    SignalSelection all;
    for (std::uint32_t type = 0; type < 128; ++type) all.setTraced(type, sampleWidthBits(type) > 0);
    ReplayStream stream(capture, false, 0);
    stream.start(640000, all);
    std::vector<std::uint64_t> words;
    for (int round = 0; round < 1000 && !stream.exhausted(); ++round) stream.generate(NoHorizon, 4096, words);
    FUZZ_CHECK(stream.exhausted() && words.size() <= 2 * capture.events + 2);
    std::uint64_t timeBase = 0, last = 0;
    for (const std::uint64_t word : words) {
        const std::uint64_t type = (word >> 24) & 0x7F;
        if (type == TimeBaseType) {
            timeBase = (word >> 32) << 24;
            continue;
        }
        FUZZ_CHECK(timeBase + (word & 0xFFFFFF) >= last);
        last = timeBase + (word & 0xFFFFFF);
    }
    return 0;
}
