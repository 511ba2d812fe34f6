// Only changes are dumped: a sample equal to the variable's current value adds nothing to a waveform. Before the
// first event every variable is x (unknown), since the card's signals have no known state before they appear.
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

}  // namespace

VcdWriter::VcdWriter(std::ostream& out, std::vector<const SignalInfo*> signals, bool signedPositions,
                     VcdTimeZero timeZero)
    : _out(out), _signedPositions(signedPositions), _timeZero(timeZero) {
    addVariables(signals);
}

VcdWriter::VcdWriter(int descriptor, std::vector<const SignalInfo*> signals, bool signedPositions,
                     VcdTimeZero timeZero)
    : _out(descriptor), _signedPositions(signedPositions), _timeZero(timeZero) {
    addVariables(signals);
}

void VcdWriter::addVariables(const std::vector<const SignalInfo*>& signals) {
    _variableOfType.fill(-1);
    for (std::size_t index = 0; index < signals.size(); ++index) {
        _variables.push_back(Variable{signals[index], identifierOf(index), std::nullopt});
        const auto type = static_cast<std::size_t>(signals[index]->type);
        // The first variable of a type takes its events.
        if (type < _variableOfType.size() && _variableOfType[type] < 0) _variableOfType[type] = static_cast<int>(index);
    }
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
    if (originTicks) {
        header << "  time 0 is tick " << *originTicks << " of the card's clock.\n";
    } else {
        header << "  no events were recorded.\n";
    }
    header << (_signedPositions ? "  head positions are signed (two's complement), X channels negated.\n"
                                : "  head positions are raw 20-bit two's complement values.\n");
    header << "$end\n";
    header << "$timescale 1 ps $end\n";
    header << "$scope module oltb $end\n";
    for (const Variable& variable : _variables) {
        header << "$var wire " << variable.signal->bitsPerSample << ' ' << variable.identifier << ' '
               << variable.signal->name << " $end\n";
    }
    header << "$upscope $end\n";
    header << "$enddefinitions $end\n";
    header << "#0\n$dumpvars\n";
    for (const Variable& variable : _variables) {
        header << (variable.signal->bitsPerSample == 1 ? "x" : "bx ") << variable.identifier << '\n';
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
        ++_eventsSkipped;
        return;
    }
    Variable& variable = _variables[static_cast<std::size_t>(_variableOfType[type])];
    std::uint64_t time = 0;
    if (event.Timestamp >= _originTicks) {
        time = (event.Timestamp - _originTicks) * PicosecondsPerTick;
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
        // One tick after the last change, so that the last values have a visible length.
        char* place = _out.room(MaxEventBytes);
        *place++ = '#';
        place = std::to_chars(place, place + 20, *_lastTime + PicosecondsPerTick).ptr;
        *place++ = '\n';
        _out.advance(place);
    }
    _out.flush();
}

}  // namespace oltb::cli
