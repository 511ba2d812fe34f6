"""Finding and loading the two shared libraries of the package, and calling them so that Ctrl-C comes through.

Both libraries are looked for in one order: the environment variable (OLTB_LIBRARY, OLTB_ANALYSIS_LIBRARY) alone when
it is set; else beside this package (the Debian package and `make install` put the analysis library there); the
library folders of the prefix the package is installed in (PREFIX/lib/python3/dist-packages/oltb ->
PREFIX/lib/<multiarch>, PREFIX/lib); the build folders of the source tree the package lies in or was installed from
with pip (build/release, build/debug); last the loader's path.
"""

from __future__ import annotations

import ctypes
import os
import pathlib
import sysconfig
import threading
from typing import Any, Callable, Iterator, Optional

from ._errors import Error
from ._signals import ConfigRecord, TraceEvent

TRACE_LIBRARY = "libOLVEN.TALIX3.Native.TraceBufferLib.so"
ANALYSIS_LIBRARY = "liboltb-analysis.so"
# The longest a call of this package waits without looking for Ctrl-C, in milliseconds.
WAIT_SLICE_MS = 100


def _source_trees(package: pathlib.Path) -> Iterator[pathlib.Path]:
    """The source tree this package lies in, and the one `pip install` took it from (recorded by setup.py)."""
    yield package.parents[1]
    recorded = package / "_source_tree.txt"
    if recorded.is_file():
        yield pathlib.Path(recorded.read_text().strip())


def candidates(name: str, build_folder: str) -> Iterator[str]:
    """The paths to try for library `name`, in the order of this module's text; build_folder is its folder within
    a build directory ("" or "analysis")."""
    package = pathlib.Path(__file__).resolve().parent
    folders = [package]
    if package.parent.name in ("dist-packages", "site-packages"):
        prefix_lib = package.parents[2]
        multiarch = sysconfig.get_config_var("MULTIARCH")
        folders += ([prefix_lib / multiarch] if multiarch else []) + [prefix_lib]
    for tree in _source_trees(package):
        if (tree / "api" / "oltb.h").is_file():
            # A sanitized build (asan, tsan) does not load into an uninstrumented interpreter.
            folders += [tree / "build" / preset / build_folder for preset in ("release", "debug")]
    for folder in folders:
        if (folder / name).is_file():
            yield str(folder / name)
    yield name


def load(name: str, variable: str, build_folder: str) -> ctypes.CDLL:
    """Loads library `name` from the first place it is found; Error naming every place tried when none works."""
    if os.environ.get(variable):
        paths = [os.environ[variable]]
    else:
        paths = list(dict.fromkeys(candidates(name, build_folder)))
    failures = []
    for path in paths:
        try:
            return ctypes.CDLL(path)
        except OSError as error:
            failures.append(str(error))
    raise Error("cannot load %s (set %s to its path): %s" % (name, variable, "; ".join(failures)))


def wait_for(function: Callable[[], Any], undo: Optional[Callable[[Any], Any]] = None) -> Any:
    """function() in a thread of its own while this one waits in short steps, so that Ctrl-C comes through at once
    (a call into a library does not see it). An abandoned call still ends within its own bound; undo(result) then
    gives back what it got, such as a connection."""
    lock = threading.Lock()
    done = threading.Event()
    outcome: dict = {}

    def run() -> None:
        try:
            result = function()
        except BaseException as error:  # handed to the waiting thread
            result, outcome["error"] = None, error
        with lock:
            outcome["result"] = result
            if outcome.get("abandoned") and undo is not None and "error" not in outcome:
                undo(result)
        done.set()

    threading.Thread(target=run, name="oltb call", daemon=True).start()
    try:
        while not done.wait(WAIT_SLICE_MS / 1000):
            pass
    except BaseException:
        with lock:
            outcome["abandoned"] = True
            if "result" in outcome and undo is not None and "error" not in outcome:
                undo(outcome["result"])
        raise
    if "error" in outcome:
        raise outcome["error"].with_traceback(None)  # the helper thread's frames tell the caller nothing
    return outcome["result"]


_EVENTS = ctypes.POINTER(TraceEvent)
_COUNT = ctypes.POINTER(ctypes.c_uint32)
_PROTOTYPES = {
    "oltbGetLastError": (None, [ctypes.c_char_p, ctypes.c_int]),
    "oltbGetLastErrorLen": (ctypes.c_int, []),
    "oltbToSignedPosition": (ctypes.c_int, [_EVENTS, ctypes.c_uint32]),
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
    "oltbTryRead": (ctypes.c_int, [ctypes.c_int, _EVENTS, ctypes.c_uint32, ctypes.c_uint32, _COUNT]),
    "oltbRead": (ctypes.c_int, [ctypes.c_int, _EVENTS, ctypes.c_uint32, ctypes.c_uint32, _COUNT]),
}


class TraceLibrary:
    """The trace buffer library with the prototypes of its functions, as attributes of the same names."""

    def __init__(self) -> None:
        self.dll = load(TRACE_LIBRARY, "OLTB_LIBRARY", "")
        for name, (result, arguments) in _PROTOTYPES.items():
            function = getattr(self.dll, name)
            function.restype = result
            function.argtypes = arguments
            setattr(self, name, function)

    def last_error(self) -> str:
        """The text of the last failure in this thread."""
        text = ctypes.create_string_buffer(max(self.oltbGetLastErrorLen(), 1))
        self.oltbGetLastError(text, len(text))
        return text.value.decode(errors="replace")

    def check(self, result: int) -> int:
        """Raises Error with the library's text when a call returned -1 (call it in the thread that made the call:
        the text is kept per thread)."""
        if result == -1:
            raise Error(self.last_error())
        return result

    def call_waiting(self, name: str, *arguments: Any, undo: Optional[Callable[[int], Any]] = None) -> int:
        """A call that may block for seconds (connecting, a command's answer), made so that Ctrl-C comes through."""
        function = getattr(self, name)
        return wait_for(lambda: self.check(function(*arguments)), undo)


_trace_library: Optional[TraceLibrary] = None


def trace_library() -> TraceLibrary:
    """The trace buffer library, loaded on first use."""
    global _trace_library
    if _trace_library is None:
        _trace_library = TraceLibrary()
    return _trace_library
