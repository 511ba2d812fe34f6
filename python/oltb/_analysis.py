"""The analysis of `oltb analyze` and `oltb compare` over event arrays, through the analysis library's C interface
(oltb_analysis.h): the same code and the same JSON as the tool, straight from the arrays in memory."""

from __future__ import annotations

import ctypes
import json
from typing import Any, Callable, Dict, Optional, Tuple

import numpy as np

from ._errors import ArgumentError, ArgumentTypeError, Error, whole_number
from ._events import MAX_EVENTS, readable
from ._library import ANALYSIS_LIBRARY, load, wait_for


class _Options(ctypes.Structure):
    _fields_ = [("Head", ctypes.c_int), ("SettleBandUnits", ctypes.c_double), ("MaxEdgeDose", ctypes.c_double),
                ("EachStartLabel", ctypes.c_int), ("EachEndLabel", ctypes.c_int)]


_functions: Dict[str, Any] = {}


def _function(name: str, arguments: list) -> Any:
    if name not in _functions:
        function = getattr(load(ANALYSIS_LIBRARY, "OLTB_ANALYSIS_LIBRARY", "analysis"), name)
        function.restype = ctypes.c_int
        function.argtypes = arguments
        _functions[name] = function
    return _functions[name]


def _options(head: int, settle_band: float, max_edge_dose: float,
             each: Optional[Tuple[int, int]] = None) -> _Options:
    head = whole_number("head", head, -(1 << 31), (1 << 31) - 1)
    try:
        settle_band = float(settle_band)
        max_edge_dose = float(max_edge_dose)
    except (TypeError, ValueError):
        raise ArgumentTypeError("settle_band and max_edge_dose must be numbers") from None
    start, end = -1, -1
    if each is not None:
        try:
            start, end = each
        except (TypeError, ValueError):
            raise ArgumentTypeError("each must be a pair of labels (start, end)") from None
        start = whole_number("each's start label", start, 0, 65535)
        end = whole_number("each's end label", end, 0, 65535)
    return _Options(head, settle_band, max_edge_dose, start, end)


def _checked(events: np.ndarray) -> np.ndarray:
    events = readable(events)
    if len(events) > MAX_EVENTS:
        raise ArgumentError("the analysis takes at most %d events" % MAX_EVENTS)
    return events


def _json(call: Callable[[Any, int], int], size: int) -> Dict[str, Any]:
    # Room enough that the analysis runs once: its text grows with the marks and jumps, which for positions traced
    # every 10 us take far less than two bytes per event. When it needs more, the call says how much and runs again.
    size = max(1 << 16, min(size, (1 << 31) - 1))
    while True:
        text = ctypes.create_string_buffer(size)
        # In a thread of its own, so that Ctrl-C comes through during a long analysis.
        length = wait_for(lambda: call(text, size))
        if length < 0:
            raise Error(text.value.decode(errors="replace") or "the analysis failed")
        if length < size:
            return json.loads(text.value.decode())
        size = length + 1


def _series(runs: list, key: str, field: str) -> np.ndarray:
    """One figure of every mark or jump of every run: an array of runs x items, NaN where it was not measured."""
    return np.array([[np.nan if item[field] is None else item[field] for item in run[key]] for run in runs],
                    dtype=float)


