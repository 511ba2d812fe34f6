// Only changes are dumped: a sample equal to the variable's current value adds nothing to a waveform. Before its
// first event a variable is x (unknown), since the card's signals have no known state before they appear, unless the
// command knows its value at time 0 (an acquisition sees the events before its start label).
#include "tools/oltb/VcdWriter.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <sstream>

namespace oltb::cli {

namespace {

constexpr char FirstIdentifierChar = '!';
constexpr std::size_t IdentifierChars = '~' - '!' + 1;

std::uint32_t maskToWidth(std::int32_t value, unsigned bits) {
    const auto raw = static_cast<std::uint32_t>(value);
    return bits >= 32 ? raw : raw & ((1U << bits) - 1U);
}

// The tick from which the event's Time is counted: Time is (Timestamp - reference) / 64 us. An event earlier than
// its reference (negative Time) becomes the origin itself, since a dump cannot hold negative times.
std::uint64_t referenceTickOf(const oltbTraceEvent& event) {
    const double ticksSinceReference = std::round(event.Time * 64.0);
    if (!(ticksSinceReference >= 0.0) || ticksSinceReference > static_cast<double>(event.Timestamp)) {
        return event.Timestamp;
    }
    return event.Timestamp - static_cast<std::uint64_t>(ticksSinceReference);
}

// The longest line of an event: '#', a time of up to 20 digits, a value of up to 32 digits and an identifier.
constexpr std::size_t MaxEventBytes = 64;

// "b<binary without leading zeros> " of a value of more than one bit.
char* formatBinary(char* place, std::uint32_t value) {
    *place++ = 'b';
    const int digits = value == 0 ? 1 : 32 - __builtin_clz(value);
    for (int bit = digits - 1; bit >= 0; --bit) {
        *place++ = static_cast<char>('0' + ((value >> bit) & 1U));
    }
    *place++ = ' ';
    return place;
}

// The time unit as the dump's header writes it.
std::string unitName(std::uint64_t picoseconds) {
    switch (picoseconds) {
        case 1000:
            return "1 ns";
        case 10000:
            return "10 ns";
        case 100000:
            return "100 ns";
        case 1000000:
            return "1 us";
        default:
            return "1 ps";
    }
}

}  // namespace

VcdWriter::VcdWriter(std::ostream& out, std::vector<const SignalInfo*> signals, bool signedPositions,
                     VcdTimeZero timeZero)
    : VcdWriter(out, std::move(signals), signedPositions, timeZero, VcdFormat{}, {}) {}

VcdWriter::VcdWriter(int descriptor, std::vector<const SignalInfo*> signals, bool signedPositions, VcdTimeZero timeZero)
    : VcdWriter(descriptor, std::move(signals), signedPositions, timeZero, VcdFormat{}, {}) {}

VcdWriter::VcdWriter(int descriptor, std::vector<const SignalInfo*> signals, bool signedPositions, VcdTimeZero timeZero,
                     const VcdFormat& format, const std::vector<oltbTraceEvent>& valuesAtZero)
    : _out(descriptor), _signedPositions(signedPositions), _timeZero(timeZero) {
    choose(format, signals);
    addVariables(signals, valuesAtZero);
}

VcdWriter::VcdWriter(std::ostream& out, std::vector<const SignalInfo*> signals, bool signedPositions,
                     VcdTimeZero timeZero, const VcdFormat& format, const std::vector<oltbTraceEvent>& valuesAtZero)
    : _out(out), _signedPositions(signedPositions), _timeZero(timeZero) {
    choose(format, signals);
    addVariables(signals, valuesAtZero);
}

// sigrok's import reads 1-bit wires only and stops at the first value of a wider one, so a dump for it leaves the
// others out.
void VcdWriter::choose(const VcdFormat& format, std::vector<const SignalInfo*>& signals) {
    _timescalePs = format.timescalePs != 0 ? format.timescalePs : format.sigrok ? 1000000 : 1;
    if (format.sigrok) {
        const auto wide = std::stable_partition(signals.begin(), signals.end(),
                                                [](const SignalInfo* signal) { return signal->bitsPerSample == 1; });
        _leftOut.assign(wide, signals.end());
        signals.erase(wide, signals.end());
    }
}

void VcdWriter::addVariables(const std::vector<const SignalInfo*>& signals,
                             const std::vector<oltbTraceEvent>& valuesAtZero) {
    _variableOfType.fill(-1);
    for (std::size_t index = 0; index < signals.size(); ++index) {
        _variables.push_back(Variable{signals[index], identifierOf(index), std::nullopt});
        const auto type = static_cast<std::size_t>(signals[index]->type);
        // The first variable of a type takes its events.
        if (type < _variableOfType.size() && _variableOfType[type] < 0) _variableOfType[type] = static_cast<int>(index);
    }
    for (const oltbTraceEvent& event : valuesAtZero) {
        const auto type = static_cast<std::size_t>(event.Type);
        if (type < _variableOfType.size() && _variableOfType[type] >= 0) {
            Variable& variable = _variables[static_cast<std::size_t>(_variableOfType[type])];
            variable.lastValue = maskToWidth(event.Value, variable.signal->bitsPerSample);
        }
    }
}

std::vector<const SignalInfo*> VcdWriter::variableSignals() const {
    std::vector<const SignalInfo*> signals;
    for (const Variable& variable : _variables) {
        signals.push_back(variable.signal);
    }
    return signals;
}

// Ticks since the origin in time units, rounded to the nearest (picoseconds without a division: every event).
std::uint64_t VcdWriter::unitsOf(std::uint64_t ticks) const {
    const std::uint64_t picoseconds = ticks * PicosecondsPerTick;
    return _timescalePs == 1 ? picoseconds : (picoseconds + _timescalePs / 2) / _timescalePs;
}

std::string VcdWriter::identifierOf(std::size_t index) {
    std::string identifier;
    do {
        identifier.push_back(static_cast<char>(FirstIdentifierChar + index % IdentifierChars));
        index /= IdentifierChars;
    } while (index-- > 0);
    return identifier;
}

void VcdWriter::writeHeader(const std::optional<std::uint64_t>& originTicks) {
    std::ostringstream header;
    header << "$version oltb trace of a laser scan controller card $end\n";
    header << "$comment\n  one tick of the card is 15.625 ns = 15625 ps.\n";
    if (_timescalePs != 1) {
        header << "  times are rounded to the nearest " << unitName(_timescalePs)
               << "; changes closer than that share a time, the last one holds.\n";
    }
    if (originTicks) {
        header << "  time 0 is tick " << *originTicks << " of the card's clock.\n";
    } else {
        header << "  no events were recorded.\n";
    }
    header << (_signedPositions ? "  head positions are signed (two's complement); the card sends X negated, and X\n"
                                  "  is turned back here, so that X and Y count in the head's own directions.\n"
                                : "  head positions are the card's raw 20-bit two's complement values, X negated.\n");
    if (!_leftOut.empty()) {
        header << "  for sigrok, which reads 1-bit signals only, left out:";
        for (const SignalInfo* signal : _leftOut) {
            header << ' ' << signal->name;
        }
        header << ".\n";
    }
    header << "$end\n";
    header << "$timescale " << unitName(_timescalePs) << " $end\n";
    header << "$scope module oltb $end\n";
    for (const Variable& variable : _variables) {
        header << "$var wire " << variable.signal->bitsPerSample << ' ' << variable.identifier << ' '
               << variable.signal->name << " $end\n";
    }
    header << "$upscope $end\n";
    header << "$enddefinitions $end\n";
    header << "#0\n$dumpvars\n";
    for (const Variable& variable : _variables) {
        if (!variable.lastValue) {
            header << (variable.signal->bitsPerSample == 1 ? "x" : "bx ") << variable.identifier << '\n';
        } else if (variable.signal->bitsPerSample == 1) {
            header << *variable.lastValue << variable.identifier << '\n';
        } else {
            char binary[40];
            const std::string_view text(binary,
                                        static_cast<std::size_t>(formatBinary(binary, *variable.lastValue) - binary));
            header << text << variable.identifier << '\n';
        }
    }
    header << "$end\n";
    _out.append(header.str());
    _lastTime = 0;
    _headerWritten = true;
}

void VcdWriter::write(const oltbTraceEvent* events, std::size_t count) {
    for (std::size_t index = 0; index < count; ++index) {
        writeEvent(events[index]);
    }
    _out.endOfCall();
}

void VcdWriter::writeEvent(const oltbTraceEvent& event) {
    if (!_headerWritten) {
        _originTicks = _timeZero == VcdTimeZero::ReferenceOfTime ? referenceTickOf(event) : event.Timestamp;
        writeHeader(_originTicks);
    }
    const auto type = static_cast<std::size_t>(event.Type);
    if (type >= _variableOfType.size() || _variableOfType[type] < 0) {
        const bool leftOut = std::any_of(_leftOut.begin(), _leftOut.end(), [type](const SignalInfo* signal) {
            return signal->type == static_cast<int>(type);
        });
        _eventsSkipped += leftOut ? 0 : 1;
        return;
    }
    Variable& variable = _variables[static_cast<std::size_t>(_variableOfType[type])];
    std::uint64_t time = 0;
    if (event.Timestamp >= _originTicks) {
        time = unitsOf(event.Timestamp - _originTicks);
    }
    if (time < *_lastTime) {
        ++_eventsMovedForward;
        time = *_lastTime;
    }
    const unsigned bits = variable.signal->bitsPerSample;
    const std::uint32_t value = maskToWidth(event.Value, bits);
    if (variable.lastValue == value) {
        return;
    }
    char* place = _out.room(MaxEventBytes + variable.identifier.size());
    if (time != *_lastTime) {
        *place++ = '#';
        place = std::to_chars(place, place + 20, time).ptr;
        *place++ = '\n';
        _lastTime = time;
    }
    if (bits == 1) {
        *place++ = value != 0 ? '1' : '0';
    } else {
        place = formatBinary(place, value);
    }
    std::memcpy(place, variable.identifier.data(), variable.identifier.size());
    place += variable.identifier.size();
    *place++ = '\n';
    _out.advance(place);
    variable.lastValue = value;
}

void VcdWriter::finish() {
    if (!_headerWritten) {
        writeHeader(std::nullopt);
    } else {
        // One tick after the last change (at least a unit), so that the last values have a visible length.
        const std::uint64_t end = *_lastTime + std::max<std::uint64_t>(1, unitsOf(1));
        char* place = _out.room(MaxEventBytes);
        *place++ = '#';
        place = std::to_chars(place, place + 20, end).ptr;
        *place++ = '\n';
        _out.advance(place);
        _lastTime = end;
    }
    _out.flush();
}

}  // namespace oltb::cli
