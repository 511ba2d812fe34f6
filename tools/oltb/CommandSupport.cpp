#include "tools/oltb/CommandSupport.h"

#include "tools/oltb/Errors.h"
#include "tools/oltb/Interrupt.h"

#include <algorithm>
#include <iostream>

namespace oltb::cli {

std::optional<std::vector<const SignalInfo*>> parseWantedSignals(const std::string& list) {
    if (list.empty()) {
        return std::nullopt;
    }
    try {
        return parseSignalList(list);
    } catch (const UnknownSignalError& error) {
        throw UsageError(error.what());
    }
}

std::unique_ptr<Connection> connectTo(const std::string& host) {
    InterruptsBlockedForNewThreads blocked;
    return std::make_unique<Connection>(host);
}

std::vector<const SignalInfo*> chooseSignals(Connection& connection,
                                             const std::optional<std::vector<const SignalInfo*>>& wanted,
                                             bool withLabel) {
    if (wanted || withLabel) {
        oltbTraceBufferConfig_Struct config = connection.getConfig();
        if (wanted) {
            selectOnly(config, *wanted);
        }
        if (withLabel) {
            config.Label = true;
        }
        connection.setConfig(config);
    }
    return signalsIn(connection.getConfig());
}

void reportResult(const Outputs& outputs, const Summary& summary) {
    for (const std::string& warning : outputs.warnings()) {
        printError("warning: " + warning);
    }
    std::ostream& out = outputs.csvOnStandardOutput() ? std::cerr : std::cout;
    summary.print(out);
    out << summary.totalEvents() << " events written to " << outputs.describe() << '\n';
    out.flush();
}

void printError(const std::string& text) {
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find('\n', begin), text.size());
        std::cerr << "oltb: " << text.substr(begin, end - begin) << '\n';
        begin = end + 1;
    }
    std::cerr.flush();
}

}  // namespace oltb::cli