def analyze(events: np.ndarray, head: int = 0, settle_band: float = 100.0, max_edge_dose: float = 2.0,
            each: Optional[Tuple[int, int]] = None) -> Dict[str, Any]:
    """The figures of ``oltb analyze --json``: the card's settings now and suggested, where the laser edges land,
    jump settling, corners, the head's steady lag and model, warnings, lost events.

    Parameters
    ----------
    events : numpy.ndarray
        Events of ``EVENT_DTYPE`` (or its fields in another layout, which is copied) in time order, head
        positions signed, as ``Client.read``/``Client.acquire`` with ``signed=True`` and ``load`` give them.
    head : int
        The scan head, 0 or 1.
    settle_band : float
        How close to its target a mirror must stay to have settled after a jump, in head units (> 0).
    max_edge_dose : float
        The most dose a mark's start or end may take, in times the dose of its body (1 to 100); the suggested laser
        delays switch the gate where the mirror moves at 1/max_edge_dose of the mark speed.
    each : tuple of int, optional
        ``(start, end)``: analyze every run between these labels, as ``oltb analyze --each START END --json``.

    Returns
    -------
    dict
        The JSON object of ``oltb analyze --json`` (times in µs, lengths in head units, None for what could not be
        measured). With ``each``: ``runs``, ``figures`` (the spread of each figure), ``settings`` that hold in every
        run, ``jump_delay_table``, ``warnings``, ``each`` (every run's analysis) and ``series``: numpy arrays of
        ``tracking_error_x_us`` and ``tracking_error_y_us`` (one value a run) and of the marks' ``start_missing``,
        ``end_missing``, ``speed_at_on``, ``speed_at_off`` and the jumps' ``settle_us`` (runs x marks or jumps, NaN
        where not measured).

    Raises
    ------
    Error
        The analysis library's text (a head other than 0 or 1, a settle band that is not positive, no run between the
        labels, runs of different jobs, not enough memory, ...), events that are no such array (also a TypeError),
        or the analysis library not found.
    """
    events = _checked(events)
    options = _options(head, settle_band, max_edge_dose, each)
    function = _function("oltbAnalyzeWithOptions", [ctypes.c_void_p, ctypes.c_uint32, ctypes.POINTER(_Options),
                                                     ctypes.c_char_p, ctypes.c_int])
    result = _json(lambda text, size: function(events.ctypes.data, len(events), ctypes.byref(options), text, size),
                   2 * len(events))
    if each is not None:
        runs = result["each"]
        result["series"] = {
            "tracking_error_x_us": np.array([r["tracking_error_us"]["x"] for r in runs], dtype=float),
            "tracking_error_y_us": np.array([r["tracking_error_us"]["y"] for r in runs], dtype=float),
            **{field: _series(runs, "marks", field) for field in
               ("start_missing", "end_missing", "speed_at_on", "speed_at_off")},
            "settle_us": _series(runs, "jumps", "settle_us"),
        }
    return result


def compare(before: np.ndarray, after: np.ndarray, head: int = 0, settle_band: float = 100.0,
            max_edge_dose: float = 2.0) -> Dict[str, Any]:
    """Two traces of a head side by side, as ``oltb compare --json``: the settings each shows and every figure
    before and after, better or worse in words; marks, jumps and corners paired by their commanded points.

    Parameters
    ----------
    before, after : numpy.ndarray
        The two traces, as for ``analyze``.
    head, settle_band, max_edge_dose
        As for ``analyze``.

    Returns
    -------
    dict
        ``same_job``, ``job_difference``, ``settings`` and ``figures`` (each ``figure``, ``unit``, ``before``,
        ``after``, ``verdict``, ``words``), ``mark_pairs``, ``jump_pairs``, ``corner_pairs``, both analyses in full
        (``before``, ``after``) and ``paired``: numpy arrays of the paired marks' ``start_missing``,
        ``end_missing``, ``speed_at_on``, ``speed_at_off`` and the paired jumps' ``settle_us`` (pairs x 2: before,
        after; NaN where not measured).

    Raises
    ------
    Error
        As for ``analyze``.
    """
    before = _checked(before)
    after = _checked(after)
    options = _options(head, settle_band, max_edge_dose)
    function = _function("oltbCompareToJson", [ctypes.c_void_p, ctypes.c_uint32, ctypes.c_void_p, ctypes.c_uint32,
                                               ctypes.POINTER(_Options), ctypes.c_char_p, ctypes.c_int])
    result = _json(lambda text, size: function(before.ctypes.data, len(before), after.ctypes.data, len(after),
                                               ctypes.byref(options), text, size), 2 * (len(before) + len(after)))

    def paired(key: str, pairs: str, field: str) -> np.ndarray:
        values = [[result["before"][key][b][field], result["after"][key][a][field]] for b, a in result[pairs]]
        return np.array([[np.nan if v is None else v for v in row] for row in values], dtype=float).reshape(-1, 2)

    result["paired"] = {
        **{field: paired("marks", "mark_pairs", field) for field in
           ("start_missing", "end_missing", "speed_at_on", "speed_at_off")},
        "settle_us": paired("jumps", "jump_pairs", "settle_us"),
    }
    return result
