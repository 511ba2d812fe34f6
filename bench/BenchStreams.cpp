#include "BenchStreams.h"

#include "MemoryBlockSource.h"

#include "CounterStream.h"
#include "JobStream.h"
#include "MarkingJob.h"
#include "SignalSelection.h"
#include "WordEncoder.h"

#include "api/oltb.h"
#include "events/TraceDecoder.h"

#include <algorithm>

namespace oltb::bench {
namespace {

TraceStream streamOf(const std::vector<std::uint64_t>& words) {
    TraceStream stream;
    stream.words = words.size();
    Block bytes(words.size() * 8);
    for (std::size_t i = 0; i < words.size(); ++i) {
        for (unsigned b = 0; b < 8; ++b) bytes[i * 8 + b] = static_cast<std::byte>(words[i] >> (8 * b));
    }
    for (std::size_t position = 0; position < bytes.size(); position += kReceiveBlockBytes) {
        const std::size_t end = std::min(bytes.size(), position + kReceiveBlockBytes);
        stream.blocks.emplace_back(bytes.begin() + static_cast<std::ptrdiff_t>(position),
                                   bytes.begin() + static_cast<std::ptrdiff_t>(end));
    }
    stream.events = countEvents(stream.blocks);
    return stream;
}

std::vector<std::uint64_t> jobWords(std::uint64_t traceTicks) {
    static const oltbsim::MarkingJob job;
    oltbsim::JobStream source(job);
    source.start(kStreamStartTick, everythingTheJobDrives());
    std::vector<std::uint64_t> words;
    source.generate(kStreamStartTick + traceTicks, SIZE_MAX, words);
    return words;
}

}  // namespace

oltbsim::SignalSelection everythingTheJobDrives() {
    oltbsim::SignalSelection selection;
    for (unsigned head = 0; head < 2; ++head) {
        for (unsigned channel : {0u, 2u, 4u, 8u, 10u, 12u}) selection.setTraced(32 + 16 * head + channel, true);
    }
    for (std::uint32_t type : oltbsim::MarkingJob::drivenSignals()) selection.setTraced(type, true);
    selection.setTraced(oltbEventLabel, true);
    return selection;
}

TraceStream counterStream(std::size_t words) {
    oltbsim::CounterStream source(64);
    source.start(kStreamStartTick, {});
    std::vector<std::uint64_t> out;
    source.generate(oltbsim::kNoHorizon, words, out);
    return streamOf(out);
}

TraceStream alternatingBitStream(std::size_t words) {
    oltbsim::WordEncoder encoder;
    std::vector<std::uint64_t> out;
    for (std::size_t i = 0; i < words; ++i) {
        const std::uint64_t firstSample = kStreamStartTick + 32 * i;
        encoder.append(out, oltbsim::fieldTickOf(oltbEventGate, firstSample), oltbEventGate, 0xAAAAAAAAu);
    }
    return streamOf(out);
}

TraceStream markingJobStream(double traceSeconds) {
    return streamOf(jobWords(static_cast<std::uint64_t>(traceSeconds * 64e6)));
}

TraceStream markingJobUpToEndLabel() {
    static const oltbsim::MarkingJob job;
    // Up to a sample period behind label 2: the acquisition ends on the first event more than 1 us after it.
    return streamOf(jobWords(job.jobEndTick() + 2 * oltbsim::MarkingJob::kSamplePeriodTicks));
}

TraceStream overlappingPairStream(std::size_t pairs, std::uint64_t secondWordOffsetTicks) {
    oltbsim::WordEncoder encoder;
    std::vector<std::uint64_t> out;
    for (std::size_t i = 0; i < pairs; ++i) {
        const std::uint64_t firstSample = kStreamStartTick + 64 * i;
        encoder.append(out, oltbsim::fieldTickOf(oltbEventGate, firstSample), oltbEventGate, 0xAAAAAAAAu);
        encoder.append(out, firstSample + secondWordOffsetTicks, oltbEventSpi0Rx, static_cast<std::uint32_t>(i));
    }
    return streamOf(out);
}

std::uint64_t countEvents(const std::vector<Block>& blocks) {
    MemoryBlockSource source(blocks);
    OLVEN::TALIX3::TraceBuffer::TraceDecoder decoder;
    std::vector<oltbTraceEvent> buffer(4096);
    std::uint64_t events = 0;
    for (;;) {
        const unsigned n = decoder.TryRead(source, buffer.data(), 0, static_cast<unsigned>(buffer.size()), 0);
        events += n;
        if (n == 0 && source.exhausted() && decoder.pendingCount() == 0 && !decoder.hasUndecodedBytes()) break;
    }
    return events;
}

}  // namespace oltb::bench
