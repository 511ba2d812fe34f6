// Writes events as an IEEE 1364 value change dump for waveform viewers (GTKWave, Surfer, PulseView): one wire
// per signal, as wide as the signal's samples, with 1 ps as time unit so that a tick (15.625 ns) is exactly
// 15625 units (the timescale admits only 1, 10 or 100 units). A coarser unit may be chosen, for viewers that
// take one sample per unit (sigrok: 1 ps would be a terahertz of samples); times are then rounded to it.
#pragma once

#include "api/oltb.h"
#include "tools/oltb/Signals.h"
#include "tools/oltb/TextOutput.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace oltb::cli {

// Where the dump's time 0 lies.
enum class VcdTimeZero {
    FirstEvent,      // the first event written
    ReferenceOfTime  // the tick from which the first event's Time counts (the start label after an acquisition),
                     // so that dump times equal the events' Time; the first event if it lies before it
};

// How a dump is laid out, as the options of the commands choose it.
struct VcdFormat {
    std::uint64_t timescalePs = 0;  // the time unit: 1 (ps), 1000, 10000, 100000 or 1000000 (us); 0: the default
    bool sigrok = false;            // for sigrok's VCD import: 1-bit signals only, in us unless a unit is chosen
};

class VcdWriter {
public:
    static constexpr std::uint64_t PicosecondsPerTick = 15625;

    // `signals` become the dump's variables, in this order. `signedPositions` only changes the header's
    // description: head positions are 32-bit two's complement either way. The text goes to the stream at the end
    // of every write call.
    VcdWriter(std::ostream& out, std::vector<const SignalInfo*> signals, bool signedPositions,
              VcdTimeZero timeZero = VcdTimeZero::ReferenceOfTime);
    // The same into the open file `descriptor` (which stays open), a megabyte at a time; finish() writes the rest.
    VcdWriter(int descriptor, std::vector<const SignalInfo*> signals, bool signedPositions,
              VcdTimeZero timeZero = VcdTimeZero::ReferenceOfTime);
    // The same with a layout, and the values known at time 0 (events, of which only type and value count):
    // these variables start with them instead of x.
    VcdWriter(int descriptor, std::vector<const SignalInfo*> signals, bool signedPositions, VcdTimeZero timeZero,
              const VcdFormat& format, const std::vector<oltbTraceEvent>& valuesAtZero);
    VcdWriter(std::ostream& out, std::vector<const SignalInfo*> signals, bool signedPositions, VcdTimeZero timeZero,
              const VcdFormat& format, const std::vector<oltbTraceEvent>& valuesAtZero);

    // Events must come in time order. One that is earlier than the last time written (which the library's
    // ordering should never deliver) is written at that last time, and counted, so that time never goes back.
    // Events of signals that are not variables of the dump are skipped and counted (not those the layout left
    // out, which the header names).
    void write(const oltbTraceEvent& event) { write(&event, 1); }
    void write(const oltbTraceEvent* events, std::size_t count);

    // Writes the header if no event came, and a last time stamp so that viewers show the final values; hands over
    // everything.
    void finish();

    // errno of the first write that failed, 0 while none did.
    int error() const { return _out.error(); }

    std::uint64_t eventsMovedForward() const { return _eventsMovedForward; }
    std::uint64_t eventsSkipped() const { return _eventsSkipped; }

    // The identifier of the index-th variable: printable characters '!' to '~', shortest first.
    static std::string identifierOf(std::size_t index);

    // What a view of the dump needs: its variables, its time unit in ps and its last time stamp (after finish()).
    std::vector<const SignalInfo*> variableSignals() const;
    std::uint64_t timescalePs() const { return _timescalePs; }
    bool signedPositions() const { return _signedPositions; }
    std::uint64_t endTime() const { return _lastTime.value_or(0); }

private:
    struct Variable {
        const SignalInfo* signal;
        std::string identifier;
        std::optional<std::uint32_t> lastValue;  // before the first event: the value known at time 0, if any
    };

    void choose(const VcdFormat& format, std::vector<const SignalInfo*>& signals);
    void addVariables(const std::vector<const SignalInfo*>& signals, const std::vector<oltbTraceEvent>& valuesAtZero);
    void writeHeader(const std::optional<std::uint64_t>& originTicks);
    void writeEvent(const oltbTraceEvent& event);
    std::uint64_t unitsOf(std::uint64_t ticks) const;

    TextOutput _out;
    std::vector<Variable> _variables;
    std::array<int, 128> _variableOfType;     // index into _variables, -1 for none
    std::vector<const SignalInfo*> _leftOut;  // traced signals that a sigrok dump leaves out
    bool _signedPositions;
    VcdTimeZero _timeZero;
    std::uint64_t _timescalePs = 1;
    bool _headerWritten = false;
    std::uint64_t _originTicks = 0;
    std::optional<std::uint64_t> _lastTime;  // in time units since the origin, as last written with '#'
    std::uint64_t _eventsMovedForward = 0;
    std::uint64_t _eventsSkipped = 0;
};

}  // namespace oltb::cli
