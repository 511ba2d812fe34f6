"""One connection to a trace buffer server. Every wait is made of library calls of at most WAIT_SLICE_MS, so that
Ctrl-C (KeyboardInterrupt) comes through within a fraction of a second whatever the read timeout; the calls that
block for seconds in one library call (connecting, commands) run in a thread of their own (wait_for)."""

from __future__ import annotations

import ctypes
import math
import time
from typing import Iterable, List, Optional, Union

import numpy as np

from ._errors import ArgumentError, ArgumentTypeError, Error, whole_number
from ._events import EVENT_DTYPE, MAX_EVENTS, joined, pointer, to_signed
from ._library import WAIT_SLICE_MS, trace_library
from ._signals import SIGNAL_TYPES, SIGNALS, config_record

_LABEL = SIGNAL_TYPES["Label"]
# Events stamped up to this long after the end label still belong to an acquisition, as with oltbAcquire.
_END_MARGIN_US = 1.0
_ACQUIRE_BATCH = 65536


class _LabelWindow:
    """The events between the next start label and the end label after it, as oltbAcquire collects them: Time
    counted from the start label, the two labels left out, done after the batch that holds the end label."""

    def __init__(self, start_label: int, end_label: int) -> None:
        self.start_label, self.end_label = start_label, end_label
        self.start_time: Optional[float] = None
        self.end_time: Optional[float] = None
        self._parts: List[np.ndarray] = []

    def add(self, batch: np.ndarray) -> bool:
        """Takes the next events read; True once the end label has come."""
        labels = np.flatnonzero(batch["type"] == _LABEL)
        numbers = batch["value"][labels] & 0xFFFF
        wanted = (numbers == self.start_label) | (numbers == self.end_label)
        begin = 0
        for index, number in zip(labels[wanted].tolist(), numbers[wanted].tolist()):
            if self._take(batch[begin:index]):
                return True
            # Start first: with equal numbers every such label (re)starts and none ends the window.
            if number == self.start_label:
                self.start_time = float(batch["time"][index])
            elif self.start_time is None:
                raise Error("Expected start label %d but got end label %d!" % (self.start_label, self.end_label))
            else:
                self.end_time = float(batch["time"][index]) + _END_MARGIN_US
            begin = index + 1
        self._take(batch[begin:])
        return self.end_time is not None

    def _take(self, events: np.ndarray) -> bool:
        """Keeps events of the window; True when one lies past its end."""
        if self.start_time is None or not len(events):
            return False
        past = len(events)
        if self.end_time is not None:
            beyond = events["time"] > self.end_time
            past = int(np.argmax(beyond)) if beyond.any() else past
        kept = events[:past].copy()
        kept["time"] -= self.start_time
        self._parts.append(kept)
        return past < len(events)

    def events(self) -> np.ndarray:
        events = joined(self._parts)
        # Reads deliver time order; only an event moved back across two reads can break it.
        if np.any(events["timestamp"][1:] < events["timestamp"][:-1]):
            events = events[np.argsort(events["timestamp"], kind="stable")]
        return events

    def missing(self) -> str:
        if self.start_time is None:
            return "no start label %d" % self.start_label
        return "start label %d came, but no end label %d" % (self.start_label, self.end_label)


def connect(address: str) -> "Client":
    """Connects to the trace buffer server (the port is always 9495); use the client in a ``with`` block.

    Parameters
    ----------
    address : str
        The server's host name or numeric address, such as ``"127.0.0.9"`` for the simulator of ``make sim``.

    Returns
    -------
    Client
        The connection.

    Raises
    ------
    Error
        The library's text when no connection could be made (after its retries, at most a few seconds), or an
        address that is not text.
    """
    return Client(address)


