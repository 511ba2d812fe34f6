// The trace analysis on a synthetic job of 4 million events (head 0 commanded and actual positions every 10 us,
// the gate; the mirror behind by 237.3 us through a second-order lag), in events/s. The limit is one pass that
// only sorts the same events into the four position channels, which every analysis has to do at least.
// `oltb analyze` must reach 2e6 events/s with the file's parsing included; the analysis alone is budgeted at
// 4e6 events/s or more, leaving the rest of the time to the parsing.
#include "bench/FigureReport.h"

#include "analysis/SyntheticTrace.h"
#include "analysis/TraceAnalysis.h"

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

namespace oltb::bench {
namespace {

constexpr int Repetitions = 5;
constexpr std::size_t Events = 4'000'000;

std::vector<oltbTraceEvent> fourMillionEvents() {
    analysis::SyntheticSettings settings;
    settings.naturalHz = 1500;
    settings.damping = 0.7;
    settings.laserOnOffsetUs = -20;
    const std::vector<analysis::Move> job = analysis::exampleJob();
    const std::size_t perJob = analysis::syntheticTrace(settings, job).size();
    settings.repeats = static_cast<unsigned>(Events / perJob + 1);
    std::vector<oltbTraceEvent> events = analysis::syntheticTrace(settings, job);
    events.resize(Events);
    return events;
}

void analyzeAll(benchmark::State& state, const std::vector<oltbTraceEvent>& events) {
    for (auto _ : state) {
        analysis::Result result = analysis::analyze(events);
        benchmark::DoNotOptimize(result.trackingErrorXUs);
    }
    state.counters["events"] =
        benchmark::Counter(static_cast<double>(events.size() * state.iterations()), benchmark::Counter::kIsRate);
}

void splitOnly(benchmark::State& state, const std::vector<oltbTraceEvent>& events) {
    for (auto _ : state) {
        std::vector<double> channels[4];
        for (const oltbTraceEvent& event : events) {
            switch (event.Type) {
                case oltbEventHead0TxX:
                    channels[0].push_back(event.Value);
                    break;
                case oltbEventHead0TxY:
                    channels[1].push_back(event.Value);
                    break;
                case oltbEventHead0RxX:
                    channels[2].push_back(event.Value);
                    break;
                case oltbEventHead0RxY:
                    channels[3].push_back(event.Value);
                    break;
                default:
                    break;
            }
        }
        benchmark::DoNotOptimize(channels[0].data());
    }
    state.counters["events"] =
        benchmark::Counter(static_cast<double>(events.size() * state.iterations()), benchmark::Counter::kIsRate);
}

// Collects the events/s of every run and prints one figure at the end.
class Reporter : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context&) override { return true; }
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            const std::string name = run.benchmark_name();
            const auto found = run.counters.find("events");
            if (found != run.counters.end()) {
                (name.rfind("analysis.measured", 0) == 0 ? _rates.measured : _rates.limit)
                    .push_back(found->second.value);
            }
        }
    }
    void Finalize() override {
        printFigure("analysis, 4e6 events of a synthetic job", _rates, "events/s", "splitting into channels only",
                    "events/s", "target >= 4e6 events/s, 2e6 with the parsing");
    }

private:
    RatePair _rates;
};

}  // namespace
}  // namespace oltb::bench

int main(int argc, char** argv) {
    using namespace oltb::bench;
    benchmark::Initialize(&argc, argv);
    const std::vector<oltbTraceEvent> events = fourMillionEvents();
    for (int repetition = 0; repetition < Repetitions; ++repetition) {
        const std::string suffix = "#" + std::to_string(repetition);
        benchmark::RegisterBenchmark(("analysis.measured" + suffix).c_str(),
                                     [&](benchmark::State& state) { analyzeAll(state, events); })
            ->Unit(benchmark::kMillisecond)
            ->Iterations(2);
        benchmark::RegisterBenchmark(("analysis.limit" + suffix).c_str(),
                                     [&](benchmark::State& state) { splitOnly(state, events); })
            ->Unit(benchmark::kMillisecond)
            ->Iterations(2);
    }
    std::printf("trace analysis, %zu events in memory, %d repetitions each\n", events.size(), Repetitions);
    Reporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
