"""The trace buffer of a laser scan controller card from Python: the oltb library through ctypes, events as numpy
structured arrays, captures written by the oltb tool loaded back, and the tool's analysis.

    import oltb
    with oltb.connect("127.0.0.9") as client:
        client.configure(["Head0TxX", "Head0TxY", "Head0RxX", "Head0RxY", "Gate"])
        client.start()
        job = client.acquire(1, 2, signed=True)   # the events between labels 1 and 2
    print(oltb.analyze(job)["tracking_error_us"])

Every call of the library that fails raises oltb.Error with the library's own text.
"""

import ctypes
import os

import numpy as np

from ._library import Error, library
from ._signals import SIGNALS, SIGNAL_TYPES, TraceEvent, config_record, signal_name
from .analysis import analyze
from .captures import load

__all__ = ["Client", "Error", "EVENT_DTYPE", "SIGNALS", "analyze", "connect", "load", "signal_name", "to_signed"]

# One event as the library writes it: the layout of oltbTraceEvent, so that the library fills arrays in place.
EVENT_DTYPE = np.dtype({"names": ["timestamp", "time", "type", "overflow", "value"],
                        "formats": ["<u8", "<f8", "<i4", "?", "<i4"],
                        "offsets": [TraceEvent.Timestamp.offset, TraceEvent.Time.offset, TraceEvent.Type.offset,
                                    TraceEvent.Overflow.offset, TraceEvent.Value.offset],
                        "itemsize": ctypes.sizeof(TraceEvent)})

_EVENTS = ctypes.POINTER(TraceEvent)


def _pointer(events):
    # The library walks the events as one C array: a strided view (events[::2]) would have it write between them.
    if events.dtype != EVENT_DTYPE or not events.flags.c_contiguous:
        raise ValueError("events must be a contiguous array of oltb.EVENT_DTYPE")
    return events.ctypes.data_as(_EVENTS)


def to_signed(events):
    """Converts the head positions of an event array in place to signed numbers (X channels negated)."""
    if len(events):
        library().check(library().oltbToSignedPosition(_pointer(events), len(events)))
    return events


def connect(address):
    """Connects to the trace buffer server on `address` (the port is always 9495); use it in a with block."""
    return Client(address)


class Client:
    """One connection. Methods raise oltb.Error with the library's text when the library reports a failure."""

    def __init__(self, address):
        self._lib = library()
        self._handle = self._lib.oltbConnect(os.fsencode(address))
        if self._handle < 0:
            raise Error(self._lib.last_error())

    def __enter__(self):
        return self

    def __exit__(self, *exception):
        self.close()

    def close(self):
        """Disconnects; the client is of no use afterwards."""
        if self._handle > 0:
            self._lib.check(self._lib.oltbDisconnect(self._handle))
            self._handle = -1

    @property
    def connected(self):
        state = ctypes.c_bool()
        self._lib.check(self._lib.oltbIsConnected(self._handle, ctypes.byref(state)))
        return state.value

    @property
    def read_timeout(self):
        """The longest wait of a read in milliseconds (0: none, negative: without limit)."""
        value = ctypes.c_int()
        self._lib.check(self._lib.oltbGetReadTimeout(self._handle, ctypes.byref(value)))
        return value.value

    @read_timeout.setter
    def read_timeout(self, milliseconds):
        self._lib.check(self._lib.oltbSetReadTimeout(self._handle, int(milliseconds)))

    def configure(self, signals):
        """Traces exactly these signals: names as in `oltb signals` (any case), or "all"."""
        self._lib.check(self._lib.oltbSetConfig(self._handle, ctypes.byref(config_record(signals))))

    def configuration(self):
        """The names of the signals the server traces."""
        record = config_record([])
        self._lib.check(self._lib.oltbGetConfig(self._handle, ctypes.byref(record)))
        return [name for name in SIGNALS if getattr(record, name)]

    def start(self):
        self._lib.check(self._lib.oltbStart(self._handle))

    def stop(self):
        self._lib.check(self._lib.oltbStop(self._handle))

    def clear(self):
        self._lib.check(self._lib.oltbClear(self._handle))

    def read(self, max_events, wait=True, signed=False):
        """Up to `max_events` events in time order. With wait=True nothing arriving within the read timeout is
        an error; with wait=False an empty array is returned instead."""
        events = np.empty(max_events, dtype=EVENT_DTYPE)
        count = ctypes.c_uint32()
        read = self._lib.oltbRead if wait else self._lib.oltbTryRead
        self._lib.check(read(self._handle, _pointer(events), 0, max_events, ctypes.byref(count)))
        events = events[:count.value]
        return to_signed(events) if signed else events

    def acquire(self, start_label, end_label, signed=False):
        """The events between the next start label and the end label after it, time counted from the start
        label (the Label signal must be traced and tracing started)."""
        count = ctypes.c_uint32()
        self._lib.check(self._lib.oltbAcquire(self._handle, start_label, end_label, ctypes.byref(count)))
        events = np.empty(count.value, dtype=EVENT_DTYPE)
        if count.value:
            self._lib.check(self._lib.oltbGetAcquiredElements(self._handle, _pointer(events), 0, count.value,
                                                              ctypes.byref(count)))
        return to_signed(events) if signed else events
