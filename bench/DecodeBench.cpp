// Figures of the decoding core, on 16 KiB blocks in memory (no sockets, no threads):
//   - words/s through splitAndUnpack for a 32-bit type, a 1-bit type whose 32 samples all change, and the marking
//     job with every signal it drives; the limit is a bare loop that only splits the word fields into records;
//   - events/s of an acquisition between the job's labels 1 and 2, against reading the same blocks;
//   - the cost of re-sorting: words whose event lands among the samples of the word before, against the same
//     words in order.
// Each measured thing and its limit run back to back, five times over; one line per figure gives the medians.
#include "bench/BenchStreams.h"
#include "bench/FigureReport.h"
#include "bench/MemoryBlockSource.h"

#include "events/TraceDecoder.h"
#include "events/TraceWordsInline.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace oltb::bench {
namespace {

using OLVEN::TALIX3::TraceBuffer::TraceDecoder;
using Clock = std::chrono::steady_clock;

constexpr int Repetitions = 5;
constexpr double MinSecondsPerRun = 0.25;
constexpr unsigned ReadBufferEvents = 4096;  // an application's oltbRead buffer
constexpr double EventsPerPair = 33;         // 32 samples of the 1-bit word and one Spi0Rx event

double secondsBetween(Clock::time_point begin, Clock::time_point end) {
    return std::chrono::duration<double>(end - begin).count();
}

// One block per iteration, timed alone: the copy that installs it (the reader thread's work) stays outside.
void decodeBlocks(benchmark::State& state, const TraceStream& stream) {
    TraceDecoder decoder;
    std::vector<oltbTraceEvent> events(ReadBufferEvents);
    std::size_t next = 0;
    double words = 0;
    double records = 0;
    for (auto _ : state) {
        if (next == stream.blocks.size()) {
            next = 0;
            decoder.clear();  // the stream starts over with its time-base word
        }
        const Block& block = stream.blocks[next++];
        decoder.takeBlock(Block(block));
        const Clock::time_point begin = Clock::now();
        while (decoder.hasUndecodedBytes()) records += decoder.splitAndUnpack(events.data(), 0, ReadBufferEvents);
        benchmark::ClobberMemory();
        state.SetIterationTime(secondsBetween(begin, Clock::now()));
        words += static_cast<double>(block.size() / 8);
    }
    state.counters["words"] = benchmark::Counter(words, benchmark::Counter::kIsRate);
    state.counters["records"] = benchmark::Counter(records, benchmark::Counter::kIsRate);
}

// The limit: each word only split into its fields and written as a record, into the same 4096-record buffer.
void splitFieldsOnly(benchmark::State& state, const TraceStream& stream) {
    std::vector<oltbTraceEvent> events(ReadBufferEvents);
    oltbTraceEvent* const first = events.data();
    oltbTraceEvent* const last = first + events.size();
    Block block;
    std::size_t next = 0;
    double words = 0;
    for (auto _ : state) {
        if (next == stream.blocks.size()) next = 0;
        block = stream.blocks[next++];
        const Clock::time_point begin = Clock::now();
        oltbTraceEvent* out = first;
        benchmark::DoNotOptimize(out);
        const std::byte* const limit = block.data() + block.size();
        for (const std::byte* cursor = block.data(); cursor + 8 <= limit; cursor += 8) {
            std::uint64_t word;
            std::memcpy(&word, cursor, sizeof word);
            OLVEN::TALIX3::TraceBuffer::TraceWordDecoding::splitFields(word, *out);
            if (++out == last) out = first;
        }
        benchmark::ClobberMemory();
        state.SetIterationTime(secondsBetween(begin, Clock::now()));
        words += static_cast<double>(block.size() / 8);
    }
    state.counters["words"] = benchmark::Counter(words, benchmark::Counter::kIsRate);
    state.counters["records"] = benchmark::Counter(words, benchmark::Counter::kIsRate);
}

// Whole passes over the job's blocks, the source copying each block as the reader thread would.
void acquireJob(benchmark::State& state, const TraceStream& stream) {
    MemoryBlockSource source(stream.blocks);
    TraceDecoder decoder;
    OLVEN::TALIX3::TraceBuffer::AcquiredEvents acquired;  // handed back for the next series, as oltbAcquire does
    double events = 0;
    for (auto _ : state) {
        source.rewind();
        decoder.clear();
        acquired = decoder.Acquire(source, 1, 2, 0, std::move(acquired));
        benchmark::DoNotOptimize(acquired.data());
        events += static_cast<double>(stream.events);
    }
    state.counters["events"] = benchmark::Counter(events, benchmark::Counter::kIsRate);
}

void readJob(benchmark::State& state, const TraceStream& stream) {
    MemoryBlockSource source(stream.blocks);
    TraceDecoder decoder;
    std::vector<oltbTraceEvent> buffer(ReadBufferEvents);
    double events = 0;
    for (auto _ : state) {
        source.rewind();
        decoder.clear();
        while (decoder.TryRead(source, buffer.data(), 0, ReadBufferEvents, 0) > 0 || !source.exhausted()) {}
        benchmark::ClobberMemory();
        events += static_cast<double>(stream.events);
    }
    state.counters["events"] = benchmark::Counter(events, benchmark::Counter::kIsRate);
}

struct Figure {
    std::string key;
    std::string title;
    std::string counter;  // the rate compared
    std::string unit;
    std::string limitTitle;
    std::string limitCounter;
    std::string limitUnit;
    std::string note;
    // Optional: a second counter of the measured side, printed inside the note ("= 1.2e9 events/s").
    std::string alsoCounter = {};
    std::string alsoUnit = {};
};

// Collects the runs instead of printing them and prints the figures at the end.
class FigureReporter final : public benchmark::BenchmarkReporter {
public:
    explicit FigureReporter(std::vector<Figure> figures) : _figures(std::move(figures)) {}

