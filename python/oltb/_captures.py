"""Captures written by the oltb tool (.csv, .h5), loaded into the event arrays the library fills: one layout,
EVENT_DTYPE, whatever the file's format."""

from __future__ import annotations

import os
from typing import Iterable, Union

import numpy as np

from ._errors import ArgumentError, ArgumentTypeError, Error, FileError
from ._events import EVENT_DTYPE, joined
from ._signals import SIGNAL_TYPES

_CSV_HEADER = "timestamp_ticks,time_us,signal,type,value,overflow"


def _selected(events: np.ndarray, signals: Union[None, str, Iterable[str]]) -> np.ndarray:
    if signals is None:
        return events
    names = [signals] if isinstance(signals, str) else list(signals)
    unknown = [name for name in names if name not in SIGNAL_TYPES]
    if unknown:
        raise ArgumentError("unknown signal %r (see: oltb signals)" % (unknown[0],))
    return events[np.isin(events["type"], [SIGNAL_TYPES[name] for name in names])]


def _load_csv(path: str) -> np.ndarray:
    with open(path, encoding="utf-8-sig", newline="") as capture:
        header = capture.readline().rstrip("\r\n")
        if header != _CSV_HEADER:
            raise Error("%s: not a capture of oltb: the first line is not %s" % (path, _CSV_HEADER))
        try:
            columns = np.loadtxt(capture, delimiter=",", usecols=(0, 1, 3, 4, 5), ndmin=1,
                                 dtype=[("timestamp", "<u8"), ("time", "<f8"), ("type", "<i4"), ("value", "<i4"),
                                        ("overflow", "u1")])
        except ValueError as error:
            raise Error("%s: not a capture of oltb: %s" % (path, error)) from None
    events = np.empty(len(columns), dtype=EVENT_DTYPE)
    for field in ("timestamp", "time", "type", "value"):
        events[field] = columns[field]
    events["overflow"] = columns["overflow"] != 0
    return events


def _load_h5(path: str) -> np.ndarray:
    try:
        import h5py  # optional: python3-h5py
    except ImportError:
        raise Error("%s: reading .h5 files needs h5py (apt-get install python3-h5py)" % path) from None
    parts, order = [], []
    try:
        with h5py.File(path, "r") as capture:
            for name in capture:
                group = capture[name]
                part = np.empty(len(group["timestamp_ticks"]), dtype=EVENT_DTYPE)
                part["timestamp"] = group["timestamp_ticks"][()]
                part["time"] = group["time_us"][()]
                part["type"] = group.attrs["event_type"]
                part["value"] = group["value"][()]
                part["overflow"] = group["overflow"][()] != 0
                parts.append(part)
                order.append(group["sequence"][()])
    except (KeyError, ValueError, TypeError) as error:
        raise Error("%s: not a capture of oltb: %s" % (path, error)) from None
    events = joined(parts)
    # Each event's place in the whole series, as the tool wrote it: the order of the CSV of the same capture.
    return events[np.argsort(np.concatenate(order), kind="stable")] if parts else events


def load(path: Union[str, "os.PathLike[str]"], signals: Union[None, str, Iterable[str]] = None) -> np.ndarray:
    """The events of a capture written by ``oltb`` (``.csv``, or ``.h5`` with h5py), in the order of the capture.

    Parameters
    ----------
    path : str or os.PathLike
        The file; its extension (any case) tells the format.
    signals : str or iterable of str, optional
        Only the events of these signals (names as in ``oltb signals``).

    Returns
    -------
    numpy.ndarray
        An array of ``EVENT_DTYPE``, the same for a capture's ``.csv`` and ``.h5``; time in µs from the capture's
        time 0, head positions as the tool wrote them (signed unless captured with ``--raw``).

    Raises
    ------
    Error
        A file that cannot be read (also an OSError), is no capture of oltb, has an extension other than .csv,
        .h5 or .hdf5, or an unknown signal (also a ValueError); .h5 without h5py installed.
    """
    try:
        text = os.fsdecode(path)
    except TypeError:
        raise ArgumentTypeError("path must be a file name, not %s" % type(path).__name__) from None
    lower = text.lower()
    try:
        if lower.endswith(".csv"):
            events = _load_csv(text)
        elif lower.endswith((".h5", ".hdf5")):
            events = _load_h5(text)
        else:
            raise ArgumentError("%s: not a capture of oltb (.csv or .h5)" % text)
    except OSError as error:
        if isinstance(error, Error):
            raise
        raise FileError("%s: %s" % (text, error.strerror or error)) from None
    return _selected(events, signals)
