// "oltb convert IN OUT": a capture that oltb wrote (.csv or .h5) into another file (.csv, .vcd or .h5), a batch at a
// time through the capture reader and the writers. A conversion that fails or is interrupted removes its output, so
// that no partial file passes for a whole one.
#include "tools/oltb/CaptureReader.h"
#include "tools/oltb/CommandSupport.h"
#include "tools/oltb/Commands.h"
#include "tools/oltb/Errors.h"
#include "tools/oltb/Interrupt.h"

namespace oltb::cli {

namespace {

constexpr std::size_t BatchEvents = 4096;

}  // namespace

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

}  // namespace oltb::cli
