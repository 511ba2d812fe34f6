"""The analysis of `oltb analyze` over an event array, through the analysis library's C interface: the same code and
the same JSON as the tool, straight from the array in memory (no file to write and read back)."""

import ctypes
import json
import os
import pathlib

import numpy

from ._library import Error, library

_LIBRARY_NAME = "liboltb-analysis.so"
_analysis = None


def _load():
    global _analysis
    if _analysis is None:
        # Installed, the analysis library lies in this package; in a build tree, beside the trace buffer library.
        core = pathlib.Path(library().path)
        candidates = [os.environ.get("OLTB_ANALYSIS_LIBRARY"), str(pathlib.Path(__file__).parent / _LIBRARY_NAME),
                      str(core.parent / "analysis" / _LIBRARY_NAME)]
        for path in filter(None, candidates):
            try:
                _analysis = ctypes.CDLL(path)
                break
            except OSError:
                continue
        else:
            raise Error("cannot load the analysis library " + _LIBRARY_NAME + " (set OLTB_ANALYSIS_LIBRARY)")
        _analysis.oltbAnalyzeToJson.restype = ctypes.c_int
        _analysis.oltbAnalyzeToJson.argtypes = [ctypes.c_void_p, ctypes.c_uint32, ctypes.c_int, ctypes.c_double,
                                                ctypes.c_char_p, ctypes.c_int]
    return _analysis


def analyze(events, head=0, settle_band=100.0):
    """The figures of `oltb analyze --json` as a dict, for events in time order with signed head positions (as
    Client.read/acquire(signed=True) and oltb.load of an oltb capture give them)."""
    from . import EVENT_DTYPE

    if events.dtype != EVENT_DTYPE:
        raise ValueError("events must be an array of oltb.EVENT_DTYPE")
    events = numpy.ascontiguousarray(events)  # the library reads one C array
    function = _load().oltbAnalyzeToJson
    # Room enough that the analysis runs once: its text grows with the marks and jumps, which for positions traced
    # every 10 us take far less than two bytes per event. When it needs more, the call says how much and runs again.
    size = max(1 << 16, 2 * len(events))
    while True:
        text = ctypes.create_string_buffer(size)
        length = function(events.ctypes.data, len(events), head, settle_band, text, size)
        if length < 0:
            raise ValueError("head must be 0 or 1 and settle_band positive")
        if length < size:
            return json.loads(text.value.decode())
        size = length + 1
