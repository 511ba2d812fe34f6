// The options of "oltb monitor" (its command line), apart from the monitor itself, so that an oltb built without
// the web server still lists the command and says why it cannot run it.
#include "tools/oltb/Commands.h"

#include <CLI/CLI.hpp>

#include <cmath>
#include <cstdlib>
#include <memory>

namespace oltb::cli {

namespace {

CLI::Validator finiteBetween(double least, double most) {
    return CLI::Validator(
        [least, most](std::string& input) -> std::string {
            char* end = nullptr;
            const double value = std::strtod(input.c_str(), &end);
            if (end == input.c_str() || *end != '\0' || !std::isfinite(value) || value < least || value > most) {
                return "must be a number from " + CLI::detail::to_string(least) + " to " +
                       CLI::detail::to_string(most) + ", not '" + input + "'";
            }
            return {};
        },
        "NUMBER");
}

}  // namespace

Command addMonitorCommand(CLI::App& app) {
    auto shared = std::make_shared<MonitorOptions>();
    MonitorOptions& options = *shared;
    CLI::App* command = app.add_subcommand(
        "monitor", "watch a machine job after job: a live page in the browser and metrics for Prometheus");
    const CLI::Range labelRange(0, 65535);
    command->add_option("host", options.host, "the card's address (name or number; the port is always 9495)")
        ->required();
    command->add_option("--start", options.startLabel, "the label that begins each job")->required()->check(labelRange);
    command->add_option("--end", options.endLabel, "the label that ends it")->required()->check(labelRange);
    command->add_option("--name", options.name, "the machine's name on the page and in the metrics (default: host)");
    command
        ->add_option("--listen", options.listen,
                     "ADDRESS:PORT of the live page and the metrics; another address than loopback only when "
                     "the figures may be seen from elsewhere")
        ->capture_default_str();
    command->add_option("--save-dir", options.saveDir, "keep each job's capture there as an .h5 file");
    command
        ->add_option("--save-limit-mb", options.saveLimitMb,
                     "beyond this many MB of the machine's files in --save-dir the oldest are removed")
        ->capture_default_str()
        ->check(finiteBetween(1, 1e9));
    command->add_option("--history", options.history, "jobs whose figures the page and /jobs.json keep")
        ->capture_default_str()
        ->check(CLI::Range(std::size_t{1}, std::size_t{1000000}));
    command->add_option("-s,--signals", options.signals,
                        "signals to trace (default: the head's commanded and actual positions, Gate, LaserPower16 "
                        "and Label)");
    command
        ->add_option("--max-wait", options.maxWaitSeconds,
                     "a start label not seen this long is said on the page; a job whose end label does not come "
                     "within it is dropped (seconds)")
        ->capture_default_str()
        ->check(finiteBetween(0.1, 1e6));
    command->add_option("--head", options.analysis.head, "scan head to analyze")
        ->capture_default_str()
        ->check(CLI::Range(0, 1));
    command->add_option("--settle-band", options.analysis.settleBandUnits, "as for analyze")
        ->capture_default_str()
        ->check(finiteBetween(1e-3, 1e9));
    command->add_option("--max-edge-dose", options.analysis.maxEdgeDose, "as for analyze")
        ->capture_default_str()
        ->check(finiteBetween(1, 100));
    command->footer(
        "Runs until Ctrl-C or SIGTERM. Serves http://ADDRESS:PORT/ (the live page), /metrics (Prometheus), /jobs.json\n"
        "and /report (the last job's report page); nothing it serves changes anything. A lost connection is tried\n"
        "again, with pauses growing to 30 s, and the signals are set again.\n"
        "Exit codes: 0 ended by Ctrl-C or SIGTERM, 2 usage error, 4 the save directory cannot be created,\n"
        "5 the address cannot be listened on (in use, not an address of this machine), 1 unexpected failure.");
    return {command, [shared] { return runMonitor(*shared); }};
}

}  // namespace oltb::cli
