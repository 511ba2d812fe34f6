#include "bench/BenchStreams.h"

#include "bench/MemoryBlockSource.h"

#include "tools/oltb-sim/CounterStream.h"
#include "tools/oltb-sim/JobStream.h"
#include "tools/oltb-sim/MarkingJob.h"
#include "tools/oltb-sim/SignalSelection.h"
#include "tools/oltb-sim/WordEncoder.h"

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
    for (std::size_t position = 0; position < bytes.size(); position += ReceiveBlockBytes) {
        const std::size_t end = std::min(bytes.size(), position + ReceiveBlockBytes);
        stream.blocks.emplace_back(bytes.begin() + static_cast<std::ptrdiff_t>(position),
                                   bytes.begin() + static_cast<std::ptrdiff_t>(end));
    }
    stream.events = countEvents(stream.blocks);
    return stream;
}

std::vector<std::uint64_t> jobWords(std::uint64_t traceTicks) {
    static const oltb::sim::MarkingJob job;
    oltb::sim::JobStream source(job);
    source.start(StreamStartTick, everythingTheJobDrives());
    std::vector<std::uint64_t> words;
    source.generate(StreamStartTick + traceTicks, SIZE_MAX, words);
    return words;
}

}  // namespace

oltb::sim::SignalSelection everythingTheJobDrives() {
    oltb::sim::SignalSelection selection;
    for (unsigned head = 0; head < 2; ++head) {
        for (unsigned channel : {0u, 2u, 4u, 8u, 10u, 12u}) selection.setTraced(32 + 16 * head + channel, true);
    }
    for (std::uint32_t type : oltb::sim::MarkingJob::drivenSignals()) selection.setTraced(type, true);
    selection.setTraced(oltbEventLabel, true);
    return selection;
}

TraceStream counterStream(std::size_t words) {
    oltb::sim::CounterStream source(64);
    source.start(StreamStartTick, {});
    std::vector<std::uint64_t> out;
    source.generate(oltb::sim::NoHorizon, words, out);
    return streamOf(out);
}

TraceStream alternatingBitStream(std::size_t words) {
    oltb::sim::WordEncoder encoder;
    std::vector<std::uint64_t> out;
    for (std::size_t i = 0; i < words; ++i) {
        const std::uint64_t firstSample = StreamStartTick + 32 * i;
        encoder.append(out, oltb::sim::fieldTickOf(oltbEventGate, firstSample), oltbEventGate, 0xAAAAAAAAu);
    }
    return streamOf(out);
}

TraceStream markingJobStream(double traceSeconds) {
    return streamOf(jobWords(static_cast<std::uint64_t>(traceSeconds * 64e6)));
}

TraceStream markingJobUpToEndLabel() {
    static const oltb::sim::MarkingJob job;
    // Up to a sample period behind label 2: the acquisition ends on the first event more than 1 us after it.
    return streamOf(jobWords(job.jobEndTick() + 2 * oltb::sim::MarkingJob::SamplePeriodTicks));
}

TraceStream overlappingPairStream(std::size_t pairs, std::uint64_t secondWordOffsetTicks) {
    oltb::sim::WordEncoder encoder;
    std::vector<std::uint64_t> out;
    for (std::size_t i = 0; i < pairs; ++i) {
        const std::uint64_t firstSample = StreamStartTick + 64 * i;
        encoder.append(out, oltb::sim::fieldTickOf(oltbEventGate, firstSample), oltbEventGate, 0xAAAAAAAAu);
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