class Client:
    """One connection to a trace buffer server, made by ``connect``. Not to be shared between threads.

    Every method raises ``Error`` with the library's text when the library reports a failure, and ``Error`` (also a
    ValueError or TypeError) for an invalid argument. Waits can be interrupted with Ctrl-C at any time; what an
    interrupted read or acquisition had read is lost.
    """

    def __init__(self, address: str) -> None:
        if not isinstance(address, str):
            raise ArgumentTypeError("address must be text, not %s" % type(address).__name__)
        if "\0" in address:
            raise ArgumentError("address must not hold a zero character")
        self._handle = -1
        self._lib = trace_library()
        self._handle = self._lib.call_waiting("oltbConnect", address.encode(), undo=self._lib.oltbDisconnect)
        timeout = ctypes.c_int()
        self._lib.check(self._lib.oltbGetReadTimeout(self._handle, ctypes.byref(timeout)))
        # The library waits in slices (_read_into); the read timeout the user set is kept here.
        self._read_timeout_ms = self._library_timeout_ms = timeout.value

    def __enter__(self) -> "Client":
        return self

    def __exit__(self, *exception: object) -> None:
        self.close()

    def close(self) -> None:
        """Disconnects; the client is of no use afterwards. Closing again does nothing."""
        if self._handle >= 0:
            handle, self._handle = self._handle, -1
            self._lib.check(self._lib.oltbDisconnect(handle))

    @property
    def connected(self) -> bool:
        """Whether the connection is up; False once the server closed it."""
        state = ctypes.c_bool()
        self._lib.check(self._lib.oltbIsConnected(self._handle, ctypes.byref(state)))
        return state.value

    @property
    def read_timeout(self) -> int:
        """The longest wait of ``read`` for events, and of ``acquire`` for the next events, in milliseconds: 0 does
        not wait, a negative number waits without limit (Ctrl-C still ends it). Whole numbers within the 32 bits
        of the library's int; the library's default is 10000."""
        return self._read_timeout_ms

    @read_timeout.setter
    def read_timeout(self, milliseconds: int) -> None:
        milliseconds = whole_number("read_timeout", milliseconds, -(1 << 31), (1 << 31) - 1)
        self._set_library_timeout(milliseconds)
        self._read_timeout_ms = milliseconds

    def _set_library_timeout(self, milliseconds: int) -> None:
        if milliseconds != self._library_timeout_ms:
            self._lib.check(self._lib.oltbSetReadTimeout(self._handle, milliseconds))
            self._library_timeout_ms = milliseconds

    def configure(self, signals: Union[str, Iterable[str]]) -> None:
        """Traces exactly these signals from now on, for this and later clients (the card has one configuration).

        Parameters
        ----------
        signals : str or iterable of str
            Signal names as in ``oltb signals`` (any case), or ``"all"``; a str may list them separated by commas.

        Raises
        ------
        Error
            An unknown signal (also a ValueError), or the library's text when the server did not take it.
        """
        record = config_record(signals)
        self._lib.call_waiting("oltbSetConfig", self._handle, ctypes.byref(record))

    def configuration(self) -> List[str]:
        """The signals the server traces.

        Returns
        -------
        list of str
            Their names, in the order of ``SIGNALS``.

        Raises
        ------
        Error
            The library's text when the server did not answer.
        """
        record = config_record([])
        self._lib.call_waiting("oltbGetConfig", self._handle, ctypes.byref(record))
        return [name for name in SIGNALS if getattr(record, name)]

    def start(self) -> None:
        """Starts tracing: the server sends the events of the configured signals from now on.

        Raises
        ------
        Error
            The library's text when the server did not answer.
        """
        self._lib.call_waiting("oltbStart", self._handle)

    def stop(self) -> None:
        """Stops tracing; events received before stay readable.

        Raises
        ------
        Error
            The library's text when the server did not answer.
        """
        self._lib.call_waiting("oltbStop", self._handle)

    def clear(self) -> None:
        """Restarts a running trace (stop, then start), discarding the events received and not yet read; does
        nothing while tracing is stopped.

        Raises
        ------
        Error
            The library's text when the server did not answer.
        """
        self._lib.call_waiting("oltbClear", self._handle)

    def read(self, max_events: int, wait: bool = True, signed: bool = False) -> np.ndarray:
        """Reads up to `max_events` events in time order.

        Parameters
        ----------
        max_events : int
            The most events to return, 0 .. 2**32 - 1 (the array is allocated at this size first).
        wait : bool
            With True nothing arriving within ``read_timeout`` is an error; with False an empty array is returned
            instead.
        signed : bool
            Convert head positions to signed head units (``to_signed``).

        Returns
        -------
        numpy.ndarray
            The events, an array of ``EVENT_DTYPE``; ``time`` counts µs from the connection's time reference.

        Raises
        ------
        Error
            The library's text (nothing received within the read timeout, the connection lost, an undecodable
            word), or `max_events` not a whole number within its range (also a TypeError or ValueError).
        """
        events = np.empty(whole_number("max_events", max_events, 0, MAX_EVENTS), dtype=EVENT_DTYPE)
        events = events[:self._read_into(events, wait)]
        return to_signed(events) if signed else events

    def _read_into(self, events: np.ndarray, wait: bool, give_up_at: float = math.inf) -> int:
        """Reads into events, in library waits of at most WAIT_SLICE_MS; returns the count once events came, the read
        timeout passed (with `wait` the library's own error, from a last wait that ends at the timeout) or the clock
        (time.monotonic) reached give_up_at."""
        count = ctypes.c_uint32()
        timeout_ms = self._read_timeout_ms
        silent_until = math.inf if timeout_ms < 0 else time.monotonic() + timeout_ms / 1000
        while True:
            left_ms = (min(silent_until, give_up_at) - time.monotonic()) * 1000
            last = left_ms <= WAIT_SLICE_MS
            self._set_library_timeout(0 if timeout_ms == 0 else max(1, math.ceil(left_ms)) if last else WAIT_SLICE_MS)
            read = self._lib.oltbRead if wait and last and silent_until <= give_up_at else self._lib.oltbTryRead
            self._lib.check(read(self._handle, pointer(events), 0, len(events), ctypes.byref(count)))
            if count.value or last:
                return count.value

    def acquire(self, start_label: int, end_label: int, signed: bool = False,
                max_wait: Optional[float] = 120.0) -> np.ndarray:
        """The events between the next start label and the end label after it, as the library's oltbAcquire and
        ``oltb acquire`` collect them: the labels left out, events up to 1 µs after the end label kept, time
        counted from the start label. The Label signal must be traced and tracing started.

        Parameters
        ----------
        start_label, end_label : int
            Label numbers, 0 .. 65535.
        signed : bool
            Convert head positions to signed head units (``to_signed``).
        max_wait : float or None
            The longest wait for the two labels in seconds, as ``oltb acquire --max-wait`` (default 120 s); None
            waits without limit. Besides, ``read_timeout`` bounds each wait for the next events.

        Returns
        -------
        numpy.ndarray
            The events, an array of ``EVENT_DTYPE`` in time order.

        Raises
        ------
        Error
            A label that did not come within `max_wait` (the text says which: ``no start label 1 within 2 s
            (max_wait)``, ``start label 1 came, but no end label 2 within 2 s (max_wait)``), an end label before
            any start label, the library's text (nothing received within the read timeout, the connection lost), or
            an invalid argument (also a TypeError or ValueError).
        """
        window = _LabelWindow(whole_number("start_label", start_label, 0, 65535),
                              whole_number("end_label", end_label, 0, 65535))
        if max_wait is not None:
            if isinstance(max_wait, bool) or not isinstance(max_wait, (int, float, np.number)):
                raise ArgumentTypeError("max_wait must be a number of seconds or None")
            if not 0 < max_wait < math.inf:
                raise ArgumentError("max_wait must be a positive number of seconds, not %r" % max_wait)
        give_up_at = math.inf if max_wait is None else time.monotonic() + max_wait
        batch = np.empty(_ACQUIRE_BATCH, dtype=EVENT_DTYPE)
        while not window.add(batch[:self._read_into(batch, True, give_up_at)]):
            if time.monotonic() >= give_up_at:
                raise Error("%s within %g s (max_wait)" % (window.missing(), max_wait))
        events = window.events()
        return to_signed(events) if signed else events
