// Fuzz target: any text as a job file of the simulator. The parser takes it as commands within their ranges, each
// with its line, or refuses it with one short printable line naming the file and the line.
#include "fuzz/FuzzCheck.h"

#include "tools/oltb-sim/JobFile.h"

#include <cmath>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace oltb::sim;
    try {
        const JobProgram job = parseJob(std::string(reinterpret_cast<const char*>(data), size), "fuzz.job");
        for (const JobCommand& command : job.commands) {
            FUZZ_CHECK(command.line >= 1 && std::isfinite(command.value));
            FUZZ_CHECK(std::abs(command.x) <= FieldLimitUnits && std::abs(command.y) <= FieldLimitUnits);
        }
    } catch (const JobFileError& error) {
        const std::string message = error.what();
        FUZZ_CHECK(message.rfind("fuzz.job", 0) == 0 && message.size() < 200);
        for (const char c : message) FUZZ_CHECK(c >= 0x20 && c < 0x7F);
    }
    return 0;
}
