"""The traceable signals, their event types, and the two records of the library's interface."""

from __future__ import annotations

import ctypes
from typing import Iterable, Union

from ._errors import ArgumentError, ArgumentTypeError, whole_number

# In the order of the configuration record's fields, with each signal's event type.
SIGNAL_TYPES = dict(
    [(name, number) for number, name in enumerate(
        "PortA PortB PortC PortDLow PortDHigh PortELow PortEHigh PortLaserIn PortLaserIn0 PortLaserIn1 "
        "PortLaserOut PortLaserOut0 PortLaserOut1 PortLaserOut2 Dac0 Dac1 LaserPower16 LaserPower8 LaserPower4 "
        "LaserPower2 LaserPower1 Fps Gate Lm LaserTriggered StartMark AbortMark".split())]
    + [("Head%d%s%s" % (head, side, axis), 32 + 16 * head + 8 * (side == "Rx") + 2 * "XYZ".index(axis))
       for head in (0, 1) for side in ("Tx", "Rx") for axis in "XYZ"]
    + [("LaserPower%d_%d" % (laser, bits), 64 + 5 * laser + index)
       for laser in (0, 1) for index, bits in enumerate((16, 8, 4, 2, 1))]
    + [(name, 96 + number) for number, name in enumerate(
        "Spi0Rx Spi1Rx Spi2Rx Spi3Rx Quadrature0I Quadrature0A Quadrature0B Quadrature1I Quadrature1A "
        "Quadrature1B".split())]
    + [("IOEventChange", 120), ("PositionEventChange", 121), ("ControlEventChange", 123), ("Label", 126)])
SIGNALS = list(SIGNAL_TYPES)
_NAMES_BY_TYPE = {number: name for name, number in SIGNAL_TYPES.items()}
_NAMES_BY_LOWER = {name.lower(): name for name in SIGNALS}


def signal_name(event_type: int) -> str:
    """The name of the signal of an event type.

    Parameters
    ----------
    event_type : int
        An event type, as in the ``type`` field of an event.

    Returns
    -------
    str
        The signal's name as in ``oltb signals``, or ``"unknown"``.

    Raises
    ------
    Error
        `event_type` is not a whole number (also a TypeError).
    """
    return _NAMES_BY_TYPE.get(whole_number("event_type", event_type, -(1 << 63), 1 << 64), "unknown")


class TraceEvent(ctypes.Structure):
    _fields_ = [("Timestamp", ctypes.c_uint64), ("Time", ctypes.c_double), ("Type", ctypes.c_int32),
                ("Overflow", ctypes.c_bool), ("Value", ctypes.c_int32)]


class ConfigRecord(ctypes.Structure):
    _fields_ = [("Version", ctypes.c_uint32)] + [(name, ctypes.c_bool) for name in SIGNALS]


def config_record(signals: Union[str, Iterable[str]]) -> ConfigRecord:
    """A configuration record tracing exactly `signals` (names in any case, or "all")."""
    if isinstance(signals, str):
        signals = [name.strip() for name in signals.split(",")]
    record = ConfigRecord(Version=6)
    for name in signals:
        if not isinstance(name, str):
            raise ArgumentTypeError("signal names must be text, not %s" % type(name).__name__)
        if name.lower() == "all":
            for each in SIGNALS:
                setattr(record, each, True)
        elif name.lower() in _NAMES_BY_LOWER:
            setattr(record, _NAMES_BY_LOWER[name.lower()], True)
        else:
            raise ArgumentError("unknown signal %r (see: oltb signals)" % name)
    return record
