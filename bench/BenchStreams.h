// In-memory trace streams for the benchmarks, made with the simulator's generation library: the counting Spi0Rx
// stream, a stream of 1-bit words whose samples all change, the marking job with every signal it drives, and pairs
// of words whose samples overlap (so each pair needs a re-sort). Streams are cut into 16 KiB blocks, the size of one
// receive of the client.
#pragma once

#include "tools/oltb-sim/SignalSelection.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace oltb::bench {

using Block = std::vector<std::byte>;

constexpr std::size_t ReceiveBlockBytes = 16384;
// Where a stream starts on the card clock: a few periods in, so that time-base words carry real values.
constexpr std::uint64_t StreamStartTick = 1000000000ULL / 640 * 640;

struct TraceStream {
    std::vector<Block> blocks;
    std::uint64_t words = 0;   // time-base words included
    std::uint64_t events = 0;  // what the decoder delivers for the whole stream
};

// All twelve head channels, every signal the marking job drives, and labels.
oltb::sim::SignalSelection everythingTheJobDrives();

// Spi0Rx words counting 0, 1, 2, ..., one every 64 ticks: one event per word.
TraceStream counterStream(std::size_t words);
// Gate words with payload 0xAAAAAAAA, one per 32 ticks: 32 events per word.
TraceStream alternatingBitStream(std::size_t words);
// The marking job from its start for `traceSeconds`, with all twelve head channels and every signal it drives.
TraceStream markingJobStream(double traceSeconds);
// The same, ending right behind the job's end label (label 2), for acquisitions between labels 1 and 2.
TraceStream markingJobUpToEndLabel();
// Pairs of a 1-bit word (32 changing samples from tick w) and a Spi0Rx word at w + `secondWordOffsetTicks`:
// an offset below 32 puts the Spi0Rx event among the samples, so each pair ends in a re-sort of the stretch.
TraceStream overlappingPairStream(std::size_t pairs, std::uint64_t secondWordOffsetTicks);

// The events of a stream, counted by decoding it once.
std::uint64_t countEvents(const std::vector<Block>& blocks);

}  // namespace oltb::bench
