// "oltb convert IN OUT": a capture that oltb wrote (.csv or .h5) into another file (.csv, .vcd or .h5), a batch at a
// time through the capture reader and the writers. A conversion that fails or is interrupted removes its output, so
// that no partial file passes for a whole one.
#include "tools/oltb/CaptureReader.h"
#include "tools/oltb/CommandOptions.h"
#include "tools/oltb/CommandSupport.h"
#include "tools/oltb/Commands.h"
#include "tools/oltb/Errors.h"
#include "tools/oltb/Interrupt.h"

#include <memory>

namespace oltb::cli {

namespace {

constexpr std::size_t BatchEvents = 4096;

int runConvert(const ConvertOptions& options) {
    Outputs outputs({options.output});
    outputs.refuseInput(options.input);
    CaptureReader reader(options.input);
    outputs.open();
    try {
        SeriesInfo info = reader.info();
        info.vcd = options.vcd;
        outputs.begin(info);
        Summary summary;
        std::vector<oltbTraceEvent> batch(BatchEvents);
        while (const std::size_t count = reader.read(batch.data(), batch.size())) {
            if (interruptRequested()) {
                outputs.discard();
                printError("conversion interrupted; nothing written");
                return ExitInterrupted;
            }
            for (std::size_t index = 0; index < count; ++index) {
                summary.add(batch[index]);
            }
            outputs.write(batch.data(), count);
        }
        finishAndReport(outputs, summary);
        return ExitSuccess;
    } catch (...) {
        outputs.discard();
        throw;
    }
}

}  // namespace

Command addConvertCommand(CLI::App& app) {
    auto options = std::make_shared<ConvertOptions>();
    ConvertOptions& convert = *options;
    CLI::App* command =
        app.add_subcommand("convert", "turn a capture of oltb (.csv or .h5) into another format (.csv, .vcd, .h5)");
    command->add_option("input", convert.input, "the capture to read: a .csv or .h5 file written by oltb")->required();
    command
        ->add_option("output", convert.output,
                     "the file to write: .csv, .vcd or .h5 (- for CSV on "
                     "standard output)")
        ->required();
    addVcdOptions(*command, convert.vcd);
    command->footer(
        R"(Reads and writes a batch at a time, so files of any length convert in little memory. A CSV has no
server, labels or start time for an .h5 file to keep. A failed or interrupted conversion removes its output.
Exit codes: 0 success, 2 usage error (also an input that is no capture of oltb: the message names the file and
the line), 4 a file could not be read or written (missing, damaged HDF5), 130 interrupted, 1 unexpected failure.)");

    return {command, [options] { return runConvert(*options); }};
}

}  // namespace oltb::cli
