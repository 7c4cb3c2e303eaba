"""The errors of kelm."""

from __future__ import annotations

import errno
from types import MappingProxyType
from typing import ClassVar, Mapping, Optional, Type


class Error(Exception):
    """Whatever goes wrong with a disk. Each of the derived classes has one of the standard
    exceptions beside it where there is one that says the same.

    >>> try:
    ...     kelm.open("no such disk.vmdk")
    ... except FileNotFoundError as error:
    ...     print(isinstance(error, kelm.Error), error.code, sorted(error.properties))
    True 2 ['uri']

    `message` says what happened, `code` is a number for programs (-1 where there is none), and
    `properties` are the facts: texts by their names, such as the file ("uri" or "path") and the
    damaged part of the disk ("bytes"). `str(error)` has both. `__cause__` is the error behind this
    one.
    """

    code: int
    message: str
    properties: Mapping[str, str]

    _errno: ClassVar[Optional[int]] = None

    def __init__(self, message: str, *, code: int = -1,
                 properties: Optional[Mapping[str, str]] = None, text: Optional[str] = None,
                 filename: Optional[str] = None) -> None:
        if self._errno is None:
            super().__init__(message)
        elif filename is None:
            super().__init__(self._errno, message)
        else:
            super().__init__(self._errno, message, filename)
        self.message = message
        self.code = code
        self.properties = MappingProxyType(dict(properties or {}))
        self._text = message if text is None else text
        self._file = filename

    def __str__(self) -> str:
        return self._text

    def __reduce__(self) -> tuple[object, ...]:
        return _rebuild, (type(self), self.message, self.code, dict(self.properties), self._text,
                          self._file)


class NotFound(Error, FileNotFoundError):
    """A disk, a parent, an image or a folder does not exist."""

    _errno = errno.ENOENT


class Exists(Error, FileExistsError):
    """A file is in the way."""

    _errno = errno.EEXIST


class Denied(Error, PermissionError):
    """The operating system refuses a file, or a descriptor leads out of the disk's folder."""

    _errno = errno.EACCES


class InUse(Error, BlockingIOError):
    """Another program, or another open disk of this one, holds the lock of the disk."""

    _errno = errno.EAGAIN


class NoSpace(Error, OSError):
    """The device, a quota or the size limit of the process is exhausted, or the disk ends."""

    _errno = errno.ENOSPC


class Damaged(Error, OSError):
    """A file has content that cannot be right, or ends too early."""

    _errno = errno.EIO


class IOFailure(Error, OSError):
    """Any other failure of files and devices, and what the disk does not allow."""

    _errno = errno.EIO


class WrongPassword(Error):
    """The disk is encrypted, and the password is wrong or missing."""


class Unfinished(Error):
    """The disk was never filled completely. ``unfinished=True`` reads it as it is."""


class InvalidArgument(Error, ValueError):
    """What was asked for makes no sense."""


_CLASSES: Mapping[str, Type[Error]] = {
    "not found": NotFound,
    "exists": Exists,
    "denied": Denied,
    "in use": InUse,
    "no space": NoSpace,
    "damaged": Damaged,
    "io": IOFailure,
    "password": WrongPassword,
    "unfinished": Unfinished,
    "invalid argument": InvalidArgument,
}


def make_error(kind: str, text: str, message: str, code: int, properties: Mapping[str, str],
               filename: Optional[str], cause: Optional[Error]) -> Error:
    """For the extension module: the exception for an error of the library."""
    error = _rebuild(_CLASSES.get(kind, Error), message, code, properties, text, filename)
    error.__cause__ = cause
    return error


def _rebuild(which: Type[Error], message: str, code: int, properties: Mapping[str, str],
             text: str, filename: Optional[str]) -> Error:
    return which(message, code=code, properties=properties, text=text, filename=filename)
