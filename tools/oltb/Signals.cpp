// The tool's signal table: the library's list of signals (events/SignalList.h), with the groups by name.
#include "tools/oltb/Signals.h"

#include "events/SignalList.h"

#include <algorithm>
#include <cctype>

namespace oltb::cli {

namespace {

// Built on first use, so that other files' static data may already use the table.
const std::vector<SignalInfo>& signalTable() {
    static const std::vector<SignalInfo> table = [] {
        static constexpr const char* Groups[] = {"Conf0", "Conf1", "Conf2", "Conf3"};
        std::vector<SignalInfo> signals;
        for (const auto& signal : OLVEN::TALIX3::TraceBuffer::Signals) {
            signals.push_back({signal.name, Groups[signal.group], signal.type, signal.bitsPerSample, signal.flag});
        }
        return signals;
    }();
    return table;
}

bool equalIgnoringCase(std::string_view left, std::string_view right) {
    return left.size() == right.size() && std::equal(left.begin(), left.end(), right.begin(), [](char a, char b) {
               return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
           });
}

std::string_view trimBlanks(std::string_view text) {
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos) {
        return {};
    }
    const auto last = text.find_last_not_of(" \t");
    return text.substr(first, last - first + 1);
}

}  // namespace

const char* describeGroup(std::string_view group) {
    if (group == "Conf0") {
        return "digital ports, DACs, laser lines, marks";
    }
    if (group == "Conf1") {
        return "scan head positions (Tx commanded, Rx actual)";
    }
    if (group == "Conf2") {
        return "laser power of laser 0 and laser 1";
    }
    if (group == "Conf3") {
        return "SPI receivers, encoders, event changes, labels";
    }
    return "";
}

const std::vector<SignalInfo>& allSignals() { return signalTable(); }

const SignalInfo* findSignalByType(int type) {
    const auto found = std::find_if(signalTable().begin(), signalTable().end(),
                                    [type](const SignalInfo& signal) { return signal.type == type; });
    return found == signalTable().end() ? nullptr : &*found;
}

std::string signalNameOf(int type) {
    const SignalInfo* signal = findSignalByType(type);
    return signal != nullptr ? signal->name : std::string();
}

const SignalInfo* findSignalByName(std::string_view name) {
    const auto found = std::find_if(signalTable().begin(), signalTable().end(),
                                    [name](const SignalInfo& signal) { return equalIgnoringCase(signal.name, name); });
    return found == signalTable().end() ? nullptr : &*found;
}

bool isHeadPosition(oltbTraceEventType type) {
    const SignalInfo* signal = findSignalByType(type);
    return signal != nullptr && std::string_view(signal->group) == "Conf1";
}

std::vector<const SignalInfo*> parseSignalList(std::string_view list) {
    const std::vector<SignalInfo>& signals = signalTable();
    std::vector<bool> chosen(signals.size(), false);
    bool anyName = false;
    while (true) {
        const auto comma = list.find(',');
        const std::string_view word = trimBlanks(list.substr(0, comma));
        if (!word.empty()) {
            anyName = true;
            bool known = false;
            for (std::size_t index = 0; index < signals.size(); ++index) {
                if (equalIgnoringCase(word, "all") || equalIgnoringCase(word, signals[index].group) ||
                    equalIgnoringCase(word, signals[index].name)) {
                    chosen[index] = true;
                    known = true;
                }
            }
            if (!known) {
                throw UnknownSignalError("unknown signal '" + std::string(word) + "' (see: oltb signals)");
            }
        }
        if (comma == std::string_view::npos) {
            break;
        }
        list.remove_prefix(comma + 1);
    }
    if (!anyName) {
        throw UnknownSignalError("the signal list names no signal (see: oltb signals)");
    }
    std::vector<const SignalInfo*> result;
    for (std::size_t index = 0; index < signals.size(); ++index) {
        if (chosen[index]) {
            result.push_back(&signals[index]);
        }
    }
    return result;
}

std::vector<const SignalInfo*> signalsIn(const oltbTraceBufferConfig_Struct& config) {
    std::vector<const SignalInfo*> result;
    for (const SignalInfo& signal : signalTable()) {
        if (config.*signal.configFlag) {
            result.push_back(&signal);
        }
    }
    return result;
}

void selectOnly(oltbTraceBufferConfig_Struct& config, const std::vector<const SignalInfo*>& signals) {
    for (const SignalInfo& signal : signalTable()) {
        config.*signal.configFlag = std::find(signals.begin(), signals.end(), &signal) != signals.end();
    }
}

}  // namespace oltb::cli
