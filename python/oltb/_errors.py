"""The package's errors, and the check of whole numbers before ctypes narrows them."""

from __future__ import annotations

import operator
from typing import Any


class Error(RuntimeError):
    """Every failure of the oltb package: the library's own text for what the library reports, and a text of the
    package for invalid arguments (then also a ValueError or TypeError) and unreadable files (then also an OSError).
    """


class ArgumentError(Error, ValueError):
    pass


class ArgumentTypeError(Error, TypeError):
    pass


class FileError(Error, OSError):
    pass


def whole_number(name: str, value: Any, low: int, high: int) -> int:
    """value as an int within [low, high]: ctypes would wrap a larger one silently (65537 as a 16-bit label is 1)."""
    if isinstance(value, bool):
        raise ArgumentTypeError("%s must be a whole number, not a bool" % name)
    try:
        number = operator.index(value)
    except TypeError:
        raise ArgumentTypeError("%s must be a whole number, not %s" % (name, type(value).__name__)) from None
    if not low <= number <= high:
        raise ArgumentError("%s must be within %d..%d, not %d" % (name, low, high, number))
    return number
