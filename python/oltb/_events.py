"""Events as numpy structured arrays in the layout of oltbTraceEvent, so that the library reads and fills them in
place, and their conversion to signed head positions."""

from __future__ import annotations

import ctypes
from typing import Any, List

import numpy as np

from ._errors import ArgumentError, ArgumentTypeError
from ._library import trace_library
from ._signals import TraceEvent

EVENT_DTYPE = np.dtype({"names": ["timestamp", "time", "type", "overflow", "value"],
                        "formats": ["<u8", "<f8", "<i4", "?", "<i4"],
                        "offsets": [TraceEvent.Timestamp.offset, TraceEvent.Time.offset, TraceEvent.Type.offset,
                                    TraceEvent.Overflow.offset, TraceEvent.Value.offset],
                        "itemsize": ctypes.sizeof(TraceEvent)})

# The library counts events in 32 bits.
MAX_EVENTS = (1 << 32) - 1
_EVENTS = ctypes.POINTER(TraceEvent)


def _checked_array(events: Any) -> np.ndarray:
    if not isinstance(events, np.ndarray) or events.dtype.names != EVENT_DTYPE.names or events.ndim != 1:
        raise ArgumentTypeError("events must be a one-dimensional numpy array of oltb.EVENT_DTYPE")
    return events


def readable(events: Any) -> np.ndarray:
    """events as one C array of EVENT_DTYPE for the library to read: the array itself, or a copy when it is strided
    or has the fields of EVENT_DTYPE in another layout."""
    return np.ascontiguousarray(_checked_array(events), dtype=EVENT_DTYPE)


def pointer(events: np.ndarray) -> Any:
    """The C pointer to a C array of EVENT_DTYPE that the library may write."""
    return events.ctypes.data_as(_EVENTS)


def joined(parts: List[np.ndarray]) -> np.ndarray:
    """The parts in one array of EVENT_DTYPE (np.concatenate would pack the layout, which the library cannot take)."""
    events = np.empty(sum(len(part) for part in parts), dtype=EVENT_DTYPE)
    start = 0
    for part in parts:
        events[start:start + len(part)] = part
        start += len(part)
    return events


def to_signed(events: np.ndarray) -> np.ndarray:
    """Converts the head positions of events in place to signed head units (the X channels negated back), as the
    library's oltbToSignedPosition does; other events are left as they are.

    Convert only once: a converted array converted again is wrong. Arrays from ``Client.read`` and
    ``Client.acquire`` with ``signed=True`` and from ``load`` are converted already.

    Parameters
    ----------
    events : numpy.ndarray
        A writable, contiguous one-dimensional array of ``EVENT_DTYPE``. A read-only one (over a ``bytes`` object
        or a read-only memory map) is refused rather than copied, so that the array given is always the array
        converted: convert a copy with ``to_signed(events.copy())``.

    Returns
    -------
    numpy.ndarray
        `events` itself.

    Raises
    ------
    Error
        `events` is not such an array (also a TypeError), or is read-only or strided (also a ValueError).
    """
    _checked_array(events)
    if events.dtype != EVENT_DTYPE or not events.flags.c_contiguous:
        raise ArgumentError("events must be a contiguous array of oltb.EVENT_DTYPE to be converted in place "
                            "(not a strided view or another layout: convert a copy, np.array(events, "
                            "dtype=oltb.EVENT_DTYPE))")
    if not events.flags.writeable:
        raise ArgumentError("events is read-only: convert a copy, oltb.to_signed(events.copy())")
    library = trace_library()
    for start in range(0, len(events), MAX_EVENTS):
        part = events[start:start + MAX_EVENTS]
        library.check(library.oltbToSignedPosition(pointer(part), len(part)))
    return events

