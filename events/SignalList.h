// The 63 traceable signals of the card, in the order of the configuration record: name, group (the server's 32-bit
// mask Conf0 .. Conf3), event type (group base + the signal's number), bits per sample (a trace word carries 32 /
// bits samples, the first in the most significant bits) and the flag that selects the signal in a configuration
// record. One list: the decoding core takes each signal's sample width from it, the command-line tool its signal
// table and the analysis its names; the Python package is checked against it, and the simulator's word encoder keeps
// widths of its own (tools/oltb-sim/WordEncoder.cpp) so that a test holds the two against each other.
#pragma once

#include "api/oltb.h"

#include <array>

namespace OLVEN::TALIX3::TraceBuffer {

struct Signal {
    const char* name;  // e.g. "Head0TxX", as the configuration record's field and the event type
    unsigned group;    // 0 .. 3
    oltbTraceEventType type;
    unsigned bitsPerSample;
    bool oltbTraceBufferConfig_Struct::*flag;
};

#define OLTB_SIGNAL(group, name, bits) \
    Signal { #name, group, oltbEvent##name, bits, &oltbTraceBufferConfig_Struct::name }

inline constexpr std::array<Signal, 63> Signals = {{
    OLTB_SIGNAL(0, PortA, 16),
    OLTB_SIGNAL(0, PortB, 16),
    OLTB_SIGNAL(0, PortC, 16),
    OLTB_SIGNAL(0, PortDLow, 16),
    OLTB_SIGNAL(0, PortDHigh, 8),
    OLTB_SIGNAL(0, PortELow, 16),
    OLTB_SIGNAL(0, PortEHigh, 8),
    OLTB_SIGNAL(0, PortLaserIn, 2),
    OLTB_SIGNAL(0, PortLaserIn0, 1),
    OLTB_SIGNAL(0, PortLaserIn1, 1),
    OLTB_SIGNAL(0, PortLaserOut, 4),
    OLTB_SIGNAL(0, PortLaserOut0, 1),
    OLTB_SIGNAL(0, PortLaserOut1, 1),
    OLTB_SIGNAL(0, PortLaserOut2, 1),
    OLTB_SIGNAL(0, Dac0, 16),
    OLTB_SIGNAL(0, Dac1, 16),
    OLTB_SIGNAL(0, LaserPower16, 16),
    OLTB_SIGNAL(0, LaserPower8, 8),
    OLTB_SIGNAL(0, LaserPower4, 4),
    OLTB_SIGNAL(0, LaserPower2, 2),
    OLTB_SIGNAL(0, LaserPower1, 1),
    OLTB_SIGNAL(0, Fps, 1),
    OLTB_SIGNAL(0, Gate, 1),
    OLTB_SIGNAL(0, Lm, 1),
    OLTB_SIGNAL(0, LaserTriggered, 1),
    OLTB_SIGNAL(0, StartMark, 1),
    OLTB_SIGNAL(0, AbortMark, 1),
    OLTB_SIGNAL(1, Head0TxX, 32),
    OLTB_SIGNAL(1, Head0TxY, 32),
    OLTB_SIGNAL(1, Head0TxZ, 32),
    OLTB_SIGNAL(1, Head0RxX, 32),
    OLTB_SIGNAL(1, Head0RxY, 32),
    OLTB_SIGNAL(1, Head0RxZ, 32),
    OLTB_SIGNAL(1, Head1TxX, 32),
    OLTB_SIGNAL(1, Head1TxY, 32),
    OLTB_SIGNAL(1, Head1TxZ, 32),
    OLTB_SIGNAL(1, Head1RxX, 32),
    OLTB_SIGNAL(1, Head1RxY, 32),
    OLTB_SIGNAL(1, Head1RxZ, 32),
    OLTB_SIGNAL(2, LaserPower0_16, 16),
    OLTB_SIGNAL(2, LaserPower0_8, 8),
    OLTB_SIGNAL(2, LaserPower0_4, 4),
    OLTB_SIGNAL(2, LaserPower0_2, 2),
    OLTB_SIGNAL(2, LaserPower0_1, 1),
    OLTB_SIGNAL(2, LaserPower1_16, 16),
    OLTB_SIGNAL(2, LaserPower1_8, 8),
    OLTB_SIGNAL(2, LaserPower1_4, 4),
    OLTB_SIGNAL(2, LaserPower1_2, 2),
    OLTB_SIGNAL(2, LaserPower1_1, 1),
    OLTB_SIGNAL(3, Spi0Rx, 32),
    OLTB_SIGNAL(3, Spi1Rx, 32),
    OLTB_SIGNAL(3, Spi2Rx, 32),
    OLTB_SIGNAL(3, Spi3Rx, 32),
    OLTB_SIGNAL(3, Quadrature0I, 1),
    OLTB_SIGNAL(3, Quadrature0A, 1),
    OLTB_SIGNAL(3, Quadrature0B, 1),
    OLTB_SIGNAL(3, Quadrature1I, 1),
    OLTB_SIGNAL(3, Quadrature1A, 1),
    OLTB_SIGNAL(3, Quadrature1B, 1),
    OLTB_SIGNAL(3, IOEventChange, 32),
    OLTB_SIGNAL(3, PositionEventChange, 32),
    OLTB_SIGNAL(3, ControlEventChange, 32),
    // A label word carries two 16-bit halves; only the upper one, the label number, becomes an event.
    OLTB_SIGNAL(3, Label, 16),
}};

#undef OLTB_SIGNAL

// The signal whose events carry `type`; null for the time-base type and numbers that are no event type.
constexpr const Signal* signalOfType(int type) {
    for (const Signal& signal : Signals) {
        if (signal.type == type) return &signal;
    }
    return nullptr;
}

}  // namespace OLVEN::TALIX3::TraceBuffer
