// "oltb analyze": what a trace says about the card's tuning (the analysis library), as a summary with suggestions
// or as one JSON object; with --each, every run between two labels and the spread of each figure over the runs.
// The trace comes from a capture file or, with --start and --end, from the server through the same acquisition as
// "oltb acquire". --settings-out and --jump-table-out write the suggested settings as files to take to the card.
#include "analysis/AnalysisReport.h"
#include "analysis/Repeats.h"
#include "analysis/TraceAnalysis.h"
#include "tools/oltb/CommandOptions.h"
#include "tools/oltb/CommandSupport.h"
#include "tools/oltb/Commands.h"
#include "tools/oltb/Errors.h"
#include "tools/oltb/SettingsFiles.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

namespace oltb::cli {

namespace {

void writeStandardOutput(const std::string& text) {
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0) {
        throw OutputError("cannot write to standard output", errno == EPIPE);
    }
}

void writeSettingsFiles(const AnalyzeOptions& options, const analysis::Settings& settings,
                        const std::vector<analysis::JumpDelay>& table, std::size_t runs) {
    const SettingsSource source{options.input, options.head, options.settleBandUnits, options.maxEdgeDose, runs};
    // Both texts first, so that a table that cannot be written leaves no settings file either.
    const std::string settingsText = options.settingsOut.empty() ? "" : settingsFileText(settings, table, source);
    const std::string tableText = options.jumpTableOut.empty() ? "" : jumpTableText(settings, table, source);
    if (!options.settingsOut.empty()) writeWholeFile(options.settingsOut, settingsText);
    if (!options.jumpTableOut.empty()) writeWholeFile(options.jumpTableOut, tableText);
}

int runAnalyze(const AnalyzeOptions& options) {
    for (const std::string* out : {&options.settingsOut, &options.jumpTableOut}) {
        if (!out->empty() && !options.startGiven && *out == options.input) {
            throw UsageError("the settings would replace the capture " + options.input);
        }
    }
    std::optional<std::vector<oltbTraceEvent>> events = eventsToAnalyze(options);
    if (!events) {
        printError("acquisition interrupted before the end label; nothing analyzed");
        return ExitInterrupted;
    }

    if (!options.each.empty()) {
        analysis::Repeatability repeats;
        try {
            repeats = analysis::analyzeEach(events->data(), events->size(), static_cast<std::uint16_t>(options.each[0]),
                                            static_cast<std::uint16_t>(options.each[1]), analysisOptions(options));
        } catch (const analysis::RunsError& error) {
            throw UsageError(options.input + ": " + error.what());
        }
        writeSettingsFiles(options, repeats.settings, repeats.jumpDelayTable, repeats.runs);
        writeStandardOutput(options.json ? analysis::toJson(repeats)
                                         : analysis::toSummary(repeats, options.input, options.unitsPerMm));
        return ExitSuccess;
    }

    const analysis::Result result = analyzeEvents(*events, options);
    writeSettingsFiles(options, result.settings, result.jumpDelayTable, 1);
    if (options.json) {
        writeStandardOutput(analysis::toJson(result));
    } else {
        analysis::SummaryOptions summary;
        summary.source = options.input;
        summary.unitsPerMm = options.unitsPerMm;
        writeStandardOutput(analysis::toSummary(result, summary));
    }
    return ExitSuccess;
}

}  // namespace

Command addAnalyzeCommand(CLI::App& app) {
    auto options = std::make_shared<AnalyzeOptions>();
    AnalyzeOptions& analyze = *options;
    CLI::App* command = app.add_subcommand(
        "analyze", "measure tracking error, following error, laser timing and jump settling in a trace");
    const std::function<void()> labelsGiven = addAnalysisOptions(*command, analyze);
    command->add_flag("--json", analyze.json, "one JSON object instead of the summary");
    command
        ->add_option("--each", analyze.each,
                     "every run between labels START and END of the trace, and how much each figure "
                     "moves from run to run")
        ->expected(2)
        ->check(LabelRange);
    command->add_option("--settings-out", analyze.settingsOut,
                        "write the suggested settings as JSON (oltb-sim --settings reads it)");
    command->add_option("--jump-table-out", analyze.jumpTableOut,
                        "write the jump delay by length as a table of LENGTH DELAY_US lines (oltb-sim "
                        "--jump-table reads it)");
    command->footer(
        "Positions are in head units unless --units-per-mm is given; times in us of the capture's time_us.\n"
        "Exit codes: 0 success, 2 usage error or a file that is not an oltb capture (the message names the line),\n"
        "3 server error, 4 a file that cannot be read, 1 unexpected failure of the tool itself.");

    return {command, [options, labelsGiven] {
                labelsGiven();
                return runAnalyze(*options);
            }};
}

}  // namespace oltb::cli
