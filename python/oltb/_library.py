"""Finding and loading the oltb library, and the prototypes of its functions."""

import ctypes
import os
import pathlib

from ._signals import ConfigRecord, TraceEvent

LIBRARY_NAME = "libOLVEN.TALIX3.Native.TraceBufferLib.so"


class Error(Exception):
    """A call of the library failed; the message is the library's last-error text."""


def _candidates():
    """OLTB_LIBRARY first; then the build tree beside this package's source; then the installed library."""
    if os.environ.get("OLTB_LIBRARY"):
        yield os.environ["OLTB_LIBRARY"]
    root = pathlib.Path(__file__).resolve().parents[2]
    for build in ("release", "debug", "asan"):
        path = root / "build" / build / LIBRARY_NAME
        if path.exists():
            yield str(path)
    yield LIBRARY_NAME


_PROTOTYPES = {
    "oltbGetLastError": (None, [ctypes.c_char_p, ctypes.c_int]),
    "oltbGetLastErrorLen": (ctypes.c_int, []),
    "oltbToSignedPosition": (ctypes.c_int, [ctypes.POINTER(TraceEvent), ctypes.c_uint32]),
    "oltbConnect": (ctypes.c_int, [ctypes.c_char_p]),
    "oltbDisconnect": (ctypes.c_int, [ctypes.c_int]),
    "oltbIsConnected": (ctypes.c_int, [ctypes.c_int, ctypes.POINTER(ctypes.c_bool)]),
    "oltbGetReadTimeout": (ctypes.c_int, [ctypes.c_int, ctypes.POINTER(ctypes.c_int)]),
    "oltbSetReadTimeout": (ctypes.c_int, [ctypes.c_int, ctypes.c_int]),
    "oltbStart": (ctypes.c_int, [ctypes.c_int]),
    "oltbStop": (ctypes.c_int, [ctypes.c_int]),
    "oltbClear": (ctypes.c_int, [ctypes.c_int]),
    "oltbGetConfig": (ctypes.c_int, [ctypes.c_int, ctypes.POINTER(ConfigRecord)]),
    "oltbSetConfig": (ctypes.c_int, [ctypes.c_int, ctypes.POINTER(ConfigRecord)]),
    "oltbTryRead": (ctypes.c_int, [ctypes.c_int, ctypes.POINTER(TraceEvent), ctypes.c_uint32, ctypes.c_uint32,
                                   ctypes.POINTER(ctypes.c_uint32)]),
    "oltbRead": (ctypes.c_int, [ctypes.c_int, ctypes.POINTER(TraceEvent), ctypes.c_uint32, ctypes.c_uint32,
                                ctypes.POINTER(ctypes.c_uint32)]),
    "oltbAcquire": (ctypes.c_int, [ctypes.c_int, ctypes.c_uint16, ctypes.c_uint16, ctypes.POINTER(ctypes.c_uint32)]),
    "oltbGetAcquiredElements": (ctypes.c_int, [ctypes.c_int, ctypes.POINTER(TraceEvent), ctypes.c_uint32,
                                               ctypes.c_uint32, ctypes.POINTER(ctypes.c_uint32)]),
}


class _Library:
    def __init__(self, path):
        self.path = path
        self._dll = ctypes.CDLL(path)
        for name, (result, arguments) in _PROTOTYPES.items():
            function = getattr(self._dll, name)
            function.restype = result
            function.argtypes = arguments
            setattr(self, name, function)

    def last_error(self):
        length = self.oltbGetLastErrorLen()
        text = ctypes.create_string_buffer(max(length, 1))
        self.oltbGetLastError(text, len(text))
        return text.value.decode(errors="replace")

    def check(self, result):
        """Raises Error with the library's text when a call returned -1."""
        if result == -1:
            raise Error(self.last_error())
        return result


_loaded = None


def library():
    """The loaded library (loaded on first use)."""
    global _loaded
    if _loaded is None:
        failures = []
        for path in _candidates():
            try:
                _loaded = _Library(path)
                break
            except OSError as error:
                failures.append(str(error))
        else:
            raise Error("cannot load the oltb library (set OLTB_LIBRARY to its path): " + "; ".join(failures))
    return _loaded
