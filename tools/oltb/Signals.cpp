// The signal table, built from the public header: the configuration record's fields and the event types of the
// same names. The sample widths are those of the trace words: a word carries 32 / width samples of a signal.
#include "tools/oltb/Signals.h"

#include <algorithm>
#include <cctype>

namespace oltb::cli {

namespace {

#define OLTB_SIGNAL(group, name, bits) \
    SignalInfo { #name, group, oltbEvent##name, bits, &oltbTraceBufferConfig_Struct::name }

// Built on first use, so that other files' static data may already use the table.
const std::vector<SignalInfo>& signalTable() {
    static const std::vector<SignalInfo> table = {
        OLTB_SIGNAL("Conf0", PortA, 16),
        OLTB_SIGNAL("Conf0", PortB, 16),
        OLTB_SIGNAL("Conf0", PortC, 16),
        OLTB_SIGNAL("Conf0", PortDLow, 16),
        OLTB_SIGNAL("Conf0", PortDHigh, 8),
        OLTB_SIGNAL("Conf0", PortELow, 16),
        OLTB_SIGNAL("Conf0", PortEHigh, 8),
        OLTB_SIGNAL("Conf0", PortLaserIn, 2),
        OLTB_SIGNAL("Conf0", PortLaserIn0, 1),
        OLTB_SIGNAL("Conf0", PortLaserIn1, 1),
        OLTB_SIGNAL("Conf0", PortLaserOut, 4),
        OLTB_SIGNAL("Conf0", PortLaserOut0, 1),
        OLTB_SIGNAL("Conf0", PortLaserOut1, 1),
        OLTB_SIGNAL("Conf0", PortLaserOut2, 1),
        OLTB_SIGNAL("Conf0", Dac0, 16),
        OLTB_SIGNAL("Conf0", Dac1, 16),
        OLTB_SIGNAL("Conf0", LaserPower16, 16),
        OLTB_SIGNAL("Conf0", LaserPower8, 8),
        OLTB_SIGNAL("Conf0", LaserPower4, 4),
        OLTB_SIGNAL("Conf0", LaserPower2, 2),
        OLTB_SIGNAL("Conf0", LaserPower1, 1),
        OLTB_SIGNAL("Conf0", Fps, 1),
        OLTB_SIGNAL("Conf0", Gate, 1),
        OLTB_SIGNAL("Conf0", Lm, 1),
        OLTB_SIGNAL("Conf0", LaserTriggered, 1),
        OLTB_SIGNAL("Conf0", StartMark, 1),
        OLTB_SIGNAL("Conf0", AbortMark, 1),
        OLTB_SIGNAL("Conf1", Head0TxX, 32),
        OLTB_SIGNAL("Conf1", Head0TxY, 32),
        OLTB_SIGNAL("Conf1", Head0TxZ, 32),
        OLTB_SIGNAL("Conf1", Head0RxX, 32),
        OLTB_SIGNAL("Conf1", Head0RxY, 32),
        OLTB_SIGNAL("Conf1", Head0RxZ, 32),
        OLTB_SIGNAL("Conf1", Head1TxX, 32),
        OLTB_SIGNAL("Conf1", Head1TxY, 32),
        OLTB_SIGNAL("Conf1", Head1TxZ, 32),
        OLTB_SIGNAL("Conf1", Head1RxX, 32),
        OLTB_SIGNAL("Conf1", Head1RxY, 32),
        OLTB_SIGNAL("Conf1", Head1RxZ, 32),
        OLTB_SIGNAL("Conf2", LaserPower0_16, 16),
        OLTB_SIGNAL("Conf2", LaserPower0_8, 8),
        OLTB_SIGNAL("Conf2", LaserPower0_4, 4),
        OLTB_SIGNAL("Conf2", LaserPower0_2, 2),
        OLTB_SIGNAL("Conf2", LaserPower0_1, 1),
        OLTB_SIGNAL("Conf2", LaserPower1_16, 16),
        OLTB_SIGNAL("Conf2", LaserPower1_8, 8),
        OLTB_SIGNAL("Conf2", LaserPower1_4, 4),
        OLTB_SIGNAL("Conf2", LaserPower1_2, 2),
        OLTB_SIGNAL("Conf2", LaserPower1_1, 1),
        OLTB_SIGNAL("Conf3", Spi0Rx, 32),
        OLTB_SIGNAL("Conf3", Spi1Rx, 32),
        OLTB_SIGNAL("Conf3", Spi2Rx, 32),
        OLTB_SIGNAL("Conf3", Spi3Rx, 32),
        OLTB_SIGNAL("Conf3", Quadrature0I, 1),
        OLTB_SIGNAL("Conf3", Quadrature0A, 1),
        OLTB_SIGNAL("Conf3", Quadrature0B, 1),
        OLTB_SIGNAL("Conf3", Quadrature1I, 1),
        OLTB_SIGNAL("Conf3", Quadrature1A, 1),
        OLTB_SIGNAL("Conf3", Quadrature1B, 1),
        OLTB_SIGNAL("Conf3", IOEventChange, 32),
        OLTB_SIGNAL("Conf3", PositionEventChange, 32),
        OLTB_SIGNAL("Conf3", ControlEventChange, 32),
        // A label word carries two 16-bit halves; only the upper one, the label number, becomes an event.
        OLTB_SIGNAL("Conf3", Label, 16),
    };
    return table;
}

#undef OLTB_SIGNAL

bool equalIgnoringCase(std::string_view left, std::string_view right) {
    return left.size() == right.size() &&
           std::equal(left.begin(), left.end(), right.begin(), [](char a, char b) {
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

const std::vector<SignalInfo>& allSignals() {
    return signalTable();
}

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
