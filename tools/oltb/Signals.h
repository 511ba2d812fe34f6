// The table of traceable signals: each signal's name (as the configuration record's field), its group, the event
// type its events carry, the width of one sample and the flag that selects it in a configuration record.
#pragma once

#include "api/oltb.h"

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace oltb::cli {

struct SignalInfo {
    const char* name;                                // e.g. "Head0TxX"
    const char* group;                               // "Conf0" .. "Conf3": the signal's 32-bit mask on the server
    oltbTraceEventType type;                         // event type of its events (group base + signal number)
    unsigned bitsPerSample;                          // 1 .. 32
    bool oltbTraceBufferConfig_Struct::*configFlag;  // selects the signal in a configuration record
};

// What a group stands for, for people who do not know the server's mask names.
const char* describeGroup(std::string_view group);

// All 63 signals, in the order of the configuration record.
const std::vector<SignalInfo>& allSignals();

// The signal whose events carry `type`; null for the time-base type and numbers that are no event type.
const SignalInfo* findSignalByType(int type);

// The name of that signal, e.g. "Head0TxX"; empty when there is none (the analysis then says "type N").
std::string signalNameOf(int type);

// The signal named `name`, compared without regard to case; null when there is none.
const SignalInfo* findSignalByName(std::string_view name);

// Head positions: raw 20-bit two's-complement values that oltbToSignedPosition converts.
bool isHeadPosition(oltbTraceEventType type);

class UnknownSignalError : public std::invalid_argument {
public:
    using std::invalid_argument::invalid_argument;
};

// Parses a comma-separated list of signal names, group names (Conf0 .. Conf3, all signals of the group) and
// "all". Case does not matter; blanks around names are ignored; each signal appears once, in table order.
// Throws UnknownSignalError naming the first word that is neither, or for a list without any name.
std::vector<const SignalInfo*> parseSignalList(std::string_view list);

// The signals whose flags are set in `config`, in table order.
std::vector<const SignalInfo*> signalsIn(const oltbTraceBufferConfig_Struct& config);

// Sets exactly the flags of `signals` in `config` and clears all others; Version is left alone.
void selectOnly(oltbTraceBufferConfig_Struct& config, const std::vector<const SignalInfo*>& signals);

}  // namespace oltb::cli
