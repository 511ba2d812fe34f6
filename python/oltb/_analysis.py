"""The analysis of `oltb analyze` over an event array, through the analysis library's C interface (oltb_analysis.h):
the same code and the same JSON as the tool, straight from the array in memory."""

from __future__ import annotations

import ctypes
import json
from typing import Any, Dict, Optional

import numpy as np

from ._errors import ArgumentError, ArgumentTypeError, Error, whole_number
from ._events import MAX_EVENTS, readable
from ._library import ANALYSIS_LIBRARY, load, wait_for

_analyze_to_json: Optional[Any] = None


def _function() -> Any:
    global _analyze_to_json
    if _analyze_to_json is None:
        function = load(ANALYSIS_LIBRARY, "OLTB_ANALYSIS_LIBRARY", "analysis").oltbAnalyzeToJson
        function.restype = ctypes.c_int
        function.argtypes = [ctypes.c_void_p, ctypes.c_uint32, ctypes.c_int, ctypes.c_double, ctypes.c_char_p,
                             ctypes.c_int]
        _analyze_to_json = function
    return _analyze_to_json


def analyze(events: np.ndarray, head: int = 0, settle_band: float = 100.0) -> Dict[str, Any]:
    """The figures of ``oltb analyze --json``: tracking error, following error, marks and laser timing, jumps and
    their settling, lost events.

    Parameters
    ----------
    events : numpy.ndarray
        Events of ``EVENT_DTYPE`` (or its fields in another layout, which is copied) in time order, head
        positions signed, as ``Client.read``/``Client.acquire`` with ``signed=True`` and ``load`` give them.
    head : int
        The scan head, 0 or 1.
    settle_band : float
        How close to its target a mirror must stay to have settled after a jump, in head units (> 0).

    Returns
    -------
    dict
        The JSON object of ``oltb analyze --json``, with the keys the README lists (times in µs, lengths in head
        units, None for what could not be measured).

    Raises
    ------
    Error
        The analysis library's text (a head other than 0 or 1, a settle band that is not positive, not enough
        memory, ...), events that are no such array (also a TypeError), or the analysis library not found.
    """
    events = readable(events)
    if len(events) > MAX_EVENTS:
        raise ArgumentError("the analysis takes at most %d events" % MAX_EVENTS)
    head = whole_number("head", head, -(1 << 31), (1 << 31) - 1)
    try:
        settle_band = float(settle_band)
    except (TypeError, ValueError):
        raise ArgumentTypeError("settle_band must be a number of head units") from None
    function = _function()
    # Room enough that the analysis runs once: its text grows with the marks and jumps, which for positions traced
    # every 10 us take far less than two bytes per event. When it needs more, the call says how much and runs again.
    size = max(1 << 16, min(2 * len(events), (1 << 31) - 1))
    while True:
        text = ctypes.create_string_buffer(size)
        # In a thread of its own, so that Ctrl-C comes through during a long analysis.
        length = wait_for(lambda: function(events.ctypes.data, len(events), head, settle_band, text, size))
        if length < 0:
            raise Error(text.value.decode(errors="replace") or "the analysis failed")
        if length < size:
            return json.loads(text.value.decode())
        size = length + 1
