// "oltb signals" lists the traceable signals; "oltb config" shows (and optionally replaces) the server's choice.
#include "tools/oltb/CommandOptions.h"
#include "tools/oltb/CommandSupport.h"
#include "tools/oltb/Commands.h"
#include "tools/oltb/Errors.h"
#include "tools/oltb/Signals.h"

#include <cstdio>
#include <iostream>
#include <memory>

namespace oltb::cli {

namespace {

void printSignalTable(std::ostream& out, const oltbTraceBufferConfig_Struct* config, bool allRows = true) {
    char line[120];
    std::snprintf(line, sizeof(line), "%-20s %-6s %4s %4s%s\n", "signal", "group", "type", "bits",
                  config != nullptr ? "  traced" : "");
    out << line;
    for (const SignalInfo& signal : allSignals()) {
        if (!allRows && !(config->*signal.configFlag)) {
            continue;
        }
        const char* traced = config == nullptr ? "" : (config->*signal.configFlag ? "  yes" : "  -");
        std::snprintf(line, sizeof(line), "%-20s %-6s %4d %4u%s\n", signal.name, signal.group,
                      static_cast<int>(signal.type), signal.bitsPerSample, traced);
        out << line;
    }
}

void printGroupLegend(std::ostream& out) {
    out << '\n';
    for (const char* group : {"Conf0", "Conf1", "Conf2", "Conf3"}) {
        out << group << "  " << describeGroup(group) << '\n';
    }
    out << "Head positions are 20-bit two's complement; capture and acquire write them as signed numbers\n"
           "(X channels negated) unless --raw is given. Lists of signals take names, group names and 'all'.\n";
}

int runSignals() {
    printSignalTable(std::cout, nullptr);
    printGroupLegend(std::cout);
    return ExitSuccess;
}

int runConfig(const ConfigOptions& options) {
    std::optional<std::vector<const SignalInfo*>> wanted;
    if (options.all) {
        wanted = parseSignalList("all");
    } else if (options.none) {
        wanted = std::vector<const SignalInfo*>{};
    } else {
        wanted = parseWantedSignals(options.setSignals);
    }
    std::unique_ptr<Connection> connection;
    oltbTraceBufferConfig_Struct config;
    runInterruptibly(
        [&] {
            connection = connectTo(options.host);
            if (wanted) {
                oltbInitConfig(&config);
                selectOnly(config, *wanted);
                connection->setConfig(config);
            }
            config = connection->getConfig();
        },
        [] {});
    std::cout << "server " << options.host << ", configuration version " << config.Version << ", "
              << signalsIn(config).size() << " of " << allSignals().size() << " signals traced\n";
    printSignalTable(std::cout, &config, options.allRows);
    return ExitSuccess;
}

}  // namespace

Command addSignalsCommand(CLI::App& app) {
    CLI::App* command =
        app.add_subcommand("signals", "list every traceable signal: group, event type, bits per sample");
    command->footer("The table is the tool's own: no server is asked.");
    return {command, [] { return runSignals(); }};
}

Command addConfigCommand(CLI::App& app) {
    auto options = std::make_shared<ConfigOptions>();
    ConfigOptions& config = *options;
    CLI::App* command = app.add_subcommand("config",
                                           "show the signals the server traces; replace them first "
                                           "with --set, --all or --none");
    command->add_option("host", config.host, "server address (name or number)")->required();
    auto* setOption =
        command->add_option("--set", config.setSignals, "trace exactly these signals (comma list)")->check(NotEmpty);
    auto* allOption = command->add_flag("--all", config.all, "trace every signal");
    auto* noneOption = command->add_flag("--none", config.none, "trace no signal");
    command->add_flag("--all-rows", config.allRows, "list the signals that are not traced as well");
    setOption->excludes(allOption)->excludes(noneOption);
    allOption->excludes(noneOption);
    command->footer(std::string("The configuration stays on the server for the clients that come after.\n") +
                    ServerExitCodes);

    return {command, [options] { return runConfig(*options); }};
}

}  // namespace oltb::cli
