// Only changes are dumped: a sample equal to the variable's current value adds nothing to a waveform. Before the
// first event every variable is x (unknown), since the card's signals have no known state before they appear.
#include "tools/oltb/VcdWriter.h"

#include <algorithm>
#include <cmath>

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

}  // namespace

VcdWriter::VcdWriter(std::ostream& out, std::vector<const SignalInfo*> signals, bool signedPositions,
                     VcdTimeZero timeZero)
    : _out(out), _signedPositions(signedPositions), _timeZero(timeZero) {
    for (std::size_t index = 0; index < signals.size(); ++index) {
        _variables.push_back(Variable{signals[index], identifierOf(index), std::nullopt});
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

std::string VcdWriter::formatValue(std::int32_t value, unsigned bits, const std::string& identifier) {
    const std::uint32_t masked = maskToWidth(value, bits);
    if (bits == 1) {
        return (masked != 0 ? "1" : "0") + identifier;
    }
    std::string binary;
    for (int bit = static_cast<int>(bits) - 1; bit >= 0; --bit) {
        const bool set = ((masked >> bit) & 1U) != 0;
        if (set || !binary.empty() || bit == 0) {
            binary.push_back(set ? '1' : '0');
        }
    }
    return "b" + binary + " " + identifier;
}

void VcdWriter::writeHeader(const std::optional<std::uint64_t>& originTicks) {
    _out << "$version oltb trace of a laser scan controller card $end\n";
    _out << "$comment\n  one tick of the card is 15.625 ns = 15625 ps.\n";
    if (originTicks) {
        _out << "  time 0 is tick " << *originTicks << " of the card's clock.\n";
    } else {
        _out << "  no events were recorded.\n";
    }
    _out << (_signedPositions ? "  head positions are signed (two's complement), X channels negated.\n"
                              : "  head positions are raw 20-bit two's complement values.\n");
    _out << "$end\n";
    _out << "$timescale 1 ps $end\n";
    _out << "$scope module oltb $end\n";
    for (const Variable& variable : _variables) {
        _out << "$var wire " << variable.signal->bitsPerSample << ' ' << variable.identifier << ' '
             << variable.signal->name << " $end\n";
    }
    _out << "$upscope $end\n";
    _out << "$enddefinitions $end\n";
    _out << "#0\n$dumpvars\n";
    for (const Variable& variable : _variables) {
        _out << (variable.signal->bitsPerSample == 1 ? "x" : "bx ") << variable.identifier << '\n';
    }
    _out << "$end\n";
    _lastTime = 0;
    _headerWritten = true;
}

VcdWriter::Variable* VcdWriter::variableOf(oltbTraceEventType type) {
    const auto found = std::find_if(_variables.begin(), _variables.end(),
                                    [type](const Variable& variable) { return variable.signal->type == type; });
    return found == _variables.end() ? nullptr : &*found;
}

void VcdWriter::write(const oltbTraceEvent& event) {
    if (!_headerWritten) {
        _originTicks = _timeZero == VcdTimeZero::ReferenceOfTime ? referenceTickOf(event) : event.Timestamp;
        writeHeader(_originTicks);
    }
    Variable* variable = variableOf(event.Type);
    if (variable == nullptr) {
        ++_eventsSkipped;
        return;
    }
    std::uint64_t time = 0;
    if (event.Timestamp >= _originTicks) {
        time = (event.Timestamp - _originTicks) * PicosecondsPerTick;
    }
    if (time < *_lastTime) {
        ++_eventsMovedForward;
        time = *_lastTime;
    }
    const std::uint32_t value = maskToWidth(event.Value, variable->signal->bitsPerSample);
    if (variable->lastValue == value) {
        return;
    }
    if (time != *_lastTime) {
        _out << '#' << time << '\n';
        _lastTime = time;
    }
    _out << formatValue(event.Value, variable->signal->bitsPerSample, variable->identifier) << '\n';
    variable->lastValue = value;
}

void VcdWriter::finish() {
    if (!_headerWritten) {
        writeHeader(std::nullopt);
        return;
    }
    // One tick after the last change, so that the last values have a visible length.
    _out << '#' << *_lastTime + PicosecondsPerTick << '\n';
}

}  // namespace oltb::cli
