"""What users give, as the extension module takes it."""

from __future__ import annotations

import functools
import operator
import os
from typing import Callable, Iterable, Optional, ParamSpec, SupportsIndex, TypeVar, Union

from . import _kelm

Path = Union[str, bytes, "os.PathLike[str]", "os.PathLike[bytes]"]
Password = Union[str, bytes, bytearray]
Progress = Callable[[int, Optional[int]], object]

_P = ParamSpec("_P")
_R = TypeVar("_R")


def wipes_passwords(function: Callable[_P, _R]) -> Callable[_P, _R]:
    """Overwrites passwords that are given as bytearray when the function has ended."""

    @functools.wraps(function)
    def wrapper(*args: _P.args, **kwargs: _P.kwargs) -> _R:
        try:
            return function(*args, **kwargs)
        finally:
            for name, value in kwargs.items():
                if name.endswith("password") and isinstance(value, bytearray):
                    value[:] = bytes(len(value))

    return wrapper


def encode(path: Path) -> bytes:
    """The bytes by which the operating system knows a file."""
    encoded = os.fsencode(path)
    if not encoded:
        raise ValueError("the name of a file is empty")
    if b"\0" in encoded:
        raise ValueError("the name of a file has a null byte")
    return encoded


def encode_all(paths: Iterable[Path]) -> list[bytes]:
    """The same for several; a single name is most likely a mistake."""
    if isinstance(paths, (str, bytes, os.PathLike)):
        raise TypeError("several paths are expected, such as a list")
    return [encode(path) for path in paths]


def decode(path: Path) -> str:
    """A name of a file as text."""
    return os.fsdecode(path)


def new_disk_options(*, size: Optional[int] = None, compressed: bool = False, level: int = -1,
                     split: Optional[int] = None, encrypt: bool = False,
                     rounds: Optional[int] = None, parent: Optional[Path] = None,
                     on_demand: bool = False, label: str = "",
                     digests: bool = True) -> _kelm.NewDiskOptions:
    """The options of a new disk."""
    return _kelm.NewDiskOptions(
        size=_number("size", size), compressed=compressed, level=level,
        split=_number("split", split), encrypt=encrypt, rounds=_number("rounds", rounds),
        parent=b"" if parent is None else encode(parent), on_demand=on_demand, label=label,
        digests=digests)


def _number(name: str, value: Optional[SupportsIndex]) -> int:
    """-1 stands for none, so no other number may be negative."""
    if value is None:
        return -1
    number = operator.index(value)
    if number < 0:
        raise ValueError(f"{name} is negative")
    return number