    bool ReportContext(const Context&) override { return true; }
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            const std::string name = run.benchmark_name();
            const std::string key = name.substr(0, name.find('#'));
            if (run.error_occurred) {
                std::fprintf(stderr, "%s failed: %s\n", name.c_str(), run.error_message.c_str());
                continue;
            }
            for (const auto& [counterName, counter] : run.counters) _rates[key][counterName].push_back(counter.value);
        }
    }
    void Finalize() override {
        for (const Figure& figure : _figures) {
            RatePair pair{_rates[figure.key + ".measured"][figure.counter],
                          _rates[figure.key + ".limit"][figure.limitCounter]};
            if (pair.measured.empty() || pair.limit.empty()) continue;  // left out by --benchmark_filter
            std::string note = figure.note;
            if (!figure.alsoCounter.empty()) {
                char also[64];
                std::snprintf(also, sizeof also, "%.3g %s; ",
                              median(_rates[figure.key + ".measured"][figure.alsoCounter]), figure.alsoUnit.c_str());
                note = also + note;
            }
            if (figure.key == "resort.pairs") note = reSortCost(pair) + note;
            printFigure(figure.title, pair, figure.unit, figure.limitTitle, figure.limitUnit, note);
        }
    }

private:
    // Time per pair out of order minus time per pair in order, per repetition: what one re-sort costs.
    static std::string reSortCost(const RatePair& pair) {
        std::vector<double> nanoseconds;
        for (std::size_t i = 0; i < std::min(pair.measured.size(), pair.limit.size()); ++i) {
            if (pair.measured[i] > 0 && pair.limit[i] > 0) {
                nanoseconds.push_back(EventsPerPair * (1 / pair.measured[i] - 1 / pair.limit[i]) * 1e9);
            }
        }
        char text[64];
        std::snprintf(text, sizeof text, "%.0f ns per re-sort; ", median(nanoseconds));
        return text;
    }

    std::vector<Figure> _figures;
    std::map<std::string, std::map<std::string, std::vector<double>>> _rates;
};

}  // namespace
}  // namespace oltb::bench

int main(int argc, char** argv) {
    using namespace oltb::bench;
    benchmark::Initialize(&argc, argv);

    const TraceStream counter = counterStream(65536);
    const TraceStream alternating = alternatingBitStream(65536);
    const TraceStream job = markingJobStream(0.05);
    const TraceStream acquisition = markingJobUpToEndLabel();
    const TraceStream overlapping = overlappingPairStream(32768, 16);
    const TraceStream inOrder = overlappingPairStream(32768, 32);

    struct Pair {
        std::string key;
        std::function<void(benchmark::State&)> measured;
        std::function<void(benchmark::State&)> limit;
        bool blockTimed;
    };
    const std::vector<Pair> pairs = {
        {"decode.spi32", [&](auto& s) { decodeBlocks(s, counter); }, [&](auto& s) { splitFieldsOnly(s, counter); },
         true},
        {"decode.bit1", [&](auto& s) { decodeBlocks(s, alternating); }, [&](auto& s) { splitFieldsOnly(s, counter); },
         true},
        {"decode.job", [&](auto& s) { decodeBlocks(s, job); }, [&](auto& s) { splitFieldsOnly(s, counter); }, true},
        {"acquire.job", [&](auto& s) { acquireJob(s, acquisition); }, [&](auto& s) { readJob(s, acquisition); }, false},
        {"resort.pairs", [&](auto& s) { decodeBlocks(s, overlapping); }, [&](auto& s) { decodeBlocks(s, inOrder); },
         true},
    };
    for (int repetition = 0; repetition < Repetitions; ++repetition) {
        for (const Pair& pair : pairs) {
            for (const auto& [role, function] : {std::pair{".measured", pair.measured}, {".limit", pair.limit}}) {
                const std::string name = pair.key + role + "#" + std::to_string(repetition);
                auto* registered = benchmark::RegisterBenchmark(name.c_str(), function);
                registered->MinTime(MinSecondsPerRun);
                if (pair.blockTimed) registered->UseManualTime();
            }
        }
    }

    std::printf("decoding core, 16 KiB blocks in memory, %d repetitions each\n", Repetitions);
    FigureReporter reporter({
        {"decode.spi32", "decode core, Spi0Rx (32-bit, 1 event/word)", "words", "words/s", "bare field split", "words",
         "words/s", "target >= 3e8 words/s and ratio >= 0.55"},
        {"decode.bit1", "decode core, Gate (1-bit, 32 changes/word)", "records", "events/s", "bare field split",
         "records", "records/s", "target >= 4.5e8 events/s"},
        {"decode.job", "decode core, marking job, every signal", "words", "words/s", "bare field split", "words",
         "words/s", "mixed widths, labels, re-sorts", "records", "events/s"},
        {"acquire.job", "acquisition, job labels 1..2 (in memory)", "events", "events/s", "reading the same", "events",
         "events/s", "both copy each block once, as the reader thread does"},
        {"resort.pairs", "re-sort: 1 event among 16 samples, per pair", "records", "events/s", "same words in order",
         "records", "events/s", "33 events and one re-sort per pair"},
    });
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
