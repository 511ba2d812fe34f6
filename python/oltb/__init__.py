"""The trace buffer of a laser scan controller card from Python: the oltb library through ctypes, events as numpy
structured arrays, captures of the oltb tool loaded back, and the tool's analysis.

    import oltb
    with oltb.connect("127.0.0.9") as client:
        client.configure(["Head0TxX", "Head0TxY", "Head0RxX", "Head0RxY", "Gate", "Label"])
        client.start()
        job = client.acquire(1, 2, signed=True)   # the events between labels 1 and 2
    print(oltb.analyze(job)["tracking_error_us"])

Every failure raises oltb.Error, a RuntimeError: with the library's own text for what the library reports; for an
invalid argument it is also a ValueError or TypeError, for a file that cannot be read also an OSError. Every wait
ends on Ctrl-C within a fraction of a second. The libraries are found as the README's Python section says
(OLTB_LIBRARY and OLTB_ANALYSIS_LIBRARY name them outright).
"""

from ._analysis import analyze, compare
from ._captures import load
from ._client import Client, connect
from ._errors import Error
from ._events import EVENT_DTYPE, to_signed
from ._signals import SIGNAL_TYPES, SIGNALS, signal_name

__version__ = "0.1.0"

# dir(oltb) shows the API only: the modules behind it stay in sys.modules.
for _module in ("_analysis", "_captures", "_client", "_errors", "_events", "_library", "_signals"):
    del globals()[_module]
del _module
Error.__module__ = Client.__module__ = "oltb"

__all__ = ["Client", "EVENT_DTYPE", "Error", "SIGNALS", "SIGNAL_TYPES", "analyze", "compare", "connect", "load",
           "signal_name", "to_signed"]
