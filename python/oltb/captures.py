"""Captures written by the oltb tool (.csv, .h5), loaded into the event arrays the library fills."""

import numpy as np

from ._signals import SIGNAL_TYPES


def _selected(events, signals):
    if signals is None:
        return events
    names = [signals] if isinstance(signals, str) else list(signals)
    unknown = [name for name in names if name not in SIGNAL_TYPES]
    if unknown:
        raise ValueError("unknown signal %r (see: oltb signals)" % unknown[0])
    return events[np.isin(events["type"], [SIGNAL_TYPES[name] for name in names])]


def _load_csv(path, dtype):
    columns = np.loadtxt(path, delimiter=",", skiprows=1, usecols=(0, 1, 3, 4, 5), ndmin=1,
                         dtype=[("timestamp", "<u8"), ("time", "<f8"), ("type", "<i4"), ("value", "<i4"),
                                ("overflow", "u1")])
    events = np.empty(len(columns), dtype=dtype)
    for field in ("timestamp", "time", "type", "value"):
        events[field] = columns[field]
    events["overflow"] = columns["overflow"] != 0
    return events


def _load_h5(path, dtype):
    import h5py  # optional: python3-h5py

    parts = []
    with h5py.File(path, "r") as capture:
        for name in capture:
            group = capture[name]
            part = np.empty(len(group["timestamp_ticks"]), dtype=dtype)
            part["timestamp"] = group["timestamp_ticks"][()]
            part["time"] = group["time_us"][()]
            part["type"] = group.attrs["event_type"]
            part["value"] = group["value"][()]
            part["overflow"] = group["overflow"][()] != 0
            parts.append(part)
    events = np.concatenate(parts) if parts else np.empty(0, dtype=dtype)
    return events[np.argsort(events["timestamp"], kind="stable")]


def load(path, signals=None):
    """The events of a capture written by oltb (.csv, or .h5 with python3-h5py), in time order, optionally only
    those of the named signals."""
    from . import EVENT_DTYPE

    text = str(path)
    if text.lower().endswith(".csv"):
        events = _load_csv(text, EVENT_DTYPE)
    elif text.lower().endswith((".h5", ".hdf5")):
        events = _load_h5(text, EVENT_DTYPE)
    else:
        raise ValueError("%s: not a capture of oltb (.csv or .h5)" % text)
    return _selected(events, signals)
